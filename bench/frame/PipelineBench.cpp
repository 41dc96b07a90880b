// setupFrame + processFrame of whole frames, with processing off and with everything on.
#include <memory>
#include <string>

#include "BenchInputs.h"
#include "Interleave.h"
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
    f.setProcessingFlags(TalvoroFrame::kUndistortion | TalvoroFrame::kFlyingPixel, true);
    if (mode == 4 || mode == 5) {
        f.setProcessingFlags(TalvoroFrame::kRgbdMapping, true);
        f.updateDepthRange(1);
    }
    f.setAvgIRDisplay(true);
    f.setAvgRegion(0);
}

bench::Candidate pipeline(int mode, bool on) {
    auto f = std::make_shared<TalvoroFrame>();
    auto raw = std::make_shared<std::vector<uint8_t>>(bench::rawFrame(mode));
    f->updateColorMap(0, 4000, 4);
    if (on) switchEverythingOn(*f, mode);
    f->initFrame(mode);
    return {on ? "all processing on" : "processing off", [f, raw] {
                f->setupFrame(raw->data(), int(raw->size()));
                f->processFrame();
            }};
}

}  // namespace

void registerPipelineBenchmarks() {
    for (int mode : {0, 2, 4, 5}) {
        bench::compare("pipeline/mode" + std::to_string(mode),
                       {pipeline(mode, true), pipeline(mode, false)});
    }
    // Shares of the 33.3 ms frame interval, on the processing thread (the application's
    // GetNextFrame + GetFrames add a copy of the images on top).
    bench::addTarget({"mode 4, all processing on: 15% of the frame interval", "pipeline/mode4",
                      "all processing on", "", 0, 0.15 * 1000 / 30});
    bench::addTarget({"mode 5, all processing on: 25% of the frame interval", "pipeline/mode5",
                      "all processing on", "", 0, 0.25 * 1000 / 30});
}
