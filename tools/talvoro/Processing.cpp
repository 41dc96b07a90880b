#include "Processing.h"

#include "DataModes.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

// Throws a reason for a setting the camera refused.
void apply(int result, const std::string& option) {
    if (result == Ok) return;
    if (result == NotSupportedInDataMode)
        throw ToolError(option + " is not available in the current data mode");
    if (result == CalibrationDataNotFound)
        throw ToolError(option + " needs the camera's calibration, which it does not have");
    throw ToolError(option + " failed: " + resultText(result));
}

}  // namespace

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
    if (p.any() && !modeInfo(mode).depth)
        throw ToolError("depth processing needs a data mode with depth (0, 2, 4, 5); data mode " +
                        std::to_string(mode) + " has none");
    if (p.map && mode != Depth_IR_RGB_VGA_Mode && mode != Depth_IR_RGB_HD_Mode)
        throw ToolError("--map needs data mode 4 or 5 (depth with colour)");
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
