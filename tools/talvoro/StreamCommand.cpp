// talvoro stream SERIAL [--mode N] [--frames K] [--filters LIST] [--planarize] [--undistort]
//                [--map] [--out DIR]
// Streams K frames (0: until Ctrl-C), printing the frame rate and the depth and IR averages of
// the window at the image centre for each, and writes the images of the last frame as PNGs.
#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "DataModes.h"
#include "FrameFeed.h"
#include "Images.h"
#include "Processing.h"
#include "Session.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

// "frame 12: 30 fps, depth 2398 mm (spread 6), IR 312 (spread 9)"
std::string statusOf(const DeviceHandle& camera, int64_t frame, DataMode mode, bool mapped) {
    // The library estimates the rate once a second has passed.
    const int fps = GetFramesPerSecond(camera);
    std::string text = "frame " + std::to_string(frame) + ": " +
                       (fps > 0 ? std::to_string(fps) : std::string("--")) + " fps";
    const ModeInfo& m = modeInfo(mode);
    // Mapped onto colour, depth has left the IR image's geometry: no IR average then.
    const bool showIr = m.ir && !mapped;
    int depth = 0, depthSpread = 0, ir = 0, irSpread = 0;
    if ((m.depth || m.ir) && GetDepthIRValues(camera, &depth, &depthSpread, &ir, &irSpread) == Ok) {
        if (m.depth)
            text += ", depth " + std::to_string(depth) + " mm (spread " +
                    std::to_string(depthSpread) + ")";
        if (showIr)
            text += ", IR " + std::to_string(ir) + " (spread " + std::to_string(irSpread) + ")";
    }
    return text;
}

}  // namespace

int streamCommand(Args& args) {
    const int requested = takeModeOption(args);
    const std::optional<std::string> framesArg = args.option("frames");
    const std::optional<std::string> outArg = args.option("out");
    const Processing processing = takeProcessing(args, true);
    const std::string serial = args.positional("SERIAL");
    args.finish();
    const int64_t frames = framesArg ? parseNumber(*framesArg, 0, 1000000, "--frames") : 30;
    const std::optional<std::string> out =
        outArg ? std::optional<std::string>(absolutePath(*outArg)) : std::nullopt;
    if (requested == No_Image_Mode) usageError("data mode 1 produces no images");
    if (out) prepareOutputDirectory(*out);

    catchInterrupts();
    Session session;
    const DeviceHandle camera = session.open(serial);
    const DataMode mode = useDataMode(camera, requested);
    applyProcessing(camera, processing, mode);
    const ModeInfo& m = modeInfo(mode);
    // The window at the centre is averaged (and drawn on the colour map) on every frame.
    if (m.depth || m.ir) check(SetAvgRegion(camera, AvgRegion_Center), "SetAvgRegion");
    if (m.ir) check(SetAvgIRDisplay(camera, 1), "SetAvgIRDisplay");

    std::printf("Streaming %s in data mode %d (%s), processing: %s\n", camera.serialNo, int(mode),
                m.description, describe(processing).c_str());
    std::fflush(stdout);
    FrameFeed feed(camera);
    Frames images{};
    int64_t received = 0;
    {
        StatusLine status(stdout, true);
        while ((frames == 0 || received < frames) && feed.next(&images)) {
            ++received;
            status.update(statusOf(camera, received, mode, processing.map));
        }
    }
    if (received == 0) throw ToolError("interrupted before the first frame");
    std::printf("%lld frames\n", static_cast<long long>(received));

    if (out) {
        // The images of the last frame are still the library's current ones.
        for (const std::string& path : saveImages(images, *out))
            std::printf("wrote %s\n", path.c_str());
    }
    return kExitOk;
}

}  // namespace talvoro_tool
