#include "frame/PointCloud.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/calib3d.hpp>

#include "frame/LensDistortion.h"

namespace Talvoro::frame {

namespace {

constexpr float kMetresPerMillimetre = 0.001f;

bool isMatrix(const cv::Mat& m, int rows, int cols) {
    return m.rows == rows && m.cols == cols && m.channels() == 1 &&
           (m.depth() == CV_32F || m.depth() == CV_64F);
}

double element(const cv::Mat& m, int row, int col) {
    return m.depth() == CV_64F ? m.at<double>(row, col) : m.at<float>(row, col);
}

// OpenCV's lens model without the tilted sensor: radial (rational), tangential and thin prism
// distortion of normalised coordinates.
struct LensModel {
    double k[12] = {};  // k1 k2 p1 p2 k3 k4 k5 k6 s1 s2 s3 s4

    // The distorted point of (x, y) and the Jacobian of the distortion there.
    void distort(double x, double y, double* dx, double* dy, double jacobian[4]) const {
        const double k1 = k[0], k2 = k[1], p1 = k[2], p2 = k[3], k3 = k[4], k4 = k[5], k5 = k[6],
                     k6 = k[7], s1 = k[8], s2 = k[9], s3 = k[10], s4 = k[11];
        const double r2 = x * x + y * y, r4 = r2 * r2;
        const double a = 1 + (k1 + (k2 + k3 * r2) * r2) * r2;
        const double b = 1 + (k4 + (k5 + k6 * r2) * r2) * r2;
        const double radial = a / b;
        // d(radial)/d(r2)
        const double da = k1 + (2 * k2 + 3 * k3 * r2) * r2, db = k4 + (2 * k5 + 3 * k6 * r2) * r2;
        const double dr = (da * b - a * db) / (b * b);
        const double px = s1 + 2 * s2 * r2, py = s3 + 2 * s4 * r2;  // prism terms over d(r2)
        *dx = x * radial + 2 * p1 * x * y + p2 * (r2 + 2 * x * x) + s1 * r2 + s2 * r4;
        *dy = y * radial + p1 * (r2 + 2 * y * y) + 2 * p2 * x * y + s3 * r2 + s4 * r4;
        jacobian[0] = radial + 2 * x * x * dr + 2 * p1 * y + 6 * p2 * x + 2 * x * px;
        jacobian[1] = 2 * x * y * dr + 2 * p1 * x + 2 * p2 * y + 2 * y * px;
        jacobian[2] = 2 * x * y * dr + 2 * p1 * x + 2 * p2 * y + 2 * x * py;
        jacobian[3] = radial + 2 * y * y * dr + 6 * p1 * y + 2 * p2 * x + 2 * y * py;
    }

    // The undistorted point whose distortion is (ux, uy), by Newton's method from (x, y); true
    // when it converged.
    bool undistort(double ux, double uy, double* x, double* y) const {
        for (int i = 0; i < 50; ++i) {
            double dx, dy, j[4];
            distort(*x, *y, &dx, &dy, j);
            const double ex = ux - dx, ey = uy - dy;
            if (std::abs(ex) < 1e-13 && std::abs(ey) < 1e-13) return true;
            const double det = j[0] * j[3] - j[1] * j[2];
            if (!(std::abs(det) > 1e-12)) return false;
            *x += (j[3] * ex - j[1] * ey) / det;
            *y += (j[0] * ey - j[2] * ex) / det;
        }
        return false;
    }
};

template <bool kAlongAxis, bool kOrganized>
uint32_t deprojectAs(const cv::Mat& depth, const float* rays, float* out) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    float* p = out;
    for (int r = 0; r < depth.rows; ++r) {
        const uint16_t* row = depth.ptr<uint16_t>(r);
        const float* ray = rays + std::size_t(r) * depth.cols * 3;
        for (int c = 0; c < depth.cols; ++c, ray += 3) {
            const uint16_t d = row[c];
            if (d == 0) {
                if (kOrganized) {
                    p[0] = p[1] = p[2] = nan;
                    p += 3;
                }
                continue;
            }
            const float z = kAlongAxis ? d * kMetresPerMillimetre : d * ray[2];
            p[0] = ray[0] * z;
            p[1] = ray[1] * z;
            p[2] = z;
            p += 3;
        }
    }
    return uint32_t((p - out) / 3);
}

}  // namespace

bool CameraCalibration::read(const cv::Mat& matrix, const cv::Mat& distortion,
                             CameraCalibration* out) {
    if (!isMatrix(matrix, 3, 3)) return false;
    CameraCalibration camera;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            camera.matrix(r, c) = element(matrix, r, c);
    if (!(camera.matrix(0, 0) != 0 && camera.matrix(1, 1) != 0)) return false;
    if (!distortion.empty()) {
        if (distortion.channels() != 1 ||
            (distortion.depth() != CV_32F && distortion.depth() != CV_64F) ||
            (distortion.rows != 1 && distortion.cols != 1))
            return false;
        const std::size_t n = distortion.total();
        if (n != 4 && n != 5 && n != 8 && n != 12 && n != 14) return false;
        cv::Mat values;
        distortion.reshape(1, 1).convertTo(values, CV_64F);
        camera.distortion.assign(values.ptr<double>(), values.ptr<double>() + n);
    }
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            if (!std::isfinite(camera.matrix(r, c))) return false;
    for (double k : camera.distortion)
        if (!std::isfinite(k)) return false;
    *out = std::move(camera);
    return true;
}

bool CameraCalibration::operator==(const CameraCalibration& other) const {
    for (int i = 0; i < 9; ++i)
        if (matrix.val[i] != other.matrix.val[i]) return false;
    return distortion == other.distortion;
}

bool RigidTransform::readMillimetres(const cv::Mat& extrinsic, RigidTransform* out) {
    if (!isMatrix(extrinsic, 4, 4)) return false;
    RigidTransform t;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c)
            t.rotation(r, c) = element(extrinsic, r, c);
        t.translation[r] = element(extrinsic, r, 3) / 1000.0;
    }
    *out = t;
    return true;
}

void PixelRays::prepare(const CameraCalibration& camera, cv::Size size, bool pinhole) {
    if (!rays_.empty() && size == size_ && pinhole == pinhole_ && camera == camera_) return;
    rays_.clear();
    const std::size_t pixels = std::size_t(size.width) * size.height;
    std::vector<cv::Point2d> normalised(pixels);
    const cv::Matx33d& k = camera.matrix;
    for (int v = 0; v < size.height; ++v)
        for (int u = 0; u < size.width; ++u)
            normalised[std::size_t(v) * size.width + u] = cv::Point2d(u, v);
    // Pixel to the distorted normalised point. A skew is ignored, as OpenCV's projections do.
    for (cv::Point2d& p : normalised)
        p = cv::Point2d((p.x - k(0, 2)) / k(0, 0), (p.y - k(1, 2)) / k(1, 1));
    const std::size_t n = camera.distortion.size();
    if (pinhole || n == 0) {
        // The pinhole model: the ray is the normalised point.
    } else if (n <= 12) {
        // Each pixel starts from its left neighbour's ray, so Newton's method needs a couple of
        // steps; where it fails (a lens model folding over at the edge) the fixed point of
        // OpenCV's iteration is kept.
        LensModel lens;
        std::copy(camera.distortion.begin(), camera.distortion.end(), lens.k);
        std::vector<cv::Point2d> failed;
        std::vector<std::size_t> failedAt;
        for (int v = 0; v < size.height; ++v) {
            double x = normalised[std::size_t(v) * size.width].x;
            double y = normalised[std::size_t(v) * size.width].y;
            for (int u = 0; u < size.width; ++u) {
                cv::Point2d& p = normalised[std::size_t(v) * size.width + u];
                double nx = x, ny = y;
                if (!lens.undistort(p.x, p.y, &nx, &ny)) {
                    nx = p.x, ny = p.y;
                    if (!lens.undistort(p.x, p.y, &nx, &ny)) {
                        failed.push_back(cv::Point2d(u, v));
                        failedAt.push_back(std::size_t(v) * size.width + u);
                    }
                }
                p = cv::Point2d(nx, ny);
                x = nx, y = ny;
            }
        }
        if (!failed.empty()) {
            std::vector<cv::Point2d> rays;
            cv::undistortPoints(
                failed, rays, cv::Mat(k), camera.distortion, cv::noArray(), cv::noArray(),
                cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 100, 1e-10));
            for (std::size_t i = 0; i < rays.size(); ++i)
                normalised[failedAt[i]] = rays[i];
        }
    } else {
        // The tilted sensor: OpenCV's iteration, run to convergence.
        std::vector<cv::Point2d> pixelsUv(pixels);
        for (int v = 0; v < size.height; ++v)
            for (int u = 0; u < size.width; ++u)
                pixelsUv[std::size_t(v) * size.width + u] = cv::Point2d(u, v);
        cv::undistortPoints(
            pixelsUv, normalised, cv::Mat(k), camera.distortion, cv::noArray(), cv::noArray(),
            cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 100, 1e-10));
    }
    rays_.resize(pixels * 3);
    for (std::size_t i = 0; i < pixels; ++i) {
        const double x = normalised[i].x, y = normalised[i].y;
        rays_[3 * i] = float(x);
        rays_[3 * i + 1] = float(y);
        rays_[3 * i + 2] = float(kMetresPerMillimetre / std::sqrt(x * x + y * y + 1));
    }
    camera_ = camera;
    size_ = size;
    pinhole_ = pinhole;
}

uint32_t PixelRays::deproject(const cv::Mat& depth, bool alongAxis, bool organized,
                              float* xyz) const {
    if (depth.type() != CV_16UC1 || depth.size() != size_ || rays_.empty()) return 0;
    if (alongAxis)
        return organized ? deprojectAs<true, true>(depth, rays_.data(), xyz)
                         : deprojectAs<true, false>(depth, rays_.data(), xyz);
    return organized ? deprojectAs<false, true>(depth, rays_.data(), xyz)
                     : deprojectAs<false, false>(depth, rays_.data(), xyz);
}

uint32_t countPoints(const cv::Mat& depth, bool organized) {
    if (depth.type() != CV_16UC1) return 0;
    return uint32_t(organized ? depth.total() : std::size_t(cv::countNonZero(depth)));
}

void colourFromPixels(const cv::Mat& depth, const cv::Mat& rgb, bool organized, uint8_t* out) {
    if (depth.type() != CV_16UC1 || rgb.type() != CV_8UC3 || rgb.size() != depth.size()) return;
    for (int r = 0; r < depth.rows; ++r) {
        const uint16_t* row = depth.ptr<uint16_t>(r);
        const uint8_t* colour = rgb.ptr<uint8_t>(r);
        for (int c = 0; c < depth.cols; ++c, colour += 3) {
            if (row[c] != 0) {
                out[0] = colour[0], out[1] = colour[1], out[2] = colour[2];
            } else if (organized) {
                out[0] = out[1] = out[2] = 0;
            } else {
                continue;
            }
            out += 3;
        }
    }
}

namespace {

// The column or row a coordinate rounds to (half away from zero, as std::round), or -1 when
// that is outside [0, size) or the coordinate is not a number. Exact in double for any float.
inline int pixelOf(float coordinate, int size) {
    const double c = coordinate;
    if (!(c > -0.5 && c < size - 0.5)) return -1;
    return int(c + 0.5);  // truncation is the floor here: c + 0.5 > 0
}

}  // namespace

void colourByProjection(const float* xyz, uint32_t count, const CameraCalibration& colour,
                        const RigidTransform& depthToColour, const cv::Mat& rgb, uint8_t* out) {
    if (count == 0) return;
    const cv::Matx33d& R = depthToColour.rotation;
    const cv::Vec3d& t = depthToColour.translation;
    // A tilted sensor (14 coefficients) is left to cv::projectPoints. Every other model is
    // projected here with the same operations on the same values, so each point lands on the
    // same pixel, without a point list per frame.
    const bool tilted = colour.distortion.size() > 12;
    std::vector<cv::Point2f> uv;
    std::vector<float> depths;
    if (tilted) {
        std::vector<cv::Point3f> seen(count);
        depths.resize(count);
        for (uint32_t i = 0; i < count; ++i) {
            const cv::Vec3d p(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]);
            const cv::Vec3d q = R * p + t;
            seen[i] = cv::Point3f(float(q[0]), float(q[1]), float(q[2]));
            depths[i] = seen[i].z;
        }
        cv::projectPoints(seen, cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0), cv::Mat(colour.matrix),
                          colour.distortion, uv);
    }
    double k[12] = {};
    std::copy_n(colour.distortion.begin(), std::min<std::size_t>(colour.distortion.size(), 12), k);
    const bool rational = k[5] != 0 || k[6] != 0 || k[7] != 0;
    const bool prism = k[8] != 0 || k[9] != 0 || k[10] != 0 || k[11] != 0;
    const double fx = colour.matrix(0, 0), fy = colour.matrix(1, 1);
    const double cx = colour.matrix(0, 2), cy = colour.matrix(1, 2);
    for (uint32_t i = 0; i < count; ++i, out += 3) {
        out[0] = out[1] = out[2] = 0;
        float u, v;
        if (tilted) {
            // Behind the colour camera a projection means nothing (and NaN fails every
            // comparison).
            if (!(depths[i] > 0)) continue;
            u = uv[i].x, v = uv[i].y;
        } else {
            // Into the colour camera's frame (each row summed in cv::Matx's order), kept as float
            // as a point list would hold it.
            const double px = xyz[3 * i], py = xyz[3 * i + 1], pz = xyz[3 * i + 2];
            const double z = float(R(2, 0) * px + R(2, 1) * py + R(2, 2) * pz + t[2]);
            if (!(z > 0)) continue;
            const double inverse = 1. / z;
            const double x =
                double(float(R(0, 0) * px + R(0, 1) * py + R(0, 2) * pz + t[0])) * inverse;
            const double y =
                double(float(R(1, 0) * px + R(1, 1) * py + R(1, 2) * pz + t[1])) * inverse;
            // cv::projectPoints with no rotation and no translation.
            double xd, yd;
            distortAsOpenCv(x, y, k, rational, prism, &xd, &yd);
            u = float(xd * fx + cx);
            v = float(yd * fy + cy);
        }
        const int col = pixelOf(u, rgb.cols), row = pixelOf(v, rgb.rows);
        if (col < 0 || row < 0) continue;
        const uint8_t* c = rgb.ptr<uint8_t>(row) + 3 * col;
        out[0] = c[0], out[1] = c[1], out[2] = c[2];
    }
}

}  // namespace Talvoro::frame
