// libFuzzer target: a calibration block as a camera could serve it, through the YAML read, the
// checks and, for a complete set, the frame processor's preparation of undistortion and
// mapping and the parameters' record.
//
// Input: the block's text. Like the calibration store, only text beginning with "%YAML:1.0" and
// passing the layout check is parsed; all twelve keys are looked up in it (a camera may put any
// key in any block).
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

#include "frame/CalibrationCheck.h"
#include "frame/TalvoroFrame.h"
#include "log/Log.h"
#include "wrapper/CalibrationStore.h"

using Talvoro::frame::CalibrationItem;

namespace {

struct Key {
    const char* name;
    CalibrationItem item;
    int rows, cols;  // the shape the store expects; 0 rows: five or three values in a line
};

// Depth, colour and extrinsic keys of the plain and the HD set, in the store's slot order.
const Key kKeys[2][6] = {
    {{"SCCM_D", CalibrationItem::CameraMatrix, 3, 3},
     {"SCCD_D", CalibrationItem::Distortion, 0, 5},
     {"SCCM_RGB", CalibrationItem::CameraMatrix, 3, 3},
     {"SCCD_RGB", CalibrationItem::Distortion, 0, 5},
     {"R", CalibrationItem::Rotation, 3, 3},
     {"T", CalibrationItem::Translation, 0, 3}},
    {{"SCCM_D_HD", CalibrationItem::CameraMatrix, 3, 3},
     {"SCCD_D_HD", CalibrationItem::Distortion, 0, 5},
     {"SCCM_RGB_HD", CalibrationItem::CameraMatrix, 3, 3},
     {"SCCD_RGB_HD", CalibrationItem::Distortion, 0, 5},
     {"R_HD", CalibrationItem::Rotation, 3, 3},
     {"T_HD", CalibrationItem::Translation, 0, 3}},
};

bool fits(const cv::Mat& m, const Key& key) {
    if (m.empty() || m.dims != 2) return false;
    if (key.rows) return m.rows == key.rows && m.cols == key.cols;
    return int(m.total()) == key.cols && (m.rows == 1 || m.cols == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] { return Talvoro::Log::getInstance()->setLevel(3); }();
    (void)quiet;
    constexpr char kHeader[] = "%YAML:1.0";
    if (size < sizeof kHeader - 1 || std::memcmp(data, kHeader, sizeof kHeader - 1) != 0) return 0;
    // As the store does: OpenCV's reader sees only texts the layout check lets through, and a
    // text it then does not return on is a finding (a timeout).
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (!Talvoro::frame::checkCalibrationText(text).empty()) return 0;
    cv::FileStorage fs;
    try {
        fs.open(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    } catch (const std::exception&) {  // as the store catches
        return 0;
    }
    if (!fs.isOpened()) return 0;

    static Talvoro::TalvoroFrame frame;
    for (int hd = 0; hd < 2; ++hd) {
        cv::Mat set[6];
        bool complete = true;
        for (int k = 0; k < 6; ++k) {
            std::string refused;
            set[k] = Talvoro::frame::readCalibrationMatrix(fs, kKeys[hd][k].name, kKeys[hd][k].item,
                                                           &refused);
            complete = complete && fits(set[k], kKeys[hd][k]);
        }
        if (!complete) continue;
        cv::Mat rt = cv::Mat::eye(4, 4, CV_64F);
        set[4].copyTo(rt(cv::Rect(0, 0, 3, 3)));
        set[5].reshape(1, 3).copyTo(rt(cv::Rect(3, 0, 1, 3)));
        frame.getCalibrationData(uint16_t(hd), hd ? 0xFC0 : 0x3F, set[0], set[1], set[2], set[3],
                                 rt, cv::Mat());
        Talvoro::CalibrationParams params{};
        Talvoro::wrapper::fillDeviceCalibrationParams(&params, hd != 0, set[0], set[1], set[2],
                                                      set[3], rt);
    }
    return 0;
}
