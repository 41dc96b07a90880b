// talvoro get SERIAL CONTROL [--json] and talvoro set SERIAL CONTROL [VALUE]: one camera control
// by name. Set reads the control back afterwards and prints what the camera holds now.
#include <cstdio>
#include <string>

#include "Command.h"
#include "Controls.h"
#include "Json.h"
#include "Session.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

const Control& controlNamed(const std::string& name) {
    if (const Control* c = findControl(name)) return *c;
    usageError("unknown control '" + name + "' (see 'talvoro help controls')");
}

// Reads the control and prints it; throws when the camera does not answer.
void printControl(const Control& control, const DeviceHandle& camera, bool json) {
    Values values;
    const int result = control.get(camera, &values);
    if (result != Ok)
        throw ToolError(failureText(control, result, false, camera), kExitFailure, result);
    const std::vector<Field> fields = fieldsOf(control, camera, false);
    if (json) {
        Json out;
        out.beginObject().field("serial", camera.serialNo).field("control", control.name);
        valuesJson(out, fields, values).endObject();
        std::fputs(out.text().c_str(), stdout);
    } else {
        std::printf("%s\n", formatValues(fields, values).c_str());
    }
}

}  // namespace

int getCommand(Args& args, const Context& context) {
    const bool json = context.json;
    const std::string serial = args.positional("SERIAL");
    const Control& control = controlNamed(args.positional("CONTROL"));
    args.finish();
    if (!control.get) usageError(control.name + " can only be set");

    Session session;
    printControl(control, session.open(serial), json);
    return kExitOk;
}

int setCommand(Args& args, const Context& context) {
    const std::string serial = args.positional("SERIAL");
    const Control& control = controlNamed(args.positional("CONTROL"));
    const std::optional<std::string> value = args.optionalPositional();
    args.finish();
    if (!control.set) usageError(control.name + " can only be read");
    if (control.inputs().empty() && value) usageError(control.name + " takes no value");
    if (!control.inputs().empty() && !value) usageError("missing VALUE for " + control.name);

    Session session;
    const DeviceHandle camera = session.open(serial);
    Values values;
    if (value) values = parseValues(control.name, fieldsOf(control, camera, true), *value);
    const int result = control.set(camera, values);
    if (result != Ok)
        throw ToolError(failureText(control, result, true, camera), kExitFailure, result);
    if (control.get) printControl(control, camera, context.json);
    return kExitOk;
}

const bool registeredGet = registerCommand({
    "get",
    "SERIAL CONTROL",
    "one control's value",
    "Reads the camera control CONTROL and prints its value as set takes it (a number, a name, "
    "several values comma-separated). 'talvoro help controls' lists the controls.",
    {},
    {Operand::Serial, Operand::Control},
    getCommand,
    30,
});

const bool registeredSet = registerCommand({
    "set",
    "SERIAL CONTROL [VALUE]",
    "change a control",
    "Changes the camera control CONTROL to VALUE (a number or a name; several values "
    "comma-separated, as in 'set LAB1 face-detection on,off,on'), reads it back and prints what "
    "the camera holds now. A control without a value (defaults) is just set. The camera keeps "
    "its controls while it stays plugged in.",
    {},
    {Operand::Serial, Operand::Control, Operand::ControlValue},
    setCommand,
    40,
});

}  // namespace talvoro_tool
