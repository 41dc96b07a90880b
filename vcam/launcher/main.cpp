// talvoro-vcam: runs a command with virtual Talvoro cameras plugged in.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Recording.h"
#include "Scenario.h"
#include "Testbed.h"

namespace {

constexpr const char* kUmockdevPreload = "libumockdev-preload.so.0";
constexpr const char* kPreloadName = "libtalvoro-vcam-preload.so";

const char* kUsage =
    "usage: talvoro-vcam run [options] -- COMMAND [ARG...]\n"
    "\n"
    "Runs COMMAND with virtual Talvoro cameras present: a sysfs/udev tree (umockdev) and\n"
    "emulated /dev/videoN and /dev/hidrawN nodes. Exits with COMMAND's status.\n"
    "\n"
    "options:\n"
    "  --scenario FILE        read cameras and nodes from a scenario file\n"
    "  --cameras N            add N cameras with assigned serials and node numbers\n"
    "  --camera K=V[,K=V...]  add one camera (keys as in the scenario file's [camera])\n"
    "  --node K=V[,K=V...]    add a video node that is not a Talvoro camera\n"
    "                         (type=platform|usb-other, video=N)\n"
    "  --fps F                frame rate of every camera without its own (default 30)\n"
    "  --trace FILE           write the wire trace to FILE\n"
    "  --print-scenario       print the resolved scenario and exit\n"
    "\n"
    "Without any camera option one camera is added. See docs/vcam.md.\n";

int usageError(const std::string& message) {
    std::cerr << "talvoro-vcam: " << message << "\n" << kUsage;
    return 2;
}

std::string selfDir() {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return ".";
    std::string path(buf, static_cast<std::size_t>(n));
    return path.substr(0, path.rfind('/'));
}

// The preload sits beside the launcher in a build tree, under lib/talvoro-vcam when installed.
std::string findPreload() {
    if (const char* env = std::getenv("TALVORO_VCAM_PRELOAD")) return env;
    const std::string dir = selfDir();
    for (const std::string& candidate :
         {dir + "/" + kPreloadName, dir + "/../lib/talvoro-vcam/" + kPreloadName,
          dir + "/../lib/x86_64-linux-gnu/talvoro-vcam/" + kPreloadName}) {
        if (access(candidate.c_str(), R_OK) == 0) return candidate;
    }
    return "";
}

// LD_PRELOAD without any umockdev or vcam preload already in it.
std::string otherPreloads() {
    const char* env = std::getenv("LD_PRELOAD");
    std::string out;
    std::string item;
    for (const char* p = env ? env : "";; ++p) {
        if (*p == ':' || *p == ' ' || *p == '\0') {
            if (!item.empty() && item.find("umockdev-preload") == std::string::npos &&
                item.find(kPreloadName) == std::string::npos) {
                out += (out.empty() ? "" : ":") + item;
            }
            item.clear();
            if (*p == '\0') break;
        } else {
            item += *p;
        }
    }
    return out;
}

// Replayed recordings must be readable; their paths become absolute, so that COMMAND finds them
// from any working directory.
bool checkRecordings(vcam::Scenario* scenario, std::string* error) {
    for (auto& camera : scenario->cameras) {
        if (camera.replay.empty()) continue;
        vcam::rec::RecordingReader reader;
        if (!reader.open(camera.replay, error)) return false;
        char* real = realpath(camera.replay.c_str(), nullptr);
        if (real) {
            camera.replay = real;
            std::free(real);
        }
    }
    return true;
}

pid_t g_child = -1;

void forwardSignal(int sig) {
    if (g_child > 0) kill(g_child, sig);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        std::cout << kUsage;
        return argc < 2 ? 2 : 0;
    }
    if (std::strcmp(argv[1], "run") != 0)
        return usageError("unknown command " + std::string(argv[1]));

    // umockdev builds its tree only from inside its own mock environment, as umockdev-run does.
    if (!std::getenv("TALVORO_VCAM_LAUNCHER")) {
        const std::string others = otherPreloads();
        const std::string preload =
            std::string(kUmockdevPreload) + (others.empty() ? "" : ":" + others);
        setenv("LD_PRELOAD", preload.c_str(), 1);
        setenv("TALVORO_VCAM_LAUNCHER", "1", 1);
        execv("/proc/self/exe", argv);
        std::cerr << "talvoro-vcam: cannot re-execute: " << std::strerror(errno) << "\n";
        return 127;
    }
    unsetenv("TALVORO_VCAM_LAUNCHER");

    vcam::Scenario scenario;
    std::string error;
    bool anyCamera = false, printOnly = false;
    double fps = 0;
    std::string trace;
    int i = 2;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string* out) {
            if (i + 1 >= argc) return false;
            *out = argv[++i];
            return true;
        };
        std::string v;
        if (arg == "--") {
            ++i;
            break;
        } else if (arg == "--scenario") {
            if (!value(&v)) return usageError("--scenario needs a file");
            std::ifstream in(v);
            if (!in) return usageError("cannot read scenario file " + v);
            std::string text((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
            if (!scenario.parse(text, &error)) return usageError(v + ": " + error);
            anyCamera = true;
        } else if (arg == "--cameras") {
            if (!value(&v)) return usageError("--cameras needs a number");
            char* end = nullptr;
            const long n = std::strtol(v.c_str(), &end, 10);
            if (*end || n < 0 || n > 16) return usageError("--cameras takes 0 to 16");
            scenario.cameras.resize(scenario.cameras.size() + static_cast<std::size_t>(n));
            anyCamera = true;
        } else if (arg == "--camera") {
            if (!value(&v) || !scenario.addCameraFromOptions(v, &error))
                return usageError("--camera: " + error);
            anyCamera = true;
        } else if (arg == "--node") {
            if (!value(&v) || !scenario.addNodeFromOptions(v, &error))
                return usageError("--node: " + error);
        } else if (arg == "--fps") {
            if (!value(&v)) return usageError("--fps needs a rate");
            fps = std::strtod(v.c_str(), nullptr);
            if (!(fps > 0) || fps > 1000) return usageError("--fps takes a rate above 0");
        } else if (arg == "--trace") {
            if (!value(&trace)) return usageError("--trace needs a file");
        } else if (arg == "--print-scenario") {
            printOnly = true;
        } else {
            return usageError("unknown option " + arg);
        }
    }
    if (!anyCamera) scenario.cameras.resize(1);
    if (fps > 0) scenario.fps = fps;
    if (!trace.empty()) scenario.trace = trace;
    // Every process of the run appends to the trace, whatever its working directory.
    if (!scenario.trace.empty() && scenario.trace[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd)) scenario.trace = std::string(cwd) + "/" + scenario.trace;
    }
    if (!scenario.resolve(&error)) return usageError(error);
    if (!checkRecordings(&scenario, &error)) return usageError(error);
    if (printOnly) {
        std::cout << scenario.serialize();
        return 0;
    }
    if (i >= argc) return usageError("no command given after --");

    const std::string preload = findPreload();
    if (preload.empty()) {
        std::cerr << "talvoro-vcam: cannot find " << kPreloadName << "\n";
        return 127;
    }

    vcam::Testbed testbed;
    if (!testbed.build(scenario, &error)) {
        std::cerr << "talvoro-vcam: " << error << "\n";
        return 127;
    }
    const std::string stateDir = testbed.root() + "/talvoro-vcam";
    mkdir(stateDir.c_str(), 0755);
    const std::string scenarioPath = stateDir + "/scenario";
    {
        std::ofstream out(scenarioPath);
        out << scenario.serialize();
        if (!out) {
            std::cerr << "talvoro-vcam: cannot write " << scenarioPath << "\n";
            return 127;
        }
    }

    if (!scenario.trace.empty() && !std::ofstream(scenario.trace, std::ios::trunc)) {
        std::cerr << "talvoro-vcam: cannot write the trace file " << scenario.trace << "\n";
        return 127;
    }

    const std::string others = otherPreloads();
    const std::string childPreload =
        preload + ":" + kUmockdevPreload + (others.empty() ? "" : ":" + others);

    g_child = fork();
    if (g_child < 0) {
        std::cerr << "talvoro-vcam: fork: " << std::strerror(errno) << "\n";
        return 127;
    }
    if (g_child == 0) {
        setenv("LD_PRELOAD", childPreload.c_str(), 1);
        setenv("TALVORO_VCAM_SCENARIO", scenarioPath.c_str(), 1);
        execvp(argv[i], argv + i);
        std::cerr << "talvoro-vcam: cannot run " << argv[i] << ": " << std::strerror(errno) << "\n";
        _exit(127);
    }
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        signal(sig, forwardSignal);
    int status = 0;
    while (waitpid(g_child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}
