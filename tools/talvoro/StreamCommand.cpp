// talvoro stream SERIAL [--mode N] [--frames K] [--filters LIST] [--planarize] [--undistort]
//                [--map] [--colormap MIN,MAX[,MAP]] [--out DIR]
// Streams K frames (0: until Ctrl-C), reporting the frame rate and the depth and IR averages of
// the window at the image centre for each, and writes the images of the last frame as PNGs.
#include <cstdio>
#include <string>
#include <vector>

#include "Command.h"
#include "DataModes.h"
#include "FrameFeed.h"
#include "Images.h"
#include "Json.h"
#include "Processing.h"
#include "Session.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

// What one frame tells; -1 where the data mode has no such value.
struct FrameStatus {
    int64_t frame = 0;
    int fps = 0;  // 0 until the library has measured a second
    int depth = -1, depthSpread = -1, ir = -1, irSpread = -1;
};

FrameStatus statusOf(const DeviceHandle& camera, int64_t frame, DataMode mode, bool mapped) {
    FrameStatus s;
    s.frame = frame;
    s.fps = GetFramesPerSecond(camera);
    const ModeInfo& m = modeInfo(mode);
    int depth = 0, depthSpread = 0, ir = 0, irSpread = 0;
    if ((m.depth || m.ir) && GetDepthIRValues(camera, &depth, &depthSpread, &ir, &irSpread) == Ok) {
        if (m.depth) s.depth = depth, s.depthSpread = depthSpread;
        // Mapped onto colour, depth has left the IR image's geometry: no IR average then.
        if (m.ir && !mapped) s.ir = ir, s.irSpread = irSpread;
    }
    return s;
}

// "frame 12: 30 fps, depth 2398 mm (spread 6), IR 312 (spread 9)"
std::string statusText(const FrameStatus& s) {
    std::string text = "frame " + std::to_string(s.frame) + ": " +
                       (s.fps > 0 ? std::to_string(s.fps) : std::string("--")) + " fps";
    if (s.depth >= 0)
        text += ", depth " + std::to_string(s.depth) + " mm (spread " +
                std::to_string(s.depthSpread) + ")";
    if (s.ir >= 0)
        text += ", IR " + std::to_string(s.ir) + " (spread " + std::to_string(s.irSpread) + ")";
    return text;
}

std::string statusJson(const FrameStatus& s, uint64_t timeStamp) {
    Json out(Json::Layout::OneLine);
    out.beginObject().field("frame", s.frame).field("time_stamp", static_cast<int64_t>(timeStamp));
    // The library measures the rate once a second has passed.
    if (s.fps > 0) out.field("fps", s.fps);
    if (s.depth >= 0) out.field("depth_mm", s.depth).field("depth_spread", s.depthSpread);
    if (s.ir >= 0) out.field("ir", s.ir).field("ir_spread", s.irSpread);
    return out.endObject().text();
}

int streamCommand(Args& args, const Context& context) {
    const int asked = takeModeOption(args);
    const std::optional<std::string> framesArg = args.option("frames");
    const std::optional<std::string> outArg = args.option("out");
    const Processing processing = takeProcessing(args, true);
    const std::string serial = args.positional("SERIAL");
    const int requested = modeFor(serial, asked);
    args.finish();
    const int64_t frames = framesArg ? parseNumber(*framesArg, 0, 1000000, "--frames") : 30;
    const std::optional<std::string> out =
        outArg ? std::optional<std::string>(absolutePath(*outArg)) : std::nullopt;
    if (requested == No_Image_Mode) usageError("data mode 1 produces no images");
    checkProcessing(processing, requested);
    if (out) prepareOutputDirectory(*out);

    Session session;
    const DeviceHandle camera = session.open(serial);
    const DataMode mode = useDataMode(camera, requested);
    applyProcessing(camera, processing, mode);
    const ModeInfo& m = modeInfo(mode);
    // The window at the centre is averaged (and drawn on the colour map) on every frame.
    if (m.depth || m.ir) check(SetAvgRegion(camera, AvgRegion_Center), "SetAvgRegion");
    if (m.ir) check(SetAvgIRDisplay(camera, 1), "SetAvgIRDisplay");

    if (!context.json) {
        std::printf("Streaming %s in data mode %d (%s), processing: %s\n", camera.serialNo,
                    int(mode), m.description, describe(processing).c_str());
        std::fflush(stdout);
    }
    FrameFeed feed(camera);
    Frames images{};
    FrameStatus last;
    {
        Progress progress(context);
        while ((frames == 0 || last.frame < frames) && feed.next(&images)) {
            last = statusOf(camera, last.frame + 1, mode, processing.map);
            if (context.json) {
                std::fputs(statusJson(last, images.raw_depth_frame.time_stamp).c_str(), stdout);
                std::fflush(stdout);
            }
            progress.update(statusText(last));
        }
    }
    if (last.frame == 0) throw ToolError("interrupted before the first frame", interruptStatus());

    std::vector<std::string> written;
    // The images of the last frame are still the library's current ones.
    if (out) written = saveImages(images, *out);
    if (context.json) {
        Json summary(Json::Layout::OneLine);
        summary.beginObject().field("frames", last.frame).field("data_mode", int(mode));
        summary.key("written").beginArray();
        for (const std::string& path : written)
            summary.value(path);
        std::fputs(summary.endArray().endObject().text().c_str(), stdout);
    } else {
        std::printf("%s\n%lld frames\n", statusText(last).c_str(),
                    static_cast<long long>(last.frame));
        for (const std::string& path : written)
            std::printf("wrote %s\n", path.c_str());
    }
    return kExitOk;
}

std::vector<OptionSpec> streamOptions() {
    std::vector<OptionSpec> options = {
        modeOption(), framesOption("stream K frames (default 30; 0: until Ctrl-C)")};
    for (const OptionSpec& o : processingOptions(true))
        options.push_back(o);
    options.push_back({"--out", "DIR",
                       "write the last frame's images into DIR: depth-colormap.png (pixels "
                       "without depth black), depth.png (16-bit millimetres), ir.png (16-bit), "
                       "colour.png",
                       "@dir"});
    return options;
}

const bool registered = registerCommand({
    "stream",
    "SERIAL [OPTIONS]",
    "stream, report rate and averages, save PNGs",
    "Streams K frames from the camera with the processing asked for, and reports for each the "
    "frame rate and the depth and IR averages of a window at the image centre: as progress on "
    "standard error (a line a second, or one line rewritten in place on a terminal), and with "
    "--json as one JSON object per frame on standard output. At the end it prints the last "
    "frame's line and the number of frames, and writes the images of the last frame with "
    "--out. Ctrl-C ends the stream after the current frame (exit status 130).",
    streamOptions(),
    {Operand::Serial},
    streamCommand,
    50,
});

}  // namespace

}  // namespace talvoro_tool
