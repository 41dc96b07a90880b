// Each stage of the frame processor beside its floor, a straightforward loop or the OpenCV calls
// it replaces, timed call by call in turn (Interleave.h).
#include <cstring>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/rgbd.hpp>

#include "Baselines.h"
#include "BenchInputs.h"
#include "Interleave.h"
#include "SampleCalibration.h"
#include "frame/ColorMap.h"
#include "frame/EdgeFilter.h"
#include "frame/FlyingPixelFilter.h"
#include "frame/Planarization.h"
#include "frame/PointCloud.h"
#include "frame/Registration.h"
#include "frame/Separation.h"
#include "frame/SpatialFilter.h"
#include "frame/TemporalFilter.h"
#include "frame/Undistortion.h"

using bench::Candidate;
using Talvoro::TalvoroFrame;
namespace frame = Talvoro::frame;

namespace {

constexpr int kPixels = 640 * 480;

// The stages' own threads, sized to the machine as a frame processor's are.
frame::WorkerPool pool;

// OpenCV's own thread count (its default: one per core), restored by the candidates that do
// not run it on one thread.
int openCvThreads() {
    static const int threads = cv::getNumThreads();
    return threads;
}
void openCvOn(int threads) {
    if (cv::getNumThreads() != threads) cv::setNumThreads(threads);
}

void separation() {
    static const std::vector<uint8_t> raw0 = bench::rawFrame(0), raw4 = bench::rawFrame(4),
                                      raw5 = bench::rawFrame(5);
    static cv::Mat depth(480, 640, CV_16UC1), rawIr(480, 640, CV_16UC1), ir(480, 640, CV_16UC1),
        rgb4(480, 640, CV_8UC2), rgb5(720, 1280, CV_8UC2);
    static std::vector<uint8_t> target(raw5.size());
    auto copy = [](const std::vector<uint8_t>& raw) {
        return [&raw] { std::memcpy(target.data(), raw.data(), raw.size()); };
    };
    bench::compare("separation/mode0",
                   {{"own", [] { frame::separateRowPairs(raw0.data(), depth, rawIr, ir, 16); }},
                    {"memcpy of the raw frame", copy(raw0)}});
    bench::compare("separation/mode4", {{"own",
                                         [] {
                                             frame::separateMultiplexed(raw4.data(), raw4.size(),
                                                                        {1536000, 1280, 480, false},
                                                                        depth, rawIr, ir, rgb4, 16);
                                         }},
                                        {"memcpy of the raw frame", copy(raw4)}});
    bench::compare("separation/mode5", {{"own",
                                         [] {
                                             frame::separateMultiplexed(raw5.data(), raw5.size(),
                                                                        {2770560, 2568, 720, true},
                                                                        depth, rawIr, ir, rgb5, 16);
                                         }},
                                        {"memcpy of the raw frame", copy(raw5)}});
    // Mode 2's separation is one memcpy of the image.
    for (const char* mode : {"mode0", "mode4", "mode5"})
        bench::addTarget({std::string("separation ") + mode + " at most 2x a memcpy",
                          std::string("separation/") + mode, "own", "memcpy of the raw frame",
                          0.5});
}

void filters() {
    static const cv::Mat scene = bench::depthScene();
    static std::vector<std::vector<uint16_t>> past(5, std::vector<uint16_t>(kPixels));
    static const uint16_t* history[5];
    for (int k = 0; k < 5; ++k) {
        std::memcpy(past[k].data(), scene.data, kPixels * 2);
        for (int i = k; i < kPixels; i += 7)
            past[k][i] += 150;  // some outside the threshold
        history[k] = past[k].data();
    }
    static cv::Mat work = scene.clone();
    // Every call starts from the scene again (outside the measured time).
    const auto reset = [] { std::memcpy(work.data, scene.data, kPixels * 2); };
    bench::compare(
        "temporal",
        {{"own", [] { frame::temporalAverage(work.ptr<uint16_t>(), history, 5, 100, kPixels); },
          reset},
         {"straightforward loop",
          [] { bench::temporalBaseline(work.ptr<uint16_t>(), history, 5, 100, kPixels); }, reset}});
    bench::addTarget({"temporal filter vs a straightforward loop", "temporal", "own",
                      "straightforward loop", 3});

    static cv::Mat cosines(480, 640, CV_64F);
    frame::fillThetaTable(
        cosines, 320, 240,
        {TalvoroFrame::thetaCoeff0, TalvoroFrame::thetaCoeff1, TalvoroFrame::thetaCoeff2,
         TalvoroFrame::thetaCoeff3, TalvoroFrame::tofisPitch});
    static cv::Mat nearCosines;
    cosines.convertTo(nearCosines, CV_32F);
    bench::compare(
        "planarization",
        {{"own",
          [] {
              frame::planarize(work.ptr<uint16_t>(), cosines.ptr<double>(),
                               nearCosines.ptr<float>(), kPixels);
          },
          reset},
         {"own, double cosines only",
          [] { frame::planarize(work.ptr<uint16_t>(), cosines.ptr<double>(), nullptr, kPixels); },
          reset},
         {"straightforward loop",
          [] {
              bench::planarizationBaseline(work.ptr<uint16_t>(), cosines.ptr<double>(), kPixels);
          },
          reset}});
    bench::addTarget({"planarization vs a straightforward loop", "planarization", "own",
                      "straightforward loop", 3});

    static TalvoroFrame processor;
    static cv::Mat out(480, 640, CV_16UC1);
    static const frame::FlyingPixelLimit limit = frame::flyingPixelLimit(200, 1200, 10, 20);
    bench::compare("flying_pixel",
                   {{"own, as shipped",
                     [] { processor.flyingPixelFilter(scene, 640, 480, 200, 1200, 10, 20, out); }},
                    {"own kernel, calling thread only",
                     [] {
                         frame::flyingPixelRows(scene.ptr<uint16_t>(), 640, out.ptr<uint16_t>(),
                                                640, 1, 479, 1, 639, limit);
                     }},
                    {"straightforward loop", [] {
                         bench::flyingPixelBaseline(scene.ptr<uint16_t>(), out.ptr<uint16_t>(), 640,
                                                    480, 200, 1200, 10, 20);
                     }}});
    bench::addTarget({"flying-pixel filter as shipped vs a straightforward loop", "flying_pixel",
                      "own, as shipped", "straightforward loop", 3});
}

void geometry() {
    static const cv::Mat scene = bench::depthScene();
    static const talvoro_sample::Calibration vga = talvoro_sample::calibration(false),
                                             hd = talvoro_sample::calibration(true);
    static const cv::Mat vgaMetres = talvoro_sample::metres(vga.extrinsic),
                         hdMetres = talvoro_sample::metres(hd.extrinsic);
    static frame::UndistortMap map;
    map.build(vga.depthK, vga.depthD, scene.size());
    static cv::Mat undistorted(480, 640, CV_16UC1), reference;
    bench::compare("undistortion",
                   {{"own", [] { map.apply(scene, undistorted, pool); }},
                    {"cv::undistort",
                     [] { cv::undistort(scene, reference, vga.depthK, vga.depthD, vga.depthK); },
                     [] { openCvOn(openCvThreads()); }}});
    bench::addTarget(
        {"undistortion vs cv::undistort", "undistortion", "own", "cv::undistort", 2.5});

    static frame::DepthRegistration vgaRegistration, hdRegistration;
    vgaRegistration.configure(vga.depthK, vga.rgbK, vga.rgbD, vgaMetres, {640, 480});
    hdRegistration.configure(hd.depthK, hd.rgbK, hd.rgbD, hdMetres, {1280, 720});
    static cv::Mat registered(480, 640, CV_16UC1), registeredHd(720, 1280, CV_16UC1);
    bench::compare("registration/vga",
                   {{"own", [] { vgaRegistration.apply(scene, registered, pool); }},
                    {"cv::rgbd::registerDepth",
                     [] {
                         cv::rgbd::registerDepth(vga.depthK, vga.rgbK, vga.rgbD, vgaMetres, scene,
                                                 {640, 480}, reference, true);
                     },
                     [] { openCvOn(openCvThreads()); }}});
    bench::compare("registration/hd",
                   {{"own", [] { hdRegistration.apply(scene, registeredHd, pool); }},
                    {"cv::rgbd::registerDepth",
                     [] {
                         cv::rgbd::registerDepth(hd.depthK, hd.rgbK, hd.rgbD, hdMetres, scene,
                                                 {1280, 720}, reference, true);
                     },
                     [] { openCvOn(openCvThreads()); }}});
    bench::addTarget({"registration, VGA colour", "registration/vga", "own", "", 0, 1.5});
    bench::addTarget({"registration, HD colour", "registration/hd", "own", "", 0, 2.0});

    // The coloured point cloud of a frame in data mode 5: each point's colour where the HD
    // colour camera sees it.
    static frame::CameraCalibration depthCamera, colourCamera;
    static frame::RigidTransform toColour;
    frame::CameraCalibration::read(hd.depthK, hd.depthD, &depthCamera);
    frame::CameraCalibration::read(hd.rgbK, hd.rgbD, &colourCamera);
    frame::RigidTransform::readMillimetres(hd.extrinsic, &toColour);
    static frame::PixelRays rays;
    rays.prepare(depthCamera, scene.size(), false);
    static std::vector<float> xyz(3 * kPixels);
    static const uint32_t points = rays.deproject(scene, false, false, xyz.data());
    static cv::Mat rgb(720, 1280, CV_8UC3, cv::Scalar(40, 90, 160));
    static std::vector<uint8_t> colours(3 * kPixels);
    bench::compare("point_cloud_colour/hd",
                   {{"own",
                     [] {
                         frame::colourByProjection(xyz.data(), points, colourCamera, toColour, rgb,
                                                   colours.data());
                     }},
                    {"cv::projectPoints", [] {
                         static std::vector<cv::Point3f> seen(points);
                         static std::vector<cv::Point2f> uv;
                         for (uint32_t i = 0; i < points; ++i) {
                             const cv::Vec3d q =
                                 toColour.rotation *
                                     cv::Vec3d(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]) +
                                 toColour.translation;
                             seen[i] = cv::Point3f(float(q[0]), float(q[1]), float(q[2]));
                         }
                         cv::projectPoints(seen, cv::Vec3d(), cv::Vec3d(), hd.rgbK, hd.rgbD, uv);
                     }}});
}

void postProcessing() {
    static cv::Mat scaled;
    bench::depthScene().convertTo(scaled, CV_8U, 255.0 / 4000);
    static cv::Mat median, output, scratch, cvMedian, cvOutput;
    auto own = [] { frame::spatialFilter(scaled, {median, output, scratch}, pool); };
    auto openCv = [] {
        cv::medianBlur(scaled, cvMedian, 5);
        cv::bilateralFilter(cvMedian, cvOutput, 5, 200, 200, cv::BORDER_REFLECT_101);
    };
    bench::compare("spatial/1_thread",
                   {{"own", own, [] { frame::setThreadLimit(1); }},
                    {"cv::medianBlur + cv::bilateralFilter", openCv, [] { openCvOn(1); }}});
    bench::compare("spatial/default_threads", {{"own", own, [] { frame::setThreadLimit(0); }},
                                               {"cv::medianBlur + cv::bilateralFilter", openCv,
                                                [] { openCvOn(openCvThreads()); }}});
    bench::addTarget({"spatial filter vs OpenCV, one thread each", "spatial/1_thread", "own",
                      "cv::medianBlur + cv::bilateralFilter", 2});
    bench::addTarget({"spatial filter vs OpenCV, one thread per core each",
                      "spatial/default_threads", "own", "cv::medianBlur + cv::bilateralFilter", 2});

    static cv::Mat mask, edgeScratch;
    static cv::Mat cvX, cvY, cvMagnitude, cvMask;
    static const cv::Mat element = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3));
    bench::compare("edge",
                   {{"own",
                     [] {
                         frame::edgeMask(scaled, {mask, edgeScratch}, pool);
                     }},
                    {"2 cv::Sobel + cv::addWeighted + cv::erode",
                     [] {
                         cv::Sobel(scaled, cvX, CV_8U, 2, 0, 5, 4.0, 0, cv::BORDER_REFLECT_101);
                         cv::Sobel(scaled, cvY, CV_8U, 0, 2, 5, 4.0, 0, cv::BORDER_REFLECT_101);
                         cv::addWeighted(cvX, 1.0, cvY, 1.0, 0, cvMagnitude);
                         cv::erode(cvMagnitude, cvMask, element, cv::Point(-1, -1), 1,
                                   cv::BORDER_CONSTANT, cv::Scalar(4));
                     },
                     [] { openCvOn(openCvThreads()); }}});
    bench::addTarget({"edge filter vs its OpenCV chain", "edge", "own",
                      "2 cv::Sobel + cv::addWeighted + cv::erode", 3});

    static cv::Mat coloured, cvColoured;
    bench::compare(
        "colour_map",
        {{"own", [] { frame::applyColorTable(scaled, coloured, frame::colorMapTable(4), pool); }},
         {"cv::applyColorMap", [] { cv::applyColorMap(scaled, cvColoured, 4); },
          [] { openCvOn(openCvThreads()); }}});
}

}  // namespace

void registerStageBenchmarks() {
    separation();
    filters();
    geometry();
    postProcessing();
}
