// setupFrame + processFrame of whole frames, with processing off and with everything on.
#include <benchmark/benchmark.h>

#include <string>

#include "BenchInputs.h"
#include "SampleCalibration.h"

using Talvoro::TalvoroFrame;

namespace {

void switchEverythingOn(TalvoroFrame& f, int mode) {
    talvoro_sample::loadBoth(f);
    f.createThetaMat();
    f.setPlanarization(1);
    f.allocateHistory();
    for (int type = 0; type < 3; ++type)
        f.setFilterType(type, true);
    f.processingFlags |= TalvoroFrame::kUndistortion | TalvoroFrame::kFlyingPixel;
    if (mode == 4 || mode == 5) {
        f.processingFlags |= TalvoroFrame::kRgbdMapping;
        f.depthRange = 1;
    }
    f.avgIRDisplay = 1;
    f.setAvgRegion(0);
}

void pipeline(benchmark::State& state, int mode, bool on) {
    TalvoroFrame f;
    std::vector<uint8_t> raw = bench::rawFrame(mode);
    f.updateColorMap(0, 4000, 4);
    if (on) switchEverythingOn(f, mode);
    f.initFrame(mode);
    for (auto _ : state) {
        f.setupFrame(raw.data(), int(raw.size()));
        if (f.processFrame() != 1) state.SkipWithError("processFrame failed");
    }
}

}  // namespace

void registerPipelineBenchmarks() {
    for (int mode : {0, 2, 4, 5}) {
        for (bool on : {false, true}) {
            const std::string name =
                "pipeline/mode" + std::to_string(mode) + (on ? "/all_on" : "/off");
            benchmark::RegisterBenchmark(name.c_str(), pipeline, mode, on)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
}
