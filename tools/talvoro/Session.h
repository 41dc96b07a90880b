// The library for the length of one command: initialised on construction, every camera closed
// and the library deinitialised on destruction, also when a command ends with an error.
//
// Opening a camera makes the library write the camera's calibration files and read them back.
// They go into the directory TALVORO_DATA_DIR names, which the session sets to the per-user
// cache directory (unless it is set already), so that a command leaves no files in the working
// directory.
#ifndef TALVORO_TOOL_SESSION_H
#define TALVORO_TOOL_SESSION_H

#include <string>
#include <vector>

#include "Cli.h"
#include "Command.h"
#include "TalvoroSDK.h"

namespace talvoro_tool {

// The library's data directory for this process: TALVORO_DATA_DIR as given, or else
// $XDG_CACHE_HOME/talvoro (~/.cache/talvoro), created and exported. Throws when it cannot be made.
std::string useDataDirectory();

class Session {
  public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // One connected camera as the library describes it, by device index.
    struct Camera {
        unsigned index = 0;
        int result = 0;  // of GetDeviceInfo; the record is valid when it is Ok
        Talvoro::DeviceInfo info{};
    };
    // The connected cameras, in device order; empty when there is none. Each is asked for on
    // its own, so that one the library cannot describe does not hide the others.
    std::vector<Camera> scan();
    // The cameras the library can describe, in device order.
    std::vector<Talvoro::DeviceInfo> cameras();
    // The camera with this serial; throws naming the connected ones when there is none.
    Talvoro::DeviceInfo find(const std::string& serial);
    // Opens the camera; the result code when it cannot be opened.
    int tryOpen(const Talvoro::DeviceInfo& info, Talvoro::DeviceHandle* handle);
    // Opens the camera or throws.
    Talvoro::DeviceHandle open(const Talvoro::DeviceInfo& info);
    Talvoro::DeviceHandle open(const std::string& serial) { return open(find(serial)); }

  private:
    std::string dataDir_;
    std::vector<Talvoro::DeviceHandle> opened_;
};

// The camera's current data mode; throws when it cannot be read.
Talvoro::DataMode currentDataMode(const Talvoro::DeviceHandle& camera);
// --mode N, for the help of the commands that take it.
OptionSpec modeOption();
// --frames K with its default, for the help.
OptionSpec framesOption(const char* help);
// Takes --mode N from the command line: the data mode to switch to, or -1 when not given.
int takeModeOption(Args& args);
// A camera that plays a recording under `talvoro replay`: frames of other data modes would come
// from the virtual camera's synthetic scene instead, so the commands keep to the recorded ones.
// replay hands the description to the commands COMMAND runs in the environment.
struct ReplayedCamera {
    std::string serial;
    std::vector<int> modes;  // the data modes the recording holds frames of
    std::string file;
};
void setReplayedCamera(const ReplayedCamera& camera);
// The data mode a command streams camera `serial` in: `requested` (-1: as the camera is), or
// for a replayed camera the recorded one; a usage error when the recording has no frames of
// the requested mode.
int modeFor(const std::string& serial, int requested);

// Switches the camera to `requested` (nothing happens for -1, or when it streams in that mode
// already) and returns its data mode then; throws.
Talvoro::DataMode useDataMode(const Talvoro::DeviceHandle& camera, int requested);

}  // namespace talvoro_tool

#endif
