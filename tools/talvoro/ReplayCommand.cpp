// talvoro replay FILE [--fps F] -- COMMAND [ARG...]
// Runs COMMAND with one virtual camera playing the recording: a shortcut for
//   talvoro-vcam run --camera serial=SERIAL,replay=FILE,fps=F -- COMMAND
// with the serial and frame rate the recording was made with. talvoro-vcam is looked for beside
// this program (installed side by side, or the build tree's vcam/ directory) and then on PATH.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Command.h"
#include "DataModes.h"
#include "Recording.h"
#include "Session.h"

namespace talvoro_tool {

namespace {

std::string launcherPath() {
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const std::filesystem::path dir = self.parent_path();
        for (const std::filesystem::path& candidate :
             {dir / "talvoro-vcam", dir / ".." / ".." / "vcam" / "talvoro-vcam"}) {
            if (::access(candidate.c_str(), X_OK) == 0) return candidate.lexically_normal();
        }
    }
    return "talvoro-vcam";  // execvp searches PATH
}

// A serial the launcher's option syntax carries as it is; anything else is left to its default.
bool plainSerial(const std::string& serial) {
    if (serial.empty() || serial.size() >= sizeof(Talvoro::DeviceInfo::serialNo)) return false;
    for (const char c : serial)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            return false;
    return true;
}

int replayCommand(Args& args, const Context&) {
    const std::optional<std::string> fpsArg = args.option("fps");
    const std::string file = absolutePath(args.positional("FILE"));
    args.finish();
    if (!args.hasRest() || args.rest().empty()) usageError("missing -- COMMAND to run");
    if (file.find(',') != std::string::npos)
        usageError("the recording's path must not contain ',': " + file);

    vcam::rec::RecordingReader recording;
    std::string error;
    if (!recording.open(file, &error)) throw ToolError("cannot replay '" + file + "': " + error);
    if (recording.frames().empty()) throw ToolError("'" + file + "' holds no frames");

    std::string camera = "replay=" + file;
    const auto& meta = recording.metadata();
    if (const auto it = meta.find("serial"); it != meta.end() && plainSerial(it->second)) {
        camera += ",serial=" + it->second;
        // The talvoro commands COMMAND runs then keep to the data modes the recording holds.
        std::vector<int> modes;
        for (const auto& frame : recording.frames()) {
            const vcam::rec::FrameInfo& f = frame.info;
            const int mode =
                dataModeOf(f.pixelFormat, f.width, f.height, f.frameModeFirst, f.frameModeSecond);
            if (mode >= 0 && std::find(modes.begin(), modes.end(), mode) == modes.end())
                modes.push_back(mode);
        }
        setReplayedCamera({it->second, modes, file});
    }
    if (fpsArg) {
        camera += ",fps=" + std::to_string(parseNumber(*fpsArg, 1, 1000, "--fps"));
    } else if (const auto it = meta.find("fps"); it != meta.end()) {
        int64_t fps = 0;
        if (parseInteger(it->second, &fps) && fps >= 1 && fps <= 1000)
            camera += ",fps=" + std::to_string(fps);
    }

    const std::string launcher = launcherPath();
    std::vector<std::string> argv = {launcher, "run", "--camera", camera, "--"};
    argv.insert(argv.end(), args.rest().begin(), args.rest().end());
    std::vector<char*> cargv;
    for (std::string& a : argv)
        cargv.push_back(a.data());
    cargv.push_back(nullptr);
    ::execvp(launcher.c_str(), cargv.data());
    const int err = errno;
    throw ToolError("cannot run " + launcher + ": " + std::strerror(err));
}

const bool registered = registerCommand({
    "replay",
    "FILE [--fps F] -- COMMAND [ARG...]",
    "run COMMAND with a camera playing FILE",
    "Runs COMMAND with one virtual camera playing the recording FILE, under the serial and at "
    "the frame rate it was recorded with: a shortcut for\n"
    "\n"
    "    talvoro-vcam run --camera serial=SERIAL,replay=FILE,fps=F -- COMMAND\n"
    "\n"
    "The exit status is COMMAND's.",
    {{"--fps", "F", "play at F frames a second instead of the recorded rate"}},
    {Operand::File},
    replayCommand,
    80,
});

}  // namespace

}  // namespace talvoro_tool
