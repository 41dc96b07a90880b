// The virtual cameras of this process, built from the launcher's scenario on first use and kept
// in step with the cameras the launcher plugs in and unplugs while the run goes on.
#ifndef TALVORO_VCAM_WORLD_H
#define TALVORO_VCAM_WORLD_H

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Node.h"
#include "RunState.h"
#include "Scenario.h"

namespace vcam {

class Camera;

class World {
  public:
    // The world of this process, or null when it does not run under the launcher.
    static World* get();

    // Catches up with the plugs and unplugs of the run: a camera unplugged since is
    // disconnected here (its descriptors fail, its waiters wake), one plugged in appears with
    // its new nodes. One load of the run's plug counter while nothing changed. The caller
    // holds no lock of a camera's.
    void sync();

    // The emulated node for a /dev path ("/dev/video2") of a camera plugged in now or of an
    // extra node, or null.
    std::shared_ptr<Node> find(const std::string& devPath);
    // The camera with `serial` as it is now, or as it was when it was last unplugged; null
    // when the run has no such camera.
    std::shared_ptr<Camera> cameraBySerial(const std::string& serial);
    // The number of cameras plugged in.
    int pluggedCount();
    // The wire trace file of the run ("" without one).
    const std::string& tracePath() const { return trace_; }

  private:
    World(std::string scenarioPath, const Scenario& scenario);
    // Takes on the run's cameras as `scenario` describes them; returns the cameras of this
    // process that are gone since.
    std::vector<std::shared_ptr<Camera>> adopt(const Scenario& scenario);
    static void prepareFork();
    static void parentAfterFork();
    static void childAfterFork();

    const std::string scenarioPath_;
    std::string trace_;
    run::PlugCounter counter_;
    std::atomic<uint64_t> seen_{0};
    // reloadMutex_ serialises reloads, which build cameras; mutex_ guards the maps below and is
    // held for nothing but reading or replacing them.
    std::mutex reloadMutex_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<Camera>> cameras_;  // the latest of each serial, in scenario order
    std::map<std::string, std::shared_ptr<Node>> nodes_;
    std::map<std::string, std::shared_ptr<Node>> extraNodes_;
};

// World::get()->sync() when there is a world.
void syncWorld();

// Maps an application path to "/dev/<name>" when it names a device node (also inside the
// umockdev testbed); returns false for every other path, cheaply.
bool deviceNodePath(const char* path, std::string* devPath);

}  // namespace vcam

#endif
