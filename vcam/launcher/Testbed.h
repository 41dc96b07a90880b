// The sysfs/udev tree of a scenario, built with umockdev.
#ifndef TALVORO_VCAM_TESTBED_H
#define TALVORO_VCAM_TESTBED_H

#include <map>
#include <string>
#include <vector>

#include "Scenario.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace vcam {

class Testbed {
  public:
    Testbed();
    ~Testbed();  // removes the tree
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // Adds every camera that the (resolved) scenario has plugged in, and every extra node.
    bool build(const Scenario& scenario, std::string* error);

    // Plugs a camera in while the run goes on: its /dev entries first, then its devices from
    // the USB device down, each announced with an "add" uevent.
    bool plug(const CameraSpec& cam, std::string* error);
    // Unplugging comes in two steps. withdraw() takes the camera out of the lists udev scans
    // and out of /dev; remove() then announces each of its devices gone with a "remove"
    // uevent, children first, and deletes its sysfs tree (umockdev builds the uevents from it).
    void withdraw(const CameraSpec& cam);
    void remove(const CameraSpec& cam);

    // The testbed root ($UMOCKDEV_DIR).
    const std::string& root() const { return root_; }

  private:
    std::string addDevice(const char* subsystem, const std::string& name, const std::string& parent,
                          const std::vector<std::string>& attributes,
                          const std::vector<std::string>& properties);
    bool addDevNode(const std::string& name, std::string* error);
    void addCamera(const CameraSpec& cam);
    void addNode(const NodeSpec& node, int index);
    void removeLinksInto(const std::string& dir, const std::string& device);

    UMockdevTestbed* testbed_ = nullptr;
    std::string root_;
    std::string error_;
    std::string hub_;
    int usbDevices_ = 1;  // the host controller; the kernel numbers USB devices on from there
    int hidDevices_ = 0;  // HID devices ever added: their names count on as the kernel's do
    // Each plugged camera's sysfs devices, by serial, in the order they were added.
    std::map<std::string, std::vector<std::string>> devices_;
};

}  // namespace vcam

#endif
