// The library for the length of one command: initialised on construction, every camera closed
// and the library deinitialised on destruction, also when a command ends with an error.
//
// Opening a camera writes its calibration files (and, with logging on, the log) into the working
// directory. The session works in a scratch directory of its own, so that a command leaves no
// files behind; paths from the command line must be made absolute before (absolutePath).
#ifndef TALVORO_TOOL_SESSION_H
#define TALVORO_TOOL_SESSION_H

#include <string>
#include <vector>

#include "Cli.h"
#include "TalvoroSDK.h"

namespace talvoro_tool {

// A temporary working directory, left (and removed with its contents) on destruction.
class ScratchDirectory {
  public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  private:
    std::string path_;
    int previous_ = -1;  // descriptor of the directory to return to
};

class Session {
  public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The connected cameras, in device order; empty when there is none.
    std::vector<Talvoro::DeviceInfo> cameras();
    // The camera with this serial; throws naming the connected ones when there is none.
    Talvoro::DeviceInfo find(const std::string& serial);
    // Opens the camera; the result code when it cannot be opened.
    int tryOpen(const Talvoro::DeviceInfo& info, Talvoro::DeviceHandle* handle);
    // Opens the camera or throws.
    Talvoro::DeviceHandle open(const Talvoro::DeviceInfo& info);
    Talvoro::DeviceHandle open(const std::string& serial) { return open(find(serial)); }

  private:
    ScratchDirectory scratch_;
    std::vector<Talvoro::DeviceHandle> opened_;
};

// The camera's current data mode; throws when it cannot be read.
Talvoro::DataMode currentDataMode(const Talvoro::DeviceHandle& camera);
// Takes --mode N from the command line: the data mode to switch to, or -1 when not given.
int takeModeOption(Args& args);
// Switches the camera to `requested` (nothing happens for -1, or when it streams in that mode
// already) and returns its data mode then; throws.
Talvoro::DataMode useDataMode(const Talvoro::DeviceHandle& camera, int requested);

}  // namespace talvoro_tool

#endif
