// Each stage of the frame processor beside its floor or baseline, measured in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/rgbd.hpp>

#include "Baselines.h"
#include "BenchInputs.h"
#include "SampleCalibration.h"
#include "frame/Planarization.h"
#include "frame/Registration.h"
#include "frame/Separation.h"
#include "frame/TemporalFilter.h"
#include "frame/Undistortion.h"

using Talvoro::TalvoroFrame;
namespace frame = Talvoro::frame;

namespace {

constexpr int kPixels = 640 * 480;

template <class F>
void registerStage(const std::string& name, F body) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [body](benchmark::State& state) {
                                     for (auto _ : state)
                                         body();
                                 })
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

// The same, with `reset` run before every call outside the measured time.
template <class F, class R>
void registerStage(const std::string& name, F body, R reset) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [body, reset](benchmark::State& state) {
                                     for (auto _ : state) {
                                         state.PauseTiming();
                                         reset();
                                         state.ResumeTiming();
                                         body();
                                     }
                                 })
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

void separation() {
    static const std::vector<uint8_t> raw0 = bench::rawFrame(0), raw4 = bench::rawFrame(4),
                                      raw5 = bench::rawFrame(5);
    static cv::Mat depth(480, 640, CV_16UC1), rawIr(480, 640, CV_16UC1), ir(480, 640, CV_16UC1),
        rgb4(480, 640, CV_8UC2), rgb5(720, 1280, CV_8UC2);
    static std::vector<uint8_t> target(raw5.size());
    struct Case {
        const char* mode;
        const std::vector<uint8_t>* raw;
    };
    for (const Case& c : {Case{"mode0", &raw0}, Case{"mode4", &raw4}, Case{"mode5", &raw5}}) {
        const std::vector<uint8_t>& raw = *c.raw;
        registerStage(std::string("memcpy/") + c.mode,
                      [&raw] { std::memcpy(target.data(), raw.data(), raw.size()); });
    }
    registerStage("separation/mode0",
                  [] { frame::separateRowPairs(raw0.data(), depth, rawIr, ir, 16); });
    registerStage("separation/mode4", [] {
        frame::separateMultiplexed(raw4.data(), raw4.size(), {1536000, 1280, 480, false}, depth,
                                   rawIr, ir, rgb4, 16);
    });
    registerStage("separation/mode5", [] {
        frame::separateMultiplexed(raw5.data(), raw5.size(), {2770560, 2568, 720, true}, depth,
                                   rawIr, ir, rgb5, 16);
    });
    // Mode 2's separation is one memcpy of the image.
    for (const std::string mode : {"mode0", "mode4", "mode5"})
        bench::addRatio(
            {"separation " + mode + " vs memcpy", "separation/" + mode, "memcpy/" + mode, -2.0});
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
    registerStage(
        "temporal/own",
        [] { frame::temporalAverage(work.ptr<uint16_t>(), history, 5, 100, kPixels); }, reset);
    registerStage(
        "temporal/scalar",
        [] { bench::temporalBaseline(work.ptr<uint16_t>(), history, 5, 100, kPixels); }, reset);

    static cv::Mat cosines(480, 640, CV_64F);
    frame::fillThetaTable(
        cosines, 320, 240,
        {TalvoroFrame::thetaCoeff0, TalvoroFrame::thetaCoeff1, TalvoroFrame::thetaCoeff2,
         TalvoroFrame::thetaCoeff3, TalvoroFrame::tofisPitch});
    static cv::Mat nearCosines;
    cosines.convertTo(nearCosines, CV_32F);
    registerStage(
        "planarization/own",
        [] {
            frame::planarize(work.ptr<uint16_t>(), cosines.ptr<double>(), nearCosines.ptr<float>(),
                             kPixels);
        },
        reset);
    registerStage(
        "planarization/own_double",
        [] { frame::planarize(work.ptr<uint16_t>(), cosines.ptr<double>(), nullptr, kPixels); },
        reset);
    registerStage(
        "planarization/scalar",
        [] { bench::planarizationBaseline(work.ptr<uint16_t>(), cosines.ptr<double>(), kPixels); },
        reset);

    static TalvoroFrame processor;
    static cv::Mat out(480, 640, CV_16UC1);
    registerStage("flying_pixel/own",
                  [] { processor.flyingPixelFilter(scene, 640, 480, 200, 1200, 10, 20, out); });
    registerStage("flying_pixel/scalar", [] {
        bench::flyingPixelBaseline(scene.ptr<uint16_t>(), out.ptr<uint16_t>(), 640, 480, 200, 1200,
                                   10, 20);
    });
    registerStage("flying_pixel/scalar_4_threads_per_call", [] {
        bench::flyingPixelBaselineThreads(scene.ptr<uint16_t>(), out.ptr<uint16_t>(), 640, 480, 200,
                                          1200, 10, 20);
    });

    bench::addRatio({"temporal filter speed-up", "temporal/scalar", "temporal/own", 3});
    bench::addRatio({"planarization speed-up", "planarization/scalar", "planarization/own", 3});
    bench::addRatio({"flying-pixel speed-up", "flying_pixel/scalar", "flying_pixel/own", 3});
    bench::addRatio({"flying-pixel speed-up (4 threads per call)",
                     "flying_pixel/scalar_4_threads_per_call", "flying_pixel/own", 3});
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
    registerStage("undistortion/own", [] { map.apply(scene, undistorted); });
    registerStage("undistortion/cv_undistort",
                  [] { cv::undistort(scene, reference, vga.depthK, vga.depthD, vga.depthK); });
    bench::addRatio(
        {"undistortion speed-up", "undistortion/cv_undistort", "undistortion/own", 2.5});

    static frame::DepthRegistration vgaRegistration, hdRegistration;
    vgaRegistration.configure(vga.depthK, vga.rgbK, vga.rgbD, vgaMetres, {640, 480});
    hdRegistration.configure(hd.depthK, hd.rgbK, hd.rgbD, hdMetres, {1280, 720});
    static cv::Mat registered(480, 640, CV_16UC1), registeredHd(720, 1280, CV_16UC1);
    registerStage("registration/own_vga", [] { vgaRegistration.apply(scene, registered); });
    registerStage("registration/cv_registerDepth_vga", [] {
        cv::rgbd::registerDepth(vga.depthK, vga.rgbK, vga.rgbD, vgaMetres, scene, {640, 480},
                                reference, true);
    });
    registerStage("registration/own_hd", [] { hdRegistration.apply(scene, registeredHd); });
    registerStage("registration/cv_registerDepth_hd", [] {
        cv::rgbd::registerDepth(hd.depthK, hd.rgbK, hd.rgbD, hdMetres, scene, {1280, 720},
                                reference, true);
    });
    bench::addRatio({"registration speed-up (information)", "registration/cv_registerDepth_vga",
                     "registration/own_vga", 0});
}

void postProcessing() {
    static TalvoroFrame processor;
    static cv::Mat scaled;
    bench::depthScene().convertTo(scaled, CV_8U, 255.0 / 4000);
    struct Case {
        const char* name;
        uint8_t filters;
    };
    for (const Case& c : {Case{"post_processing/colour_map", 0},
                          Case{"post_processing/spatial", TalvoroFrame::kSpatialFilter},
                          Case{"post_processing/edge", TalvoroFrame::kEdgeFilter},
                          Case{"post_processing/spatial_edge", 5}}) {
        const uint8_t filters = c.filters;
        registerStage(c.name, [filters] {
            processor.filterFlags = filters;
            processor.post_processing(scaled);
        });
    }
    // What the spatial filter replaces (post_processing/spatial adds the colour map).
    static cv::Mat median, bilateral;
    registerStage("opencv/medianBlur+bilateralFilter", [] {
        cv::medianBlur(scaled, median, 5);
        cv::bilateralFilter(median, bilateral, 5, 200, 200, cv::BORDER_REFLECT_101);
    });
}

}  // namespace

void registerStageBenchmarks() {
    separation();
    filters();
    geometry();
    postProcessing();
}
