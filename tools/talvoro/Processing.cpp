#include "Processing.h"

#include "DataModes.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

// Throws a reason for a setting the camera refused.
void apply(int result, const std::string& option) {
    if (result == Ok) return;
    if (result == NotSupportedInDataMode)
        throw ToolError(option + " is not available in the current data mode", kExitFailure,
                        result);
    if (result == CalibrationDataNotFound)
        throw ToolError(option + " needs the camera's calibration, which it does not have",
                        kExitFailure, result);
    throw ToolError(option + " failed: " + resultText(result), kExitFailure, result);
}

// Why data mode `mode` cannot do the processing; empty when it can.
std::string refusal(const Processing& p, int mode) {
    if (p.any() && !modeInfo(mode).depth)
        return "depth processing needs a data mode with depth (0, 2, 4, 5); data mode " +
               std::to_string(mode) + " has none";
    if (p.map && mode != Depth_IR_RGB_VGA_Mode && mode != Depth_IR_RGB_HD_Mode)
        return "--map needs data mode 4 or 5 (depth with colour)";
    return "";
}

}  // namespace

std::vector<OptionSpec> processingOptions(bool allowMap) {
    std::vector<OptionSpec> options = {
        {"--filters", "LIST",
         "depth filters, comma-separated: spatial (median and bilateral), temporal (over the "
         "last frames), edge (depth edges blacked out), flying (flying pixels removed), or all",
         "spatial temporal edge flying all"},
        {"--planarize", nullptr,
         "depth as the distance along the optical axis instead of along each pixel's ray"},
        {"--undistort", nullptr, "remove the lens distortion from depth (needs the calibration)"},
    };
    if (allowMap)
        options.push_back({"--map", nullptr,
                           "register depth onto the colour image (data modes 4 and 5; needs the "
                           "calibration)"});
    options.push_back({"--colormap", "MIN,MAX[,MAP]",
                       "the colour map spans MIN to MAX millimetres (default 300 to the end of "
                       "the depth range) with OpenCV colour map MAP (0 to 21)"});
    return options;
}

void checkProcessing(const Processing& p, int requested) {
    if (requested < 0) return;
    const std::string why = refusal(p, requested);
    if (!why.empty()) usageError(why);
}

Processing takeProcessing(Args& args, bool allowMap) {
    Processing p;
    if (const std::optional<std::string> filters = args.option("filters")) {
        std::size_t start = 0;
        while (true) {
            const std::size_t comma = filters->find(',', start);
            const std::string name = filters->substr(start, comma - start);
            if (name == "spatial") {
                p.spatial = true;
            } else if (name == "temporal") {
                p.temporal = true;
            } else if (name == "edge") {
                p.edge = true;
            } else if (name == "flying") {
                p.flying = true;
            } else if (name == "all") {
                p.spatial = p.temporal = p.edge = p.flying = true;
            } else {
                usageError("--filters: unknown filter '" + name +
                           "' (spatial, temporal, edge, flying, all)");
            }
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
    }
    if (const std::optional<std::string> map = args.option("colormap")) {
        const std::size_t first = map->find(',');
        const std::size_t second = first == std::string::npos ? first : map->find(',', first + 1);
        if (first == std::string::npos)
            usageError("--colormap: expected MIN,MAX[,MAP], got '" + *map + "'");
        p.colourMin =
            static_cast<int>(parseNumber(map->substr(0, first), 0, 65535, "--colormap MIN"));
        p.colourMax = static_cast<int>(parseNumber(map->substr(first + 1, second - first - 1),
                                                   p.colourMin + 1, 65535, "--colormap MAX"));
        if (second != std::string::npos)
            p.colourMap =
                static_cast<int>(parseNumber(map->substr(second + 1), 0, 21, "--colormap MAP"));
    }
    p.planarize = args.flag("planarize");
    p.undistort = args.flag("undistort");
    if (allowMap) p.map = args.flag("map");
    return p;
}

void applyProcessing(const DeviceHandle& camera, const Processing& p, DataMode mode) {
    // The data mode the camera was in: the command line was fine, the camera is not.
    const std::string why = refusal(p, mode);
    if (!why.empty()) throw ToolError(why + " (the camera streams in it; choose one with --mode)");
    if (p.spatial) apply(SetFilterType(camera, 0, true), "the spatial filter");
    if (p.temporal) apply(SetFilterType(camera, 1, true), "the temporal filter");
    if (p.edge) apply(SetFilterType(camera, 2, true), "the edge filter");
    if (p.flying) apply(SetFlyingPixelFilter(camera, 1), "the flying-pixel filter");
    if (p.planarize) apply(SetPlanarization(camera, 1), "--planarize");
    if (p.undistort) apply(SetUnDistortion(camera, 1), "--undistort");
    if (p.map) apply(SetRGBDMapping(camera, 1), "--map");

    if (!modeInfo(mode).depth) return;
    int min = p.colourMin, max = p.colourMax;
    if (min < 0) {
        // Near range reaches about 4 m, far range about 8 m.
        uint16_t range = 0;
        GetDepthRange(camera, &range);
        min = 300;
        max = range == 1 ? 8000 : 4000;
    }
    // A map number above 21 keeps the current one.
    apply(UpdateColorMap(camera, min, max, p.colourMap < 0 ? 22 : p.colourMap), "--colormap");
}

std::string describe(const Processing& p) {
    std::string filters;
    auto add = [](std::string* text, bool on, const char* name) {
        if (on) *text += (text->empty() ? "" : ", ") + std::string(name);
    };
    add(&filters, p.spatial, "spatial");
    add(&filters, p.temporal, "temporal");
    add(&filters, p.edge, "edge");
    add(&filters, p.flying, "flying-pixel");
    std::string text;
    if (!filters.empty()) text = filters + " filters";
    add(&text, p.planarize, "planarized");
    add(&text, p.undistort, "undistorted");
    add(&text, p.map, "mapped onto colour");
    return text.empty() ? "none" : text;
}

}  // namespace talvoro_tool
