// The camera's controls by readable name: what `talvoro get`, `talvoro set` and `talvoro info`
// read and change. Each control is one value or a few (face detection: detect, embed, overlay),
// with the ranges and value names the public header documents; the camera judges values beyond
// those (a refusal comes back as SetValueFailed).
//
// Only settings the camera keeps are here. The frame-processing settings (filters,
// planarization, undistortion, mapping, IR gain) live in the library only while the camera is
// open, so they are options of `stream` and `cloud` instead.
#ifndef TALVORO_TOOL_CONTROLS_H
#define TALVORO_TOOL_CONTROLS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "TalvoroSDK.h"

namespace talvoro_tool {

class Json;

using Values = std::vector<int64_t>;

struct Choice {
    int64_t value;
    const char* name;
};

struct Field {
    std::string name;
    int64_t min = 0;
    int64_t max = 0;
    // When not empty, the only values allowed, given by number or by name.
    std::vector<Choice> choices;
    // A reading kept in fixed point: the value is the quantity times 10^decimals.
    int decimals = 0;
    // Printed as 64-bit hexadecimal (the bits of the value as unsigned).
    bool hex = false;
    // As the camera reports them (standard controls); 0 and none when unknown.
    int64_t step = 0;
    std::optional<int64_t> byDefault;
};

struct Control {
    std::string name;
    std::string description;
    // What reading and changing the control need of the data mode, for messages (empty: any
    // mode; setModes empty: as modes).
    std::string modes;
    std::string setModes;
    std::vector<Field> fields;     // what get returns
    std::vector<Field> setFields;  // what set takes, when it differs from `fields`
    std::function<int(const Talvoro::DeviceHandle&, Values*)> get;        // empty: write-only
    std::function<int(const Talvoro::DeviceHandle&, const Values&)> set;  // empty: read-only
    // Narrows the ranges with what the camera reports (standard controls, exposure limit).
    std::function<void(const Talvoro::DeviceHandle&, std::vector<Field>*)> refine;

    const std::vector<Field>& inputs() const { return setFields.empty() ? fields : setFields; }
};

const std::vector<Control>& controls();
// Null for an unknown name.
const Control* findControl(const std::string& name);

// The fields with the camera's ranges (refine applied); `forSet` picks the set arguments.
std::vector<Field> fieldsOf(const Control& control, const Talvoro::DeviceHandle& camera,
                            bool forSet);

// Parses "V" or "V1,V2,..." (numbers or value names) for `fields`; throws a usage error naming
// the control for a wrong count, an unknown name or a value out of range.
Values parseValues(const std::string& control, const std::vector<Field>& fields,
                   const std::string& text);
// The values as set takes them back: "macro", "1,0,1", "250", "0x0123456789ABCDEF", "12.500".
std::string formatValues(const std::vector<Field>& fields, const Values& values);
// One value as text (its choice name, hexadecimal or fixed point as the field says).
std::string formatValue(const Field& field, int64_t value);
// Adds "fields" (names), "values" (numbers; hexadecimal text for IDs) and "text" (as printed) to
// the JSON object being written.
Json& valuesJson(Json& out, const std::vector<Field>& fields, const Values& values);
// Why reading (forSet false) or changing the control failed with `result`: a data-mode refusal
// names the data modes the control needs and the one the camera streams in.
std::string failureText(const Control& control, int result, bool forSet,
                        const Talvoro::DeviceHandle& camera);
// The allowed values of a field for messages: "0 to 15", "normal, macro".
std::string describeRange(const Field& field);

}  // namespace talvoro_tool

#endif
