// What the system itself tells about the Talvoro cameras, found with udev the way the library
// finds them, so that the tool can explain in words what the library reports only as a code: a
// camera on a node the library cannot reach, a capture node that keeps the library from
// initialising, a camera without a serial number, a node the user may not open.
#ifndef TALVORO_TOOL_SYSTEM_SCAN_H
#define TALVORO_TOOL_SYSTEM_SCAN_H

#include <optional>
#include <string>
#include <vector>

namespace talvoro_tool {

struct CameraNode {
    int number = -1;                     // N of /dev/videoN, the camera's capture node
    std::string devnode;                 // "/dev/videoN"
    std::optional<std::string> serial;   // the USB device's, when it has one
    std::optional<std::string> product;  // likewise
    std::vector<std::string> hidraw;     // the hidraw nodes of the same USB device
};

struct SystemScan {
    // The cameras' capture nodes by node number: entry i is the camera the library numbers i.
    std::vector<CameraNode> cameras;
    // Capture nodes without a USB parent (a platform camera): with one present the library
    // cannot initialise.
    std::vector<std::string> platformNodes;
};

SystemScan scanSystem();

// Why the library cannot describe or reach `camera`, in words; empty when nothing is wrong
// with it that the system shows.
std::string cameraProblem(const CameraNode& camera);

// The first of the camera's nodes the user may not open, with the reason, as
// "permission denied on /dev/hidraw3"; empty when every node opens (or the reason is another).
std::string permissionProblem(const CameraNode& camera);

// What to do about a permission problem.
extern const char kUdevRuleHint[];

}  // namespace talvoro_tool

#endif
