// The frame-processing options of `stream` and `cloud`: --filters, --planarize, --undistort and
// --map. They are library settings of the open camera, gone when the command ends.
#ifndef TALVORO_TOOL_PROCESSING_H
#define TALVORO_TOOL_PROCESSING_H

#include <string>
#include <vector>

#include "Cli.h"
#include "Command.h"
#include "TalvoroSDK.h"

namespace talvoro_tool {

struct Processing {
    bool spatial = false;   // median filter
    bool temporal = false;  // over the last frames
    bool edge = false;      // edge-preserving (bilateral) filter
    bool flying = false;    // flying-pixel filter
    bool planarize = false;
    bool undistort = false;
    bool map = false;  // RGB-D mapping: depth registered onto the colour image
    // The depths (mm) the colour map spans, and OpenCV's colour map number; -1: the defaults
    // (300 mm to the end of the depth range, the library's map).
    int colourMin = -1;
    int colourMax = -1;
    int colourMap = -1;

    bool any() const {
        return spatial || temporal || edge || flying || planarize || undistort || map ||
               colourMin >= 0;
    }
};

// The options' help; --map only when `allowMap`.
std::vector<OptionSpec> processingOptions(bool allowMap);
// Takes the options from the command line (--filters LIST: spatial, temporal, edge, flying or
// all, comma-separated). --colormap MIN,MAX[,MAP] sets the colour map. --map is refused unless
// `allowMap`.
Processing takeProcessing(Args& args, bool allowMap);
// Refuses (a usage error) processing that data mode `requested` (from --mode; -1: not given)
// cannot do, before a camera is opened.
void checkProcessing(const Processing& p, int requested);
// Switches them on for the open camera; throws naming the option the data mode or the
// calibration does not allow.
void applyProcessing(const Talvoro::DeviceHandle& camera, const Processing& p,
                     Talvoro::DataMode mode);
// "spatial, flying-pixel filters, planarized, mapped onto colour", or "none".
std::string describe(const Processing& p);

}  // namespace talvoro_tool

#endif
