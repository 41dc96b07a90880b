// libFuzzer target: raw buffers of any length and content, with fuzzer-chosen data mode,
// settings and calibration (valid or malformed), through the whole frame processor.
//
// Input: mode, processing flags, filter/range/region bits, calibration choice, a signed
// 16-bit change of the buffer length, averaging point (32-bit x, y) and window, then the payload,
// which is repeated to fill the buffer (so a short input still makes a full-size frame whose line
// tags it controls).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "frame/TalvoroFrame.h"
#include "log/Log.h"

using Talvoro::TalvoroFrame;

namespace {

const size_t kFrameBytes[10] = {1228800, 0,      614400,  614400,  1536000,
                                2770560, 614400, 1843200, 4147200, 4608000};

struct Reader {
    const uint8_t* data;
    size_t size, pos = 0;
    uint8_t byte() { return pos < size ? data[pos++] : 0; }
    int16_t i16() {
        const uint8_t low = byte();
        return int16_t(low | byte() << 8);
    }
    int32_t i32() {
        const uint16_t low = uint16_t(i16());
        return int32_t(low | uint32_t(uint16_t(i16())) << 16);
    }
    double number() {
        double v = 0;
        for (int i = 0; i < 8; ++i)
            reinterpret_cast<uint8_t*>(&v)[i] = byte();
        return v;
    }
};

cv::Mat matrix(Reader& in, int rows, int cols, bool sane, double base) {
    cv::Mat m(rows, cols, CV_64F);
    for (int i = 0; i < rows * cols; ++i)
        m.at<double>(i) =
            sane ? base * (i % (cols + 1) == 0) + (in.byte() - 128) / 64.0 : in.number();
    return m;
}

void loadCalibration(TalvoroFrame& f, Reader& in, uint8_t choice) {
    for (int hd = 0; hd < 2; ++hd) {
        if (!(choice & (1 << hd))) continue;
        const bool sane = !(choice & 4);
        const int distortion[8] = {0, 3, 4, 5, 8, 12, 14, 1};
        cv::Mat k = matrix(in, 3, 3, sane, 500), rgbK = matrix(in, 3, 3, sane, 600);
        if (sane) {
            k.at<double>(0, 2) = 320;
            k.at<double>(1, 2) = 240;
            k.at<double>(2, 2) = rgbK.at<double>(2, 2) = 1;
            rgbK.at<double>(0, 2) = hd ? 640 : 320;
            rgbK.at<double>(1, 2) = hd ? 360 : 240;
        }
        const int n = distortion[in.byte() & 7];
        cv::Mat d = n ? matrix(in, 1, n, false, 0) / (sane ? 1e3 : 1.0) : cv::Mat();
        cv::Mat rgbD = n ? matrix(in, n, 1, false, 0) / (sane ? 1e3 : 1.0) : cv::Mat();
        if (sane) {
            for (cv::Mat* m : {&d, &rgbD})
                for (auto it = m->begin<double>(); it != m->end<double>(); ++it)
                    if (!std::isfinite(*it)) *it = 0;
        }
        cv::Mat rt = in.byte() & 1 ? matrix(in, 4, 4, sane, 1) : matrix(in, 3, 4, sane, 1);
        f.getCalibrationData(uint16_t(hd), uint16_t(in.i16()), k, d, rgbK, rgbD, rt, cv::Mat());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] { return Talvoro::Log::getInstance()->setLevel(3); }();
    (void)quiet;
    Reader in{data, size};
    const int mode = in.byte() % 12;  // 10 and 11 are unknown modes
    const uint8_t flags = in.byte(), bits = in.byte(), calibration = in.byte();
    const int16_t lengthChange = in.i16();
    const int32_t x = in.i32(), y = in.i32();
    const uint8_t window = in.byte();

    TalvoroFrame f;
    f.processingFlags = flags | TalvoroFrame::kDefaultFlag;
    f.filterFlags = bits & 7;
    if (bits & 2) f.setFilterType(1, true);
    f.depthRange = (bits >> 3) & 1;
    f.avgIRDisplay = (bits >> 4) & 1;
    if (bits & 0x20) f.setAvgRegion((bits >> 6) & 1);
    f.setDepthPos({x, y});
    f.avgWindowWidth = uint16_t(4 + window % 64);
    f.avgWindowHeight = uint16_t(4 + window / 4);
    const int16_t low = in.i16(), high = in.i16();
    f.updateColorMap(low, high, int8_t(in.byte()));
    loadCalibration(f, in, calibration);
    if (flags & TalvoroFrame::kPlanarization) f.createThetaMat();
    f.initFrame(mode);

    const size_t expected = mode < 10 ? kFrameBytes[mode] : 1000;
    const size_t length = size_t(std::max<int64_t>(0, int64_t(expected) + lengthChange));
    std::vector<uint8_t> raw(length);
    const size_t payload = in.size - in.pos;
    for (size_t i = 0; i < length; ++i)
        raw[i] = payload ? in.data[in.pos + i % payload] : 0;

    f.setupFrame(raw.data(), int(raw.size()));
    f.processFrame();
    if (bits & 0x80) f.updateDepthRange((bits >> 3) & 1);  // releases the scaled images
    // A second, shorter or longer frame into the copy sized by the first.
    raw.resize(length / 2 + (lengthChange & 0xFF) * 3);
    f.setupFrame(raw.data(), int(raw.size()));
    f.processFrame();
    Talvoro::ToFFrame out;
    for (int type = 0; type < 5; ++type)
        f.getToFFrame(Talvoro::FrameType(type), &out);
    Talvoro::Frames frames;
    f.fillFrames(&frames);
    f.calculateAverages();
    f._calculateAvgDepthIR(x, y, true);
    return 0;
}
