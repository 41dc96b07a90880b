#include "Controls.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>

#include "Cli.h"
#include "Json.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

const Choice* findChoice(const Field& field, const std::string& text) {
    for (const Choice& c : field.choices)
        if (text == c.name) return &c;
    return nullptr;
}

}  // namespace

const Control* findControl(const std::string& name) {
    for (const Control& c : controls())
        if (c.name == name) return &c;
    return nullptr;
}

std::vector<Field> fieldsOf(const Control& control, const DeviceHandle& camera, bool forSet) {
    std::vector<Field> fields = forSet ? control.inputs() : control.fields;
    // A set of the same shape as get shares the camera's ranges.
    if (control.refine && (!forSet || control.setFields.empty())) control.refine(camera, &fields);
    return fields;
}

std::string describeRange(const Field& field) {
    if (field.choices.empty())
        return std::to_string(field.min) + " to " + std::to_string(field.max);
    std::string text;
    for (const Choice& c : field.choices)
        text +=
            (text.empty() ? "" : ", ") + std::string(c.name) + " (" + std::to_string(c.value) + ")";
    return text;
}

Values parseValues(const std::string& control, const std::vector<Field>& fields,
                   const std::string& text) {
    std::vector<std::string> tokens;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = text.find(',', start);
        tokens.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (tokens.size() != fields.size()) {
        std::string names;
        for (const Field& f : fields)
            names += (names.empty() ? "" : ",") + f.name;
        usageError(control + ": expected " + std::to_string(fields.size()) +
                   (fields.size() == 1 ? " value" : " values") + " (" + names + "), got '" + text +
                   "'");
    }
    Values values;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const Field& f = fields[i];
        const std::string what = fields.size() == 1 ? control : control + " " + f.name;
        if (const Choice* c = findChoice(f, tokens[i])) {
            values.push_back(c->value);
            continue;
        }
        int64_t v = 0;
        if (!parseInteger(tokens[i], &v))
            usageError(what + ": unknown value '" + tokens[i] + "' (" + describeRange(f) + ")");
        const bool allowed = f.choices.empty()
                                 ? v >= f.min && v <= f.max
                                 : std::any_of(f.choices.begin(), f.choices.end(),
                                               [&](const Choice& c) { return c.value == v; });
        if (!allowed)
            usageError(what + ": " + tokens[i] + " is out of range (" + describeRange(f) + ")");
        values.push_back(v);
    }
    return values;
}

std::string formatValue(const Field& field, int64_t value) {
    for (const Choice& c : field.choices)
        if (c.value == value) return c.name;
    char text[40];
    if (field.hex) {
        std::snprintf(text, sizeof text, "0x%016llX",
                      static_cast<unsigned long long>(static_cast<uint64_t>(value)));
    } else if (field.decimals > 0) {
        int64_t scale = 1;
        for (int i = 0; i < field.decimals; ++i)
            scale *= 10;
        std::snprintf(text, sizeof text, "%.*f", field.decimals,
                      static_cast<double>(value) / static_cast<double>(scale));
    } else {
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(value));
    }
    return text;
}

std::string failureText(const Control& control, int result, bool forSet,
                        const DeviceHandle& camera) {
    const std::string& modes =
        forSet && !control.setModes.empty() ? control.setModes : control.modes;
    if (result == NotSupportedInDataMode && !modes.empty()) {
        DataMode mode = No_Image_Mode;
        const std::string now =
            GetDataMode(camera, &mode) == Ok
                ? " (the camera streams in data mode " + std::to_string(mode) + ")"
                : "";
        return control.name + " needs " + modes + now;
    }
    std::string text = (forSet ? "set " : "get ") + control.name + " failed: " + resultText(result);
    if (control.name == "imu-sample" && result == HidReadFail)
        text += ": no sample waiting (start the IMU stream with 'set SERIAL imu-capture start')";
    if (forSet && result == SetValueFailed) text += ": the camera refused the value";
    return text;
}

std::string formatValues(const std::vector<Field>& fields, const Values& values) {
    std::string text;
    for (std::size_t i = 0; i < values.size() && i < fields.size(); ++i)
        text += (i ? "," : "") + formatValue(fields[i], values[i]);
    return text;
}

Json& valuesJson(Json& out, const std::vector<Field>& fields, const Values& values) {
    out.key("fields").beginArray();
    for (const Field& f : fields)
        out.value(f.name);
    out.endArray().key("values").beginArray();
    for (std::size_t i = 0; i < values.size() && i < fields.size(); ++i) {
        const Field& f = fields[i];
        if (f.hex) {
            out.value(formatValue(f, values[i]));
        } else if (f.decimals > 0) {
            double scale = 1;
            for (int d = 0; d < f.decimals; ++d)
                scale *= 10;
            out.value(static_cast<double>(values[i]) / scale);
        } else {
            out.value(values[i]);
        }
    }
    return out.endArray().field("text", formatValues(fields, values));
}

}  // namespace talvoro_tool
