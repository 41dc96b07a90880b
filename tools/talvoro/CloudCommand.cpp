// talvoro cloud SERIAL --out FILE.ply [--mode N] [--frames K] [--filters LIST] [--planarize]
//               [--undistort]
// Streams K frames (default 5, so that the temporal filter has a history) and writes the depth of
// the last as a coloured point cloud (the library's GetPointCloud): each measured pixel
// back-projected through the camera's calibration; in data modes 4 and 5 coloured by what the
// colour camera sees there, otherwise by the depth colour map.
#include <cstdio>
#include <string>
#include <vector>

#include "Command.h"
#include "DataModes.h"
#include "FrameFeed.h"
#include "Images.h"
#include "Json.h"
#include "PointCloud.h"
#include "Processing.h"
#include "Session.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

int cloudCommand(Args& args, const Context& context) {
    const std::optional<std::string> outArg = args.option("out");
    const int asked = takeModeOption(args);
    const std::optional<std::string> framesArg = args.option("frames");
    const Processing processing = takeProcessing(args, false);
    const std::string serial = args.positional("SERIAL");
    const int requested = modeFor(serial, asked);
    args.finish();
    if (!outArg) usageError("missing --out FILE.ply");
    const int64_t frames = framesArg ? parseNumber(*framesArg, 1, 1000000, "--frames") : 5;
    if (requested >= 0 && !modeInfo(requested).depth)
        usageError("data mode " + std::to_string(requested) +
                   " has no depth; choose 0, 2, 4 or 5 with --mode");
    checkProcessing(processing, requested);
    // Created now: a path that cannot be written fails before the camera streams.
    PendingFile out(absolutePath(*outArg));

    Session session;
    const DeviceHandle camera = session.open(serial);
    const DataMode mode = useDataMode(camera, requested);
    if (!modeInfo(mode).depth)
        throw ToolError("the camera streams in data mode " + std::to_string(mode) +
                        ", which has no depth; choose 0, 2, 4 or 5 with --mode");
    applyProcessing(camera, processing, mode);

    FrameFeed feed(camera);
    Frames images{};
    {
        Progress progress(context);
        for (int64_t i = 0; i < frames; ++i) {
            if (!feed.next(&images))
                throw ToolError("interrupted: no point cloud written", interruptStatus());
            progress.update("frame " + std::to_string(i + 1) + " of " + std::to_string(frames));
        }
    }

    const bool colour = modeInfo(mode).colour;
    std::vector<CloudPoint> points;
    PointCloudFrame frame = PointCloud_DepthCamera;
    std::size_t coloured = 0;
    auto fetch = [&](bool withColour) {
        return fetchCloud(camera, withColour, view(images.depth_colormap_frame), &points, &frame,
                          &coloured);
    };
    int result = fetch(colour);
    // A frame captured meanwhile makes the published one stale: take that one.
    for (int retry = 0; result == TimeoutError && retry < 5; ++retry) {
        if (!feed.next(&images))
            throw ToolError("interrupted: no point cloud written", interruptStatus());
        result = fetch(colour);
    }
    if (result == CalibrationDataNotFound && colour) {
        std::fprintf(stderr,
                     "talvoro: no colour calibration for data mode %d: points keep the "
                     "colour map's colours\n",
                     int(mode));
        result = fetch(false);
    }
    if (result == CalibrationDataNotFound)
        throw ToolError("camera " + serial + " has no depth calibration to back-project with");
    if (result != Ok) throw ToolError("no point cloud: " + resultText(result));
    writePly(out.path(), points,
             {"TalvoroSDK point cloud of camera " + serial + ", data mode " + std::to_string(mode),
              std::string(frame == PointCloud_ColorCamera ? "colour" : "depth") +
                  " camera coordinates in metres: x right, y down, z forward",
              "processing: " + describe(processing)});
    if (context.json) {
        Json result;
        result.beginObject()
            .field("file", out.path())
            .field("points", static_cast<int64_t>(points.size()))
            .field("coloured", static_cast<int64_t>(coloured))
            .field("data_mode", int(mode))
            .endObject();
        std::fputs(result.text().c_str(), stdout);
    } else {
        std::printf("wrote %zu points (%zu coloured by the colour camera) to %s\n", points.size(),
                    coloured, out.path().c_str());
    }
    out.keep();
    return kExitOk;
}

std::vector<OptionSpec> cloudOptions() {
    std::vector<OptionSpec> options = {
        {"--out", "FILE.ply", "the point cloud to write (binary PLY, required)", "@file"},
        modeOption(),
        framesOption("stream K frames and use the last (default 5, so that the temporal "
                     "filter has a history)")};
    for (const OptionSpec& o : processingOptions(false))
        options.push_back(o);
    return options;
}

const bool registered = registerCommand({
    "cloud",
    "SERIAL --out FILE.ply [OPTIONS]",
    "write a coloured point cloud",
    "Streams K frames and writes the depth of the last as a binary PLY point cloud: each pixel "
    "with depth back-projected through the depth camera's calibration (metres; x right, y down, "
    "z forward). In data modes 4 and 5 each point takes the colour the colour camera sees there, "
    "elsewhere the colour map's. The camera must carry its calibration.",
    cloudOptions(),
    {Operand::Serial},
    cloudCommand,
    60,
});

}  // namespace

}  // namespace talvoro_tool
