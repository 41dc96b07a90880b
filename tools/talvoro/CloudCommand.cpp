// talvoro cloud SERIAL --out FILE.ply [--mode N] [--frames K] [--filters LIST] [--planarize]
//               [--undistort]
// Streams K frames (default 5, so that the temporal filter has a history) and writes the depth of
// the last as a coloured point cloud: each measured pixel back-projected through the depth
// camera's calibration; in data modes 4 and 5 coloured by what the colour camera sees there,
// otherwise by the depth colour map.
#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "DataModes.h"
#include "FrameFeed.h"
#include "Images.h"
#include "PointCloud.h"
#include "Processing.h"
#include "Session.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

int cloudCommand(Args& args) {
    const std::optional<std::string> outArg = args.option("out");
    const int requested = takeModeOption(args);
    const std::optional<std::string> framesArg = args.option("frames");
    const Processing processing = takeProcessing(args, false);
    const std::string serial = args.positional("SERIAL");
    args.finish();
    if (!outArg) usageError("missing --out FILE.ply");
    const int64_t frames = framesArg ? parseNumber(*framesArg, 1, 1000000, "--frames") : 5;
    // Created now: a path that cannot be written fails before the camera streams.
    PendingFile out(absolutePath(*outArg));

    catchInterrupts();
    Session session;
    const DeviceHandle camera = session.open(serial);
    const DataMode mode = useDataMode(camera, requested);
    if (!modeInfo(mode).depth)
        usageError("data mode " + std::to_string(mode) +
                   " has no depth; choose 0, 2, 4 or 5 with --mode");
    CalibrationParams calibration{};
    const int loaded = GetDeviceCalibrationParams(camera, &calibration);
    if (loaded != Ok || calibration.depth.fx == 0)
        throw ToolError("camera " + serial + " has no depth calibration to back-project with");
    applyProcessing(camera, processing, mode);

    FrameFeed feed(camera);
    Frames images{};
    {
        StatusLine progress(stderr, false);
        for (int64_t i = 0; i < frames; ++i) {
            if (!feed.next(&images)) throw ToolError("interrupted");
            progress.update("frame " + std::to_string(i + 1) + " of " + std::to_string(frames));
        }
    }

    const DepthGeometry geometry{processing.undistort, processing.planarize};
    std::vector<CloudPoint> points = backProject(view(images.raw_depth_frame), calibration.depth,
                                                 geometry, view(images.depth_colormap_frame));
    std::size_t coloured = 0;
    if (modeInfo(mode).colour) {
        // The HD set belongs to the 1280x720 colour image of mode 5.
        const bool hd = mode == Depth_IR_RGB_HD_Mode;
        coloured = colourFromCamera(&points, colourBgr(images.rgb_frame),
                                    hd ? calibration.hd_rgb : calibration.rgb,
                                    hd ? calibration.hd_extrinsic : calibration.extrinsic);
        if (coloured == 0)
            std::fprintf(stderr,
                         "talvoro: no colour calibration for data mode %d: points keep the "
                         "colour map's colours\n",
                         int(mode));
    }
    writePly(out.path(), points,
             {"TalvoroSDK point cloud of camera " + serial + ", data mode " + std::to_string(mode),
              "depth camera coordinates in metres: x right, y down, z forward",
              "processing: " + describe(processing)});
    std::printf("wrote %zu points (%zu coloured by the colour camera) to %s\n", points.size(),
                coloured, out.path().c_str());
    out.keep();
    return kExitOk;
}

}  // namespace talvoro_tool
