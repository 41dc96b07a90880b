// What the virtual camera presents: cameras, extra video nodes and global options.
// Shared by the launcher (which builds the sysfs tree) and the preload (which emulates the nodes).
#ifndef TALVORO_VCAM_SCENARIO_H
#define TALVORO_VCAM_SCENARIO_H

#include <map>
#include <string>
#include <vector>

#include "FirmwareSpec.h"

namespace vcam {

// One fault: "NAME", "NAME:ARG", "NAME@FRAME" or "NAME:ARG@FRAME" (see docs/vcam.md).
struct FaultSpec {
    std::string name;
    std::string arg;   // meaning depends on the fault; empty when not given
    long atFrame = 0;  // the fault starts with this frame (0: from the start)
};

// Parses a fault; fails on unknown names and malformed text.
bool parseFault(const std::string& text, FaultSpec* fault, std::string* error);
// The fault names the virtual camera knows.
const std::vector<std::string>& knownFaults();

struct CameraSpec {
    std::string serial;  // USB serial number
    std::string product = "Talvoro Depth Camera";
    std::string vendorId = "7e91";
    std::string productId = "a05c";
    std::vector<std::string> omit;    // sysfs attributes left out: serial, product
    int video = -1;                   // capture node number (-1: assigned)
    int meta = -1;                    // metadata node number (-1: assigned)
    int hidraw = -1;                  // HID command node number (-1: assigned)
    int hidrawImu = -1;               // HID IMU node number (-1: assigned)
    std::string usbPort;              // e.g. "1-2" (empty: assigned)
    double fps = 0;                   // 0: the scenario's frame rate
    std::string replay;               // recording to play instead of the synthetic scene
    std::vector<std::string> faults;  // fault specifications, see docs/vcam.md
    FirmwareSpec firmware;            // identity, board data and calibration blobs
    long seed = -1;                   // sensor noise seed (-1: from the scenario's seed and serial)
    std::string scene;                // "moving" or "still" (empty: the scenario's)
    bool plugged = true;              // false: known to the run, not plugged in (yet, or now)
    int replugs = 0;                  // times the launcher plugged it back in during the run

    // Name of this incarnation's state files in the run's state directory: the serial, and a
    // replugged camera starts afresh under "SERIAL@N".
    std::string stateName() const;

    bool omits(const std::string& attribute) const;
};

// A video node that is not one of our cameras.
struct NodeSpec {
    std::string type = "platform";  // "platform": non-USB capture node; "usb-other": another
                                    // vendor's USB camera
    int video = -1;
};

struct Scenario {
    double fps = 30;
    long seed = 1;                 // the run's noise seed, from which each camera's is drawn
    std::string scene = "moving";  // what cameras without their own show
    std::string trace;             // wire trace file (empty: off)
    std::vector<CameraSpec> cameras;
    std::vector<NodeSpec> nodes;

    // Assigns node numbers, serials and USB ports left open; fails on clashes.
    bool resolve(std::string* error);
    // Gives camera `index` the lowest node numbers that no camera or node of the scenario holds,
    // its own included, as the kernel numbers a camera plugged back while the old nodes are
    // still open. False, the camera unchanged, when the numbers run out.
    bool renumber(std::size_t index, std::string* error);
    // The camera with `serial`, or null.
    CameraSpec* camera(const std::string& serial);

    // The scenario file format (documented in docs/vcam.md). parse() appends to this scenario.
    bool parse(const std::string& text, std::string* error);
    std::string serialize() const;

    // Command-line forms: "--camera key=value,key=value" and "--node key=value,...".
    bool addCameraFromOptions(const std::string& options, std::string* error);
    bool addNodeFromOptions(const std::string& options, std::string* error);
};

// Reads a scenario file (parse + resolve).
bool loadScenarioFile(const std::string& path, Scenario* scenario, std::string* error);

}  // namespace vcam

#endif
