#include "Session.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "Cli.h"

namespace talvoro_tool {

using namespace Talvoro;

ScratchDirectory::ScratchDirectory() {
    std::error_code ec;
    std::string pattern = (std::filesystem::temp_directory_path(ec) / "talvoro-XXXXXX").string();
    if (ec) pattern = "/tmp/talvoro-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        const int err = errno;
        throw ToolError("cannot create a scratch directory: " + std::string(std::strerror(err)));
    }
    path_ = pattern;
    previous_ = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (previous_ < 0 || ::chdir(path_.c_str()) != 0) {
        const int err = errno;
        if (previous_ >= 0) ::close(previous_);
        std::filesystem::remove_all(path_, ec);
        throw ToolError("cannot enter a scratch directory: " + std::string(std::strerror(err)));
    }
}

ScratchDirectory::~ScratchDirectory() {
    // Nothing to do about a failure here: the directory is only left behind.
    if (::fchdir(previous_) != 0) {
    }
    ::close(previous_);
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

Session::Session() {
    // The tool reports failures itself; the library's log would only land in the scratch
    // directory.
    SetLogging(0);
    const int result = Initialize();
    if (result != Ok)
        throw ToolError("cannot initialise the library: " + resultText(result) +
                        " (is udev available?)");
}

Session::~Session() {
    for (const DeviceHandle& handle : opened_)
        CloseDevice(handle);
    DeInitialize();
}

std::vector<DeviceInfo> Session::cameras() {
    uint32_t count = 0;
    const int result = GetDeviceCount(&count);
    if (result == NoDeviceConnected || (result == Ok && count == 0)) return {};
    check(result, "GetDeviceCount");
    std::vector<DeviceInfo> list(count);
    check(GetDeviceListInfo(count, list.data()), "GetDeviceListInfo");
    return list;
}

DeviceInfo Session::find(const std::string& serial) {
    const std::vector<DeviceInfo> list = cameras();
    std::string known;
    for (const DeviceInfo& info : list) {
        if (serial == info.serialNo) return info;
        known += (known.empty() ? "" : ", ") + std::string(info.serialNo);
    }
    if (list.empty()) throw ToolError("no camera with serial '" + serial + "': none connected");
    throw ToolError("no camera with serial '" + serial + "' (connected: " + known + ")");
}

int Session::tryOpen(const DeviceInfo& info, DeviceHandle* handle) {
    const int result = OpenDevice(info, handle);
    if (result != Ok) return result;
    opened_.push_back(*handle);
    // An open that lost the camera half-way reports Ok but leaves it closed.
    const int state = IsOpened(*handle);
    return state == CameraAlreadyOpen ? Ok : state;
}

DeviceHandle Session::open(const DeviceInfo& info) {
    DeviceHandle handle{};
    const int result = tryOpen(info, &handle);
    if (result != Ok)
        throw ToolError("cannot open camera " + std::string(info.serialNo) + ": " +
                        resultText(result) + " (is it in use by another program?)");
    return handle;
}

DataMode currentDataMode(const DeviceHandle& camera) {
    DataMode mode = No_Image_Mode;
    check(GetDataMode(camera, &mode), "GetDataMode");
    return mode;
}

int takeModeOption(Args& args) {
    const std::optional<std::string> mode = args.option("mode");
    return mode ? static_cast<int>(parseNumber(*mode, 0, 9, "--mode")) : -1;
}

DataMode useDataMode(const DeviceHandle& camera, int requested) {
    if (requested >= 0)
        check(SetDataMode(camera, static_cast<DataMode>(requested)),
              "SetDataMode(" + std::to_string(requested) + ")");
    return currentDataMode(camera);
}

}  // namespace talvoro_tool
