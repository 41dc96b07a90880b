// The virtual cameras of this process, built from the launcher's scenario on first use.
#ifndef TALVORO_VCAM_WORLD_H
#define TALVORO_VCAM_WORLD_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Node.h"
#include "Scenario.h"

namespace vcam {

class Camera;

class World {
  public:
    // The world of this process, or null when it does not run under the launcher.
    static World* get();

    // The emulated node for a /dev path ("/dev/video2"), or null.
    std::shared_ptr<Node> find(const std::string& devPath) const;

    const Scenario& scenario() const { return scenario_; }
    const std::vector<std::shared_ptr<Camera>>& cameras() const { return cameras_; }
    std::shared_ptr<Camera> cameraBySerial(const std::string& serial) const;

  private:
    explicit World(Scenario scenario);

    Scenario scenario_;
    std::vector<std::shared_ptr<Camera>> cameras_;
    std::map<std::string, std::shared_ptr<Node>> nodes_;
};

// Maps an application path to "/dev/<name>" when it names a device node (also inside the
// umockdev testbed); returns false for every other path, cheaply.
bool deviceNodePath(const char* path, std::string* devPath);

}  // namespace vcam

#endif
