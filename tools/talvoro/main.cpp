// talvoro: the command-line tool for Talvoro depth cameras, built on the public interface of
// libTalvoroSDK. One subcommand per source file; this one dispatches and prints the help.
#include <climits>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Commands.h"
#include "Controls.h"

namespace talvoro_tool {

namespace {

const char kUsage[] =
    "usage: talvoro COMMAND [ARGS]\n"
    "\n"
    "  list [--json]                          the connected cameras\n"
    "  info SERIAL [--json]                   modes, controls, calibration, board readings\n"
    "  get SERIAL CONTROL [--json]            one control's value\n"
    "  set SERIAL CONTROL [VALUE]             change a control (VALUE: number or name;\n"
    "                                         several values comma-separated)\n"
    "  stream SERIAL [--mode N] [--frames K] [--filters LIST] [--planarize] [--undistort]\n"
    "         [--map] [--colormap MIN,MAX[,MAP]] [--out DIR]\n"
    "                                         stream, print rate and averages, save PNGs\n"
    "  cloud SERIAL --out FILE.ply [--mode N] [--frames K] [--filters LIST] [--planarize]\n"
    "         [--undistort] [--colormap MIN,MAX[,MAP]]\n"
    "                                         write a coloured point cloud\n"
    "  record SERIAL [--mode N] [--frames K] --out FILE\n"
    "                                         record raw frames and calibration\n"
    "  replay FILE [--fps F] -- COMMAND [ARG...]\n"
    "                                         run COMMAND with a camera playing FILE\n"
    "  help [controls]                        this text, or the controls\n"
    "\n"
    "--filters takes spatial, temporal, edge, flying or all, comma-separated. --colormap spans\n"
    "MIN to MAX millimetres (default 300 to the end of the depth range) with OpenCV colour map\n"
    "MAP (0 to 21). --frames 0 runs until Ctrl-C. Exit status: 0 success, 1 failure, 2 wrong\n"
    "command line.\n";

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

int run(const std::string& command, Args& args) {
    if (command == "list") return listCommand(args);
    if (command == "info") return infoCommand(args);
    if (command == "get") return getCommand(args);
    if (command == "set") return setCommand(args);
    if (command == "stream") return streamCommand(args);
    if (command == "cloud") return cloudCommand(args);
    if (command == "record") return recordCommand(args);
    if (command == "replay") return replayCommand(args);
    if (command == "help" || command == "--help" || command == "-h") {
        const std::optional<std::string> topic = args.optionalPositional();
        args.finish();
        if (topic == "controls")
            printControls();
        else if (topic)
            usageError("no help on '" + *topic + "'");
        else
            std::fputs(kUsage, stdout);
        return kExitOk;
    }
    usageError("unknown command '" + command + "' (see 'talvoro help')");
}

}  // namespace

}  // namespace talvoro_tool

int main(int argc, char** argv) {
    using namespace talvoro_tool;
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    try {
        Args args(std::vector<std::string>(argv + 2, argv + argc));
        return run(argv[1], args);
    } catch (const ToolError& e) {
        std::fprintf(stderr, "talvoro: %s\n", e.what());
        return e.status();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "talvoro: %s\n", e.what());
        return kExitFailure;
    }
}
