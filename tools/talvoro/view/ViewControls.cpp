#include "ViewControls.h"

#include <algorithm>

#include "../Cli.h"

namespace talvoro_tool {

using namespace Talvoro;
using nlohmann::json;

namespace {

const char* const kDepthModes = "depth (data modes 0, 2, 4, 5)";

Field onOff(const char* name) {
    Field f;
    f.name = name;
    f.choices = {{0, "off"}, {1, "on"}};
    f.max = 1;
    f.byDefault = 0;
    return f;
}

Field number(const char* name, int64_t min, int64_t max, int64_t byDefault) {
    Field f;
    f.name = name;
    f.min = min;
    f.max = max;
    f.byDefault = byDefault;
    return f;
}

Control toggle(const char* name, const char* description, const char* modes,
               std::function<int(const DeviceHandle&, bool)> apply) {
    Control c;
    c.name = name;
    c.description = description;
    c.modes = modes;
    c.fields = {onOff("state")};
    c.set = [apply](const DeviceHandle& h, const Values& v) { return apply(h, v[0] != 0); };
    return c;
}

std::vector<Control> makeProcessingControls() {
    std::vector<Control> list;
    list.push_back(toggle("spatial-filter", "median and bilateral filter of the colour map",
                          kDepthModes,
                          [](const DeviceHandle& h, bool on) { return SetFilterType(h, 0, on); }));
    list.push_back(toggle("temporal-filter", "each pixel averaged over the last frames",
                          kDepthModes,
                          [](const DeviceHandle& h, bool on) { return SetFilterType(h, 1, on); }));
    list.push_back(toggle("edge-filter", "depth edges blacked out in the colour map", kDepthModes,
                          [](const DeviceHandle& h, bool on) { return SetFilterType(h, 2, on); }));
    list.push_back(
        toggle("flying-pixel-filter", "removes pixels that mix two surfaces", kDepthModes,
               [](const DeviceHandle& h, bool on) { return SetFlyingPixelFilter(h, on); }));
    list.push_back(toggle("planarization", "depth along the optical axis instead of the ray",
                          kDepthModes,
                          [](const DeviceHandle& h, bool on) { return SetPlanarization(h, on); }));
    list.push_back(toggle("undistortion", "lens distortion removed from depth", kDepthModes,
                          [](const DeviceHandle& h, bool on) { return SetUnDistortion(h, on); }));
    list.push_back(toggle("rgbd-mapping", "depth registered onto the colour image",
                          "depth with colour (data modes 4, 5)",
                          [](const DeviceHandle& h, bool on) { return SetRGBDMapping(h, on); }));
    {
        Control c;
        c.name = "colour-map";
        c.description = "the depths (mm) the colour map spans, and the map";
        c.modes = kDepthModes;
        Field map;
        map.name = "map";
        map.choices = {
            {0, "autumn"},   {1, "bone"},      {2, "jet"},       {3, "winter"},
            {4, "rainbow"},  {5, "ocean"},     {6, "summer"},    {7, "spring"},
            {8, "cool"},     {9, "hsv"},       {10, "pink"},     {11, "hot"},
            {12, "parula"},  {13, "magma"},    {14, "inferno"},  {15, "plasma"},
            {16, "viridis"}, {17, "cividis"},  {18, "twilight"}, {19, "twilight-shifted"},
            {20, "turbo"},   {21, "deepgreen"}};
        map.max = 21;
        map.byDefault = 4;
        c.fields = {number("min", 0, 65534, 300), number("max", 1, 65535, 4000), map};
        c.set = [](const DeviceHandle& h, const Values& v) {
            return UpdateColorMap(h, static_cast<int>(v[0]), static_cast<int>(v[1]),
                                  static_cast<int>(v[2]));
        };
        list.push_back(std::move(c));
    }
    {
        Control c;
        c.name = "ir-gain";
        c.description = "factor the IR image is multiplied by";
        c.modes = "IR (data modes 0, 3, 4, 5)";
        c.fields = {number("gain", 1, 100, 16)};
        c.get = [](const DeviceHandle& h, Values* v) {
            uint16_t gain = 0;
            const int result = GetTOFIRGain(h, &gain);
            *v = {gain};
            return result;
        };
        c.set = [](const DeviceHandle& h, const Values& v) {
            return SetTOFIRGain(h, static_cast<uint16_t>(v[0]));
        };
        list.push_back(std::move(c));
    }
    return list;
}

json fieldJson(const Field& f) {
    json out = {{"name", f.name}};
    if (!f.choices.empty()) {
        json choices = json::array();
        for (const Choice& c : f.choices)
            choices.push_back({{"value", c.value}, {"name", c.name}});
        out["choices"] = std::move(choices);
    } else if (!f.hex && f.decimals == 0) {
        out["min"] = f.min;
        out["max"] = f.max;
    }
    if (f.step > 0) out["step"] = f.step;
    if (f.byDefault) out["default"] = *f.byDefault;
    return out;
}

json fieldsJson(const std::vector<Field>& fields) {
    json out = json::array();
    for (const Field& f : fields)
        out.push_back(fieldJson(f));
    return out;
}

json valueJson(const Field& f, int64_t v) {
    if (f.hex) return formatValue(f, v);
    if (f.decimals > 0) {
        double scale = 1;
        for (int i = 0; i < f.decimals; ++i)
            scale *= 10;
        return static_cast<double>(v) / scale;
    }
    return v;
}

bool isProcessing(const Control& control) {
    for (const Control& c : processingControls())
        if (&c == &control) return true;
    return false;
}

const Control* lookUp(const std::string& name) {
    for (const Control& c : processingControls())
        if (c.name == name) return &c;
    return findControl(name);
}

json describe(const Control& control, const DeviceHandle& camera,
              const ProcessingState& processing) {
    const bool processingControl = isProcessing(control);
    const std::vector<Field> fields = fieldsOf(control, camera, false);
    json out = {{"name", control.name},
                {"description", control.description},
                {"group", processingControl ? "processing" : "camera"},
                {"readable", control.get || processingControl},
                {"writable", static_cast<bool>(control.set)},
                {"fields", fieldsJson(fields)}};
    if (!control.setFields.empty()) out["setFields"] = fieldsJson(fieldsOf(control, camera, true));
    Values values;
    if (control.get) {
        const int result = control.get(camera, &values);
        if (result != Ok) {
            out["error"] = failureText(control, result, false, camera);
            return out;
        }
    } else if (processingControl) {
        values = processing[control.name];
    } else {
        return out;
    }
    json list = json::array();
    for (std::size_t i = 0; i < values.size() && i < fields.size(); ++i)
        list.push_back(valueJson(fields[i], values[i]));
    out["values"] = std::move(list);
    out["text"] = formatValues(fields, values);
    return out;
}

// The request's value in the text form `talvoro set` takes: "V" or "V1,V2,...".
std::string valueText(const json& request) {
    if (!request.is_object()) throw ControlError(400, "the request must be a JSON object");
    auto text = [](const json& v) -> std::string {
        if (v.is_string()) return v.get<std::string>();
        if (v.is_number_integer()) return std::to_string(v.get<int64_t>());
        throw ControlError(400, "a value must be a whole number or a name");
    };
    const auto value = request.find("value");
    const auto values = request.find("values");
    if ((value == request.end()) == (values == request.end()))
        throw ControlError(400, "give either \"value\" or \"values\"");
    if (value != request.end()) return text(*value);
    if (!values->is_array() || values->empty())
        throw ControlError(400, "\"values\" must be a non-empty array");
    std::string joined;
    for (const json& v : *values)
        joined += (joined.empty() ? "" : ",") + text(v);
    return joined;
}

}  // namespace

const std::vector<Control>& processingControls() {
    static const std::vector<Control> list = makeProcessingControls();
    return list;
}

ProcessingState::ProcessingState() {
    for (const Control& c : processingControls()) {
        Values v;
        for (const Field& f : c.fields)
            v.push_back(f.byDefault.value_or(0));
        values_[c.name] = std::move(v);
    }
}

void ProcessingState::applyTo(const DeviceHandle& camera) const {
    for (const Control& c : processingControls())
        c.set(camera, values_.at(c.name));
}

json describeControls(const DeviceHandle& camera, const ProcessingState& processing) {
    json out = json::array();
    for (const Control& c : processingControls())
        out.push_back(describe(c, camera, processing));
    for (const Control& c : controls())
        out.push_back(describe(c, camera, processing));
    return out;
}

json setControl(const DeviceHandle& camera, ProcessingState* processing, const std::string& name,
                const json& request) {
    const Control* control = lookUp(name);
    if (!control) throw ControlError(404, "unknown control '" + name + "'");
    if (!control->set) throw ControlError(400, name + " is read only");
    const std::vector<Field> fields = fieldsOf(*control, camera, true);
    Values values;
    if (!fields.empty()) {
        try {
            values = parseValues(name, fields, valueText(request));
        } catch (const ToolError& e) {
            throw ControlError(400, e.what());
        }
    }
    if (name == "colour-map" && values[1] <= values[0])
        throw ControlError(400, "colour-map: max must be above min");
    const int result = control->set(camera, values);
    if (result != Ok) {
        const int status = result == NotSupportedInDataMode || result == CalibrationDataNotFound
                               ? 409
                           : result == CameraNotOpened ? 503
                                                       : 502;
        std::string message = failureText(*control, result, true, camera);
        if (result == CalibrationDataNotFound)
            message = name + " needs the camera's calibration, which it does not have";
        throw ControlError(status, message);
    }
    if (isProcessing(*control)) processing->set(name, values);
    return describe(*control, camera, *processing);
}

}  // namespace talvoro_tool
