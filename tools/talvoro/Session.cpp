#include "Session.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "Cli.h"
#include "SystemScan.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

// Holds an exclusive lock on the data directory: the library writes the calibration files of
// the camera it opens and reads them back, and another talvoro process opening another camera
// at the same moment must not overwrite them in between. Without a lock file (a read-only
// directory) nothing is locked.
class DataDirectoryLock {
  public:
    explicit DataDirectoryLock(const std::string& dir)
        : fd_(::open((dir + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        if (fd_ >= 0)
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
    }
    ~DataDirectoryLock() {
        if (fd_ >= 0) ::close(fd_);
    }
    DataDirectoryLock(const DataDirectoryLock&) = delete;
    DataDirectoryLock& operator=(const DataDirectoryLock&) = delete;

  private:
    int fd_;
};

}  // namespace

std::string useDataDirectory() {
    if (const char* given = std::getenv("TALVORO_DATA_DIR"); given && *given) return given;
    std::string cache;
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && xdg[0] == '/') {
        cache = xdg;
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        cache = std::string(home) + "/.cache";
    } else {
        throw ToolError(
            "neither HOME nor XDG_CACHE_HOME is set: set TALVORO_DATA_DIR to the "
            "directory for the camera's calibration files");
    }
    const std::string dir = cache + "/talvoro";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec)
        throw ToolError("cannot create '" + dir + "': " + ec.message() +
                        " (set TALVORO_DATA_DIR to a writable directory)");
    ::setenv("TALVORO_DATA_DIR", dir.c_str(), 1);
    return dir;
}

Session::Session() : dataDir_(useDataDirectory()) {
    // The tool reports failures itself. Filtered, the library's messages do not even create an
    // empty log file in the data directory.
    SetLogging(0);
    SetLogLevel(3);
    const int result = Initialize();
    if (result == Ok) return;
    // The library refuses to start beside a capture node that has no USB parent.
    const SystemScan scan = scanSystem();
    if (!scan.platformNodes.empty())
        throw ToolError("cannot initialise the library: " + scan.platformNodes.front() +
                            " is a video capture node without a USB parent (a platform camera), "
                            "and while one is present the library finds no camera (see the user "
                            "guide)",
                        kExitFailure, result);
    throw ToolError(
        "cannot initialise the library: " + resultText(result) + " (is udev available?)",
        kExitFailure, result);
}

Session::~Session() {
    for (const DeviceHandle& handle : opened_)
        CloseDevice(handle);
    DeInitialize();
}

std::vector<Session::Camera> Session::scan() {
    uint32_t count = 0;
    const int result = GetDeviceCount(&count);
    if (result == NoDeviceConnected || (result == Ok && count == 0)) return {};
    check(result, "GetDeviceCount");
    std::vector<Camera> list(count);
    for (uint32_t i = 0; i < count; ++i) {
        list[i].index = i;
        list[i].result = GetDeviceInfo(i, &list[i].info);
    }
    return list;
}

std::vector<DeviceInfo> Session::cameras() {
    std::vector<DeviceInfo> described;
    for (const Camera& camera : scan())
        if (camera.result == Ok) described.push_back(camera.info);
    return described;
}

DeviceInfo Session::find(const std::string& serial) {
    const std::vector<Camera> list = scan();
    std::string known;
    for (const Camera& camera : list) {
        if (camera.result != Ok) continue;
        if (serial == camera.info.serialNo) return camera.info;
        known += (known.empty() ? "" : ", ") + std::string(camera.info.serialNo);
    }
    // A camera the library cannot reach or describe: say why.
    for (const CameraNode& node : scanSystem().cameras) {
        if (node.serial != serial) continue;
        std::string problem = cameraProblem(node);
        if (problem.empty() && !(problem = permissionProblem(node)).empty())
            problem += ": " + std::string(kUdevRuleHint);
        if (!problem.empty()) throw ToolError("cannot use camera " + serial + ": " + problem);
    }
    if (known.empty()) throw ToolError("no camera with serial '" + serial + "': none connected");
    throw ToolError("no camera with serial '" + serial + "' (connected: " + known + ")");
}

int Session::tryOpen(const DeviceInfo& info, DeviceHandle* handle) {
    const int result = [&] {
        const DataDirectoryLock lock(dataDir_);
        return OpenDevice(info, handle);
    }();
    if (result != Ok) return result;
    opened_.push_back(*handle);
    // An open that lost the camera half-way reports Ok but leaves it closed.
    const int state = IsOpened(*handle);
    return state == CameraAlreadyOpen ? Ok : state;
}

DeviceHandle Session::open(const DeviceInfo& info) {
    DeviceHandle handle{};
    const int result = tryOpen(info, &handle);
    if (result == Ok) return handle;
    const std::string serial = info.serialNo;
    for (const CameraNode& node : scanSystem().cameras) {
        if (node.serial != serial) continue;
        const std::string problem = permissionProblem(node);
        if (!problem.empty())
            throw ToolError("cannot open camera " + serial + ": " + problem + ": " + kUdevRuleHint,
                            kExitFailure, result);
    }
    throw ToolError("cannot open camera " + serial + ": " + resultText(result) +
                        " (is it in use by another program?)",
                    kExitFailure, result);
}

DataMode currentDataMode(const DeviceHandle& camera) {
    DataMode mode = No_Image_Mode;
    check(GetDataMode(camera, &mode), "GetDataMode");
    return mode;
}

OptionSpec modeOption() {
    return {"--mode", "N",
            "switch the camera to data mode N (0 to 9, see talvoro info) first; without it the "
            "camera streams in the data mode it is in",
            "0 1 2 3 4 5 6 7 8 9"};
}

OptionSpec framesOption(const char* help) {
    return {"--frames", "K", help, nullptr};
}

int takeModeOption(Args& args) {
    const std::optional<std::string> mode = args.option("mode");
    return mode ? static_cast<int>(parseNumber(*mode, 0, 9, "--mode")) : -1;
}

namespace {

constexpr char kReplayVariable[] = "TALVORO_REPLAY";

// "SERIAL:4,5:FILE" (the file last: it may hold ':').
std::optional<ReplayedCamera> replayedCamera() {
    const char* value = std::getenv(kReplayVariable);
    if (!value) return std::nullopt;
    const std::string text = value;
    const std::size_t first = text.find(':');
    const std::size_t second = first == std::string::npos ? first : text.find(':', first + 1);
    if (second == std::string::npos) return std::nullopt;
    ReplayedCamera camera{text.substr(0, first), {}, text.substr(second + 1)};
    const std::string modes = text.substr(first + 1, second - first - 1);
    for (std::size_t start = 0; start < modes.size();) {
        std::size_t end = modes.find(',', start);
        if (end == std::string::npos) end = modes.size();
        int64_t mode = 0;
        if (parseInteger(modes.substr(start, end - start), &mode))
            camera.modes.push_back(int(mode));
        start = end + 1;
    }
    return camera;
}

}  // namespace

void setReplayedCamera(const ReplayedCamera& camera) {
    std::string modes;
    for (int m : camera.modes)
        modes += (modes.empty() ? "" : ",") + std::to_string(m);
    ::setenv(kReplayVariable, (camera.serial + ":" + modes + ":" + camera.file).c_str(), 1);
}

int modeFor(const std::string& serial, int requested) {
    const std::optional<ReplayedCamera> replay = replayedCamera();
    if (!replay || replay->serial != serial || replay->modes.empty()) return requested;
    if (requested < 0) return replay->modes.front();
    for (int m : replay->modes)
        if (m == requested) return requested;
    std::string recorded;
    for (int m : replay->modes)
        recorded += (recorded.empty() ? "" : ", ") + std::to_string(m);
    usageError("camera " + serial + " plays " + replay->file +
               ", which holds frames of data mode " + recorded + " only: data mode " +
               std::to_string(requested) +
               " would stream the virtual camera's synthetic scene instead");
}

DataMode useDataMode(const DeviceHandle& camera, int requested) {
    if (requested >= 0)
        check(SetDataMode(camera, static_cast<DataMode>(requested)),
              "SetDataMode(" + std::to_string(requested) + ")");
    return currentDataMode(camera);
}

}  // namespace talvoro_tool
