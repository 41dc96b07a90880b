#include "frame/Undistortion.h"

#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace Talvoro::frame {

namespace {

constexpr int kTabBits = 5;  // OpenCV's INTER_BITS
constexpr int kTabSize = 1 << kTabBits;

// OpenCV's bilinear weights for 16-bit images, in float: fractions are multiples of 1/32, so
// every weight is exact.
struct WeightTable {
    float w[kTabSize * kTabSize][4];
    WeightTable() {
        for (int fy = 0; fy < kTabSize; ++fy) {
            for (int fx = 0; fx < kTabSize; ++fx) {
                const float ay = fy * (1.f / kTabSize), ax = fx * (1.f / kTabSize);
                float* t = w[fy * kTabSize + fx];
                t[0] = (1.f - ay) * (1.f - ax);
                t[1] = (1.f - ay) * ax;
                t[2] = ay * (1.f - ax);
                t[3] = ay * ax;
            }
        }
    }
};

const WeightTable& weights() {
    static const WeightTable table;
    return table;
}

// saturate_cast<ushort>(float): round to nearest even, clamp to 0..65535.
inline uint16_t toU16(float v) {
    const float r = std::nearbyint(v);
    return r <= 0.f ? 0 : r >= 65535.f ? 65535 : uint16_t(r);
}

}  // namespace

bool UndistortMap::build(const cv::Mat& cameraMatrix, const cv::Mat& distortion, cv::Size size) {
    clear();
    if (cameraMatrix.empty() || size.width < 1 || size.height < 1) return false;
    try {
        // cv::undistort computes its map in stripes with the principal point shifted per
        // stripe; doing the same here makes the map, and so the result, identical to the bit.
        cv::Mat_<double> a, shifted;
        cameraMatrix.convertTo(a, CV_64F);
        cv::Mat d = distortion.empty() ? cv::Mat(cv::Mat::zeros(5, 1, CV_64F))
                                       : cv::Mat(cv::Mat_<double>(distortion));
        a.copyTo(shifted);
        if (a.rows != 3 || a.cols != 3) return false;
        cv::Mat xy(size, CV_16SC2), fraction(size, CV_16UC1);
        const int stripe = std::min(std::max(1, (1 << 12) / size.width), size.height);
        const double v0 = shifted(1, 2);
        for (int y = 0; y < size.height; y += stripe) {
            const int rows = std::min(stripe, size.height - y);
            shifted(1, 2) = v0 - y;
            cv::Mat xyPart = xy.rowRange(y, y + rows),
                    fractionPart = fraction.rowRange(y, y + rows);
            cv::initUndistortRectifyMap(a, d, cv::Mat_<double>::eye(3, 3), shifted,
                                        cv::Size(size.width, rows), CV_16SC2, xyPart, fractionPart);
        }
        xy_ = xy;
        fraction_ = fraction;
        return true;
    } catch (const cv::Exception&) {
        clear();
        return false;
    }
}

void UndistortMap::clear() {
    xy_.release();
    fraction_.release();
}

bool UndistortMap::apply(const cv::Mat& src, cv::Mat& dst) const {
    if (!valid() || src.type() != CV_16UC1 || dst.type() != CV_16UC1 || src.size() != size() ||
        dst.size() != size() || src.data == dst.data)
        return false;
    // cv::remap's bilinear 16-bit path: four samples (0 outside the image) weighted in float,
    // summed left to right and rounded to nearest.
    const WeightTable& table = weights();
    const int width = src.cols, height = src.rows;
    const size_t stride = src.step1();
    const uint16_t* base = src.ptr<uint16_t>();
    for (int y = 0; y < dst.rows; ++y) {
        const int16_t* xy = xy_.ptr<int16_t>(y);
        const uint16_t* fraction = fraction_.ptr<uint16_t>(y);
        uint16_t* out = dst.ptr<uint16_t>(y);
        for (int x = 0; x < dst.cols; ++x) {
            const int sx = xy[2 * x], sy = xy[2 * x + 1];
            const float* w = table.w[fraction[x] & (kTabSize * kTabSize - 1)];
            if (unsigned(sx) < unsigned(width - 1) && unsigned(sy) < unsigned(height - 1)) {
                const uint16_t* s = base + sy * stride + sx;
                out[x] = toU16(s[0] * w[0] + s[1] * w[1] + s[stride] * w[2] + s[stride + 1] * w[3]);
                continue;
            }
            if (sx >= width || sx + 1 < 0 || sy >= height || sy + 1 < 0) {
                out[x] = 0;
                continue;
            }
            auto at = [&](int yy, int xx) -> float {
                return xx >= 0 && xx < width && yy >= 0 && yy < height ? base[yy * stride + xx]
                                                                       : 0.f;
            };
            out[x] = toU16(at(sy, sx) * w[0] + at(sy, sx + 1) * w[1] + at(sy + 1, sx) * w[2] +
                           at(sy + 1, sx + 1) * w[3]);
        }
    }
    return true;
}

}  // namespace Talvoro::frame
