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

#include "Run.h"
#include "RunState.h"
#include "Scenario.h"

namespace {

constexpr const char* kUmockdevPreload = "libumockdev-preload.so.0";
constexpr const char* kPreloadName = "libtalvoro-vcam-preload.so";

const char* kUsage =
    "usage: talvoro-vcam run [options] -- COMMAND [ARG...]\n"
    "       talvoro-vcam ctl plug SERIAL [K=V[,K=V...]]\n"
    "       talvoro-vcam ctl unplug SERIAL\n"
    "\n"
    "run: runs COMMAND with virtual Talvoro cameras present: a sysfs/udev tree (umockdev) and\n"
    "emulated /dev/videoN and /dev/hidrawN nodes. Exits with COMMAND's status.\n"
    "ctl: plugs a camera in or unplugs it while a run goes on (from a process of that run);\n"
    "a new SERIAL takes camera keys as --camera does.\n"
    "\n"
    "options:\n"
    "  --scenario FILE        read cameras and nodes from a scenario file\n"
    "  --cameras N            add N cameras with assigned serials and node numbers\n"
    "  --camera K=V[,K=V...]  add one camera (keys as in the scenario file's [camera])\n"
    "  --node K=V[,K=V...]    add a video node that is not a Talvoro camera\n"
    "                         (type=platform|usb-other, video=N)\n"
    "  --fps F                frame rate of every camera without its own (default 30)\n"
    "  --seed N               seed of the sensor noise (default 1): same seed, same frames\n"
    "  --still                the ball and the door keep still in every camera's scene\n"
    "  --trace FILE           write the wire trace to FILE\n"
    "  --print-scenario       print the resolved scenario and exit\n"
    "\n"
    "Without any camera option one camera is added. See vcam.md (docs/ in the source, installed\n"
    "in share/doc/talvoro-tools).\n";

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

// talvoro-vcam ctl plug|unplug SERIAL [OPTIONS]: 0 done, 1 refused or no launcher, 2 usage.
int control(int argc, char** argv) {
    const bool plug = argc >= 4 && std::strcmp(argv[2], "plug") == 0 && argc <= 5;
    const bool unplug = argc == 4 && std::strcmp(argv[2], "unplug") == 0;
    if (!plug && !unplug) return usageError("ctl takes plug SERIAL [K=V,...] or unplug SERIAL");
    std::string message = std::string(argv[2]) + "\n" + argv[3];
    if (plug) message += "\n" + std::string(argc == 5 ? argv[4] : "");
    std::string answer;
    if (!vcam::run::request(message, &answer) || answer != "ok") {
        std::cerr << "talvoro-vcam: " << argv[2] << " " << argv[3] << ": " << answer << "\n";
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        std::cout << kUsage;
        return argc < 2 ? 2 : 0;
    }
    if (std::strcmp(argv[1], "ctl") == 0) return control(argc, argv);
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
    std::string trace, seed;
    bool still = false;
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
        } else if (arg == "--seed") {
            if (!value(&v)) return usageError("--seed needs a number");
            seed = v;
        } else if (arg == "--still") {
            still = true;
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
    if (still) scenario.scene = "still";
    if (!seed.empty() && !scenario.parse("seed = " + seed, &error))
        return usageError("--seed takes 0 to 4294967295");
    // Every process of the run appends to the trace, whatever its working directory.
    if (!scenario.trace.empty() && scenario.trace[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd)) scenario.trace = std::string(cwd) + "/" + scenario.trace;
    }
    if (!scenario.resolve(&error)) return usageError(error);
    if (!vcam::checkRecordings(&scenario, &error)) return usageError(error);
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

    if (!scenario.trace.empty() && !std::ofstream(scenario.trace, std::ios::trunc)) {
        std::cerr << "talvoro-vcam: cannot write the trace file " << scenario.trace << "\n";
        return 127;
    }
    vcam::Run run(std::move(scenario));
    if (!run.prepare(&error)) {
        std::cerr << "talvoro-vcam: " << error << "\n";
        return 127;
    }
    const std::string others = otherPreloads();
    return run.execute(argv + i,
                       preload + ":" + kUmockdevPreload + (others.empty() ? "" : ":" + others));
}
