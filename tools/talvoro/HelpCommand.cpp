// talvoro help [COMMAND | controls]: the tool's help, a command's, or the camera controls that
// get and set know.
#include <climits>
#include <cstdio>
#include <string>

#include "Command.h"
#include "Controls.h"

namespace talvoro_tool {

namespace {

void printControls() {
    std::printf("Controls (talvoro get|set SERIAL CONTROL [VALUE]):\n\n");
    for (const Control& c : controls()) {
        std::string access = c.get && c.set ? "" : c.get ? " (read only)" : " (write only)";
        std::printf("  %s%s: %s\n", c.name.c_str(), access.c_str(), c.description.c_str());
        for (const Field& f : c.inputs())
            if (!f.hex && f.decimals == 0)
                std::printf("      %s: %s\n", f.name.c_str(),
                            f.min == INT32_MIN ? "the camera's range (talvoro info shows it)"
                                               : describeRange(f).c_str());
        if (!c.modes.empty()) std::printf("      needs %s\n", c.modes.c_str());
        if (!c.setModes.empty()) std::printf("      set needs %s\n", c.setModes.c_str());
    }
}

int helpCommand(Args& args, const Context&) {
    const std::optional<std::string> topic = args.optionalPositional();
    args.finish();
    if (!topic) {
        std::fputs(toolHelp().c_str(), stdout);
    } else if (*topic == "controls") {
        printControls();
    } else if (const CommandSpec* spec = findCommand(*topic)) {
        std::fputs(commandHelp(*spec).c_str(), stdout);
    } else {
        usageError("no help on '" + *topic + "' (a command, or controls)");
    }
    return kExitOk;
}

const bool registered = registerCommand({
    "help",
    "[COMMAND | controls]",
    "this help, a command's help, or the camera controls",
    "Prints the tool's help, the help of COMMAND (as 'talvoro COMMAND --help' does), or with "
    "'controls' every camera control that get and set know, with its values and the data modes "
    "it needs.",
    {},
    {Operand::Topic},
    helpCommand,
    900,
});

}  // namespace

}  // namespace talvoro_tool
