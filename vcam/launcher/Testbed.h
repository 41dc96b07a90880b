// The sysfs/udev tree of a scenario, built with umockdev.
#ifndef TALVORO_VCAM_TESTBED_H
#define TALVORO_VCAM_TESTBED_H

#include <string>

#include "Scenario.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace vcam {

class Testbed {
  public:
    Testbed();
    ~Testbed();  // removes the tree
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // Adds every camera and extra node of the (resolved) scenario.
    bool build(const Scenario& scenario, std::string* error);

    // The testbed root ($UMOCKDEV_DIR).
    const std::string& root() const { return root_; }

  private:
    std::string addDevice(const char* subsystem, const std::string& name, const std::string& parent,
                          const std::vector<std::string>& attributes,
                          const std::vector<std::string>& properties);
    bool addDevNode(const std::string& name, std::string* error);
    void addCamera(const CameraSpec& cam, const std::string& hub, int index);
    void addNode(const NodeSpec& node, const std::string& hub, int index);

    UMockdevTestbed* testbed_ = nullptr;
    std::string root_;
    std::string error_;
};

}  // namespace vcam

#endif
