// The calibration store: blocks from the camera, their YAML files, parsing and hand-over.
#include "wrapper/CalibrationStore.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "common/DataDir.h"
#include "frame/CalibrationCheck.h"

namespace Talvoro::wrapper {

namespace {

constexpr char kYamlHeader[] = "%YAML:1.0";
constexpr std::size_t kYamlHeaderLength = sizeof kYamlHeader - 1;

// The six matrices of one set, indexed by their bit in availableCalibData.
using CalibSet = std::array<cv::Mat, 6>;

enum class Shape { Matrix3x3, FiveCoefficients, ThreeValues };

struct Key {
    const char* name;
    Shape shape;
    int slot;  // bit of availableCalibData within its set
    const char* missing;
};

struct Block {
    const char* file;
    Result (*request)(DeviceHandle, int*);
    Result (*read)(DeviceHandle, int*, unsigned char*);
    const char* requestFailed;
    const char* unsupported;
    // The extrinsics are checked before their file is written, and logged around the calls.
    bool checkBeforeWriting;
    Key plain[2];
    Key hd[2];
};

const Block kBlocks[3] = {
    {"depth_intrinsic.yml",
     CalibReadReqDepthIntrinsic,
     CalibReadDepthIntrinsic,
     "calib read req depth intrinsic failed",
     "depth_intrinsic.yml not in supported format",
     false,
     {{"SCCM_D", Shape::Matrix3x3, 0, "depth_intrinsic data not found"},
      {"SCCD_D", Shape::FiveCoefficients, 1, "depth_distortion data not found"}},
     {{"SCCM_D_HD", Shape::Matrix3x3, 0, "hd_depth_intrinsic data not found"},
      {"SCCD_D_HD", Shape::FiveCoefficients, 1, "hd_depth_distortion data not found"}}},
    {"rgb_intrinsic.yml",
     CalibReadReqRGBIntrinsic,
     CalibReadRGBIntrinsic,
     "calib read req RGB intrinsic failed",
     "rgb_intrinsic.yml file not in supported format",
     false,
     {{"SCCM_RGB", Shape::Matrix3x3, 2, "rgb_intrinsic data not found"},
      {"SCCD_RGB", Shape::FiveCoefficients, 3, "rgb_distortion data not found"}},
     {{"SCCM_RGB_HD", Shape::Matrix3x3, 2, "hd_rgb_intrinsic data not found"},
      {"SCCD_RGB_HD", Shape::FiveCoefficients, 3, "hd_rgb_distortion data not found"}}},
    {"stereo_extrinsic.yml",
     CalibReadReqExtrinsic,
     CalibReadExtrinsic,
     "calib read req extrinsic failed",
     "stereo_extrinsic.yml file not in supported format",
     true,
     {{"R", Shape::Matrix3x3, 4, "rotation_matrix data not found"},
      {"T", Shape::ThreeValues, 5, "translation_matrix data not found"}},
     {{"R_HD", Shape::Matrix3x3, 4, "hd_rotation_matrix data not found"},
      {"T_HD", Shape::ThreeValues, 5, "hd_translation_matrix data not found"}}},
};

void logCalib(const std::string& message) {
    log(7, "\nTalvoroSDK:" + message);
}

bool hasYamlHeader(const std::vector<unsigned char>& bytes) {
    return bytes.size() >= kYamlHeaderLength &&
           std::memcmp(bytes.data(), kYamlHeader, kYamlHeaderLength) == 0;
}

// Creates or truncates `file` and writes the block as received.
bool writeFile(const char* file, const std::vector<unsigned char>& bytes) {
    std::FILE* f = std::fopen(dataPath(file).c_str(), "wb+");
    if (!f) {
        const int error = errno;
        logCalib("creating new file failed " + std::to_string(error));
        return false;
    }
    const std::size_t written = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), f);
    const int error = errno;
    const bool closed = std::fclose(f) == 0;
    if (written != bytes.size() || !closed) {
        logCalib("creating new file failed " + std::to_string(error));
        return false;
    }
    return true;
}

// Fetches a block from the camera into its file. False (logged) ends the loading.
bool fetchBlock(const DeviceHandle& handle, const Block& block) {
    const bool extrinsic = block.checkBeforeWriting;
    if (extrinsic) log(7, "\nTalvoroSDK: before CalibReadReqExtrinsic");
    int size = 0;
    const Result requested = block.request(handle, &size);
    if (extrinsic) log(7, "\nTalvoroSDK: after CalibReadReqExtrinsic");
    if (requested <= 0) {
        logCalib(block.requestFailed);
        return false;
    }
    // The size is the camera's word: at most 65535 bytes, and never less than one allocated.
    size = std::clamp(size, 0, 65535);
    std::vector<unsigned char> bytes;
    try {
        bytes.resize(static_cast<std::size_t>(std::max(size, 1)));
    } catch (const std::bad_alloc&) {
        logCalib("malloc failed");
        return false;
    }
    const Result read = block.read(handle, &size, bytes.data());
    if (extrinsic) log(7, "\nTalvoroSDK: after CalibReadExtrinsic");
    if (read != Ok) {
        logCalib("read failed " + std::to_string(read));
        return false;
    }
    bytes.resize(static_cast<std::size_t>(size));
    if (extrinsic && !hasYamlHeader(bytes)) {
        logCalib(block.unsupported);
        return false;
    }
    if (!writeFile(block.file, bytes)) return false;
    if (!hasYamlHeader(bytes)) {
        logCalib(block.unsupported);
        return false;
    }
    return true;
}

bool fits(const cv::Mat& m, Shape shape) {
    if (m.empty() || m.channels() != 1 || m.dims != 2) return false;
    switch (shape) {
        case Shape::Matrix3x3:
            return m.rows == 3 && m.cols == 3;
        case Shape::FiveCoefficients:
            return m.total() == 5 && (m.rows == 1 || m.cols == 1);
        case Shape::ThreeValues:
            return m.total() == 3 && (m.rows == 1 || m.cols == 1);
    }
    return false;
}

frame::CalibrationItem itemOf(const Key& key) {
    using Item = frame::CalibrationItem;
    constexpr Item kBySlot[6] = {Item::CameraMatrix, Item::Distortion, Item::CameraMatrix,
                                 Item::Distortion,   Item::Rotation,   Item::Translation};
    return kBySlot[key.slot];
}

// Reads one key as a double matrix. A missing key, one of another shape, or one whose size or
// values the checks refuse (logged with the reason) is logged as missing and leaves its bit clear.
void readKey(const cv::FileStorage& fs, const Key& key, int shift, CalibSet* set, uint16_t* bits) {
    std::string refused;
    const cv::Mat m = frame::readCalibrationMatrix(fs, key.name, itemOf(key), &refused);
    if (!refused.empty()) logCalib(std::string(key.name) + " refused: " + refused);
    if (!fits(m, key.shape)) {
        logCalib(key.missing);
        return;
    }
    cv::Mat& slot = (*set)[static_cast<std::size_t>(key.slot)];
    m.convertTo(slot, CV_64F);
    if (key.shape == Shape::ThreeValues) slot = slot.reshape(1, 3).clone();
    *bits = static_cast<uint16_t>(*bits | (1u << (key.slot + shift)));
}

// Reads a block's file back, up to one byte more than the checks allow. False when it cannot be
// opened.
bool readFile(const char* file, std::string* text) {
    std::FILE* f = std::fopen(dataPath(file).c_str(), "rb");
    if (!f) return false;
    text->resize(frame::kMaxCalibrationText + 1);
    text->resize(std::fread(&(*text)[0], 1, text->size(), f));
    std::fclose(f);
    return true;
}

// Parses a block's file for the keys its validity flag selects. False (logged) ends the loading.
bool parseBlock(const Block& block, int flag, CalibSet* plain, CalibSet* hd, uint16_t* bits) {
    cv::FileStorage fs;
    std::string text;
    if (readFile(block.file, &text)) {
        // OpenCV's reader does not return on some malformed texts: it sees only what the checks
        // let through, and the text it parses is the text they checked.
        const std::string refused = frame::checkCalibrationText(text);
        if (!refused.empty()) {
            logCalib(std::string(block.file) + " refused: " + refused);
        } else {
            try {
                fs.open(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
            } catch (const std::exception&) {
                // Not only cv::Exception: some malformed texts make the parser throw
                // std::length_error.
                logCaughtException(block.file);  // then reported not found below
                fs.release();
            }
        }
    }
    if (!fs.isOpened()) {
        logCalib(std::string(block.file) +
                 " is not found, please make sure the file is in directory");
        return false;
    }
    if (flag != 1)
        for (const Key& key : block.plain)
            readKey(fs, key, 0, plain, bits);
    if (flag == 1 || flag == 2)
        for (const Key& key : block.hd)
            readKey(fs, key, kHdShift, hd, bits);
    return true;
}

// The validity flag of a block: 0, 1 or 2, or -1 when it cannot be read.
int validFlag(const DeviceHandle& handle, uint8_t type) {
    CalibValidFlag flag = static_cast<CalibValidFlag>(0xFF);
    if (GetCalibrationDataValidFlag(handle, type, &flag) != Ok) return -1;
    return flag <= Calib_VGA_And_HD ? static_cast<int>(flag) : -1;
}

cv::Mat extrinsicOf(const CalibSet& set) {
    cv::Mat rt = cv::Mat::eye(4, 4, CV_64F);
    set[4].copyTo(rt(cv::Rect(0, 0, 3, 3)));
    set[5].copyTo(rt(cv::Rect(3, 0, 1, 3)));
    return rt;
}

// Hands a complete set to the Device and records it.
void handOver(const Camera& camera, bool hd, uint16_t bits, const CalibSet& set,
              CalibrationParams* params) {
    const cv::Mat rt = extrinsicOf(set);
    camera.cam->obtainCalibParams(hd ? 1 : 0, bits, set[0], set[1], set[2], set[3], rt, cv::Mat());
    fillDeviceCalibrationParams(params, hd, set[0], set[1], set[2], set[3], rt);
}

}  // namespace

void fillDeviceCalibrationParams(CalibrationParams* params, bool hd, const cv::Mat& depthMatrix,
                                 const cv::Mat& depthDistortion, const cv::Mat& rgbMatrix,
                                 const cv::Mat& rgbDistortion, const cv::Mat& extrinsic) {
    auto intrinsics = [](CameraIntrinsics* out, const cv::Mat& k, const cv::Mat& d) {
        out->fx = k.at<double>(0, 0);
        out->fy = k.at<double>(1, 1);
        out->cx = k.at<double>(0, 2);
        out->cy = k.at<double>(1, 2);
        // Element by element, whatever the layout of the coefficients.
        const cv::Mat coefficients = d.reshape(1, 1);
        for (int i = 0; i < 5; ++i)
            out->distortion[i] = coefficients.at<double>(0, i);
    };
    intrinsics(hd ? &params->hd_depth : &params->depth, depthMatrix, depthDistortion);
    intrinsics(hd ? &params->hd_rgb : &params->rgb, rgbMatrix, rgbDistortion);
    StereoExtrinsics& e = hd ? params->hd_extrinsic : params->extrinsic;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c)
            e.rotation[r * 3 + c] = extrinsic.at<double>(r, c);
        e.translation[r] = extrinsic.at<double>(r, 3);
    }
}

void loadCalibration(const Camera& camera, const DeviceHandle& handle) {
    const int flags[3] = {validFlag(handle, 1), validFlag(handle, 0), validFlag(handle, 2)};
    logCalib("depth_intrinsic_flag : " + std::to_string(flags[0]));
    logCalib("rgb_intrinsic_flag : " + std::to_string(flags[1]));
    logCalib("stereo_extrinsic_flag : " + std::to_string(flags[2]));

    CalibSet plain, hd;
    uint16_t bits = 0;
    bool complete = true;
    for (int b = 0; b < 3 && complete; ++b)
        complete =
            fetchBlock(handle, kBlocks[b]) && parseBlock(kBlocks[b], flags[b], &plain, &hd, &bits);

    CalibrationParams params{};
    if (complete) {
        auto all = [&flags](int a, int b) {
            for (int f : flags)
                if (f != a && f != b) return false;
            return true;
        };
        if (all(0, 2) && (bits & kPlainSet) == kPlainSet)
            handOver(camera, false, bits, plain, &params);
        if (all(1, 2) && (bits & kHdSet) == kHdSet) handOver(camera, true, bits, hd, &params);
    }
    update(camera.cam.get(), [&](CameraRecord& r) {
        r.availableCalibData = bits;
        if (!complete) return;
        r.calibParams = params;
        r.calibParamObtained = true;
    });
}

}  // namespace Talvoro::wrapper
