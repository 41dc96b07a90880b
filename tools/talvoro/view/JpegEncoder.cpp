#include "JpegEncoder.h"

#include <turbojpeg.h>

#include <cmath>
#include <new>

namespace talvoro_tool {

namespace {

// 65536 grey levels on a square-root scale: a faint return stays visible beside a bright one,
// and every step of the IR gain still shows.
const uint8_t* irTable() {
    static const std::vector<uint8_t> table = [] {
        std::vector<uint8_t> t(65536);
        for (std::size_t v = 0; v < t.size(); ++v)
            t[v] = static_cast<uint8_t>(std::lround(255.0 * std::sqrt(v / 65535.0)));
        return t;
    }();
    return table.data();
}

// Into the buffer reserved beforehand, never a new one.
constexpr int kFlags = TJFLAG_FASTDCT | TJFLAG_NOREALLOC;

}  // namespace

JpegEncoder::JpegEncoder(int quality) : handle_(tjInitCompress()), quality_(quality) {
    if (!handle_) throw std::bad_alloc();
}

JpegEncoder::~JpegEncoder() {
    tjFree(buffer_);
    tjDestroy(static_cast<tjhandle>(handle_));
}

uint8_t JpegEncoder::irLevel(uint16_t v) {
    return irTable()[v];
}

bool JpegEncoder::reserve(int width, int height, int subsampling) {
    const unsigned long needed = tjBufSize(width, height, subsampling);
    if (needed == static_cast<unsigned long>(-1)) return false;
    if (needed > capacity_) {
        tjFree(buffer_);
        capacity_ = 0;
        buffer_ = tjAlloc(static_cast<int>(needed));
        if (!buffer_) return false;
        capacity_ = needed;
    }
    size_ = capacity_;
    return true;
}

std::string JpegEncoder::finish(int result) const {
    if (result != 0) return {};
    return std::string(reinterpret_cast<const char*>(buffer_), size_);
}

std::string JpegEncoder::packed(const cv::Mat& image, int type, int pixelFormat, int subsampling) {
    if (image.empty() || image.type() != type) return {};
    if (!reserve(image.cols, image.rows, subsampling)) return {};
    return finish(tjCompress2(static_cast<tjhandle>(handle_), image.data, image.cols,
                              static_cast<int>(image.step), image.rows, pixelFormat, &buffer_,
                              &size_, subsampling, quality_, kFlags));
}

std::string JpegEncoder::bgr(const cv::Mat& image) {
    return packed(image, CV_8UC3, TJPF_BGR, TJSAMP_420);
}

std::string JpegEncoder::grey(const cv::Mat& image) {
    return packed(image, CV_8UC1, TJPF_GRAY, TJSAMP_GRAY);
}

std::string JpegEncoder::ir(const cv::Mat& image) {
    if (image.empty() || image.type() != CV_16UC1) return {};
    const uint8_t* table = irTable();
    planes_.resize(image.total());
    for (int r = 0; r < image.rows; ++r) {
        const uint16_t* in = image.ptr<uint16_t>(r);
        uint8_t* out = &planes_[static_cast<std::size_t>(r) * image.cols];
        for (int c = 0; c < image.cols; ++c)
            out[c] = table[in[c]];
    }
    return grey(cv::Mat(image.rows, image.cols, CV_8UC1, planes_.data()));
}

std::string JpegEncoder::uyvy(const cv::Mat& image) {
    if (image.empty() || image.type() != CV_8UC2 || image.cols % 2 != 0) return {};
    const int w = image.cols, h = image.rows, half = w / 2;
    const std::size_t luma = image.total();
    planes_.resize(luma * 2);
    uint8_t* y = planes_.data();
    uint8_t* u = y + luma;
    uint8_t* v = u + luma / 2;
    for (int r = 0; r < h; ++r) {
        const uint8_t* in = image.ptr<uint8_t>(r);
        uint8_t* yr = y + static_cast<std::size_t>(r) * w;
        uint8_t* ur = u + static_cast<std::size_t>(r) * half;
        uint8_t* vr = v + static_cast<std::size_t>(r) * half;
        for (int p = 0; p < half; ++p, in += 4) {
            ur[p] = in[0];
            yr[2 * p] = in[1];
            vr[p] = in[2];
            yr[2 * p + 1] = in[3];
        }
    }
    const unsigned char* planes[3] = {y, u, v};
    const int strides[3] = {w, half, half};
    if (!reserve(w, h, TJSAMP_422)) return {};
    return finish(tjCompressFromYUVPlanes(static_cast<tjhandle>(handle_), planes, w, strides, h,
                                          TJSAMP_422, &buffer_, &size_, quality_, kFlags));
}

}  // namespace talvoro_tool
