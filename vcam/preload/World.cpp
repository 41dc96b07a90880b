#include "World.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "Camera.h"
#include "HidNode.h"
#include "VideoNode.h"

namespace vcam {

namespace {

World* g_world = nullptr;  // lives as long as the process

std::shared_ptr<Camera> makeCamera(const CameraSpec& spec) {
    auto cam = std::make_shared<Camera>(spec);
    // A camera the run knows but has not plugged in is there only for its serial's sake.
    if (!spec.plugged) cam->state.unplugged = true;
    const std::string video = "/dev/video";
    cam->capture = std::make_shared<VideoNode>(video + std::to_string(spec.video),
                                               VideoNode::Kind::Capture, cam);
    cam->metadata = std::make_shared<VideoNode>(video + std::to_string(spec.meta),
                                                VideoNode::Kind::Metadata, cam);
    cam->hidCommand = std::make_shared<HidNode>("/dev/hidraw" + std::to_string(spec.hidraw),
                                                HidNode::Kind::Command, cam);
    cam->hidImu = std::make_shared<HidNode>("/dev/hidraw" + std::to_string(spec.hidrawImu),
                                            HidNode::Kind::Imu, cam);
    for (Node* n : cam->nodes())
        n->setGoneFlag(&cam->state.unplugged);
    return cam;
}

}  // namespace

World* World::get() {
    static std::once_flag once;
    std::call_once(once, [] {
        const char* path = std::getenv("TALVORO_VCAM_SCENARIO");
        if (!path) return;
        Scenario scenario;
        std::string error;
        if (!loadScenarioFile(path, &scenario, &error)) return;
        g_world = new World(path, scenario);
        pthread_atfork(prepareFork, parentAfterFork, childAfterFork);
    });
    return g_world;
}

World::World(std::string scenarioPath, const Scenario& scenario)
    : scenarioPath_(std::move(scenarioPath)), trace_(scenario.trace) {
    const std::string dir = run::stateDir();
    if (!dir.empty()) counter_.map(dir, false);
    seen_ = counter_.value();
    for (const auto& spec : scenario.nodes) {
        const auto kind =
            spec.type == "platform" ? VideoNode::Kind::Platform : VideoNode::Kind::OtherUsb;
        auto node =
            std::make_shared<VideoNode>("/dev/video" + std::to_string(spec.video), kind, nullptr);
        extraNodes_[node->devPath()] = node;
    }
    adopt(scenario);
}

std::vector<std::shared_ptr<Camera>> World::adopt(const Scenario& scenario) {
    std::vector<std::shared_ptr<Camera>> cameras, gone;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        cameras = cameras_;
    }
    for (const auto& spec : scenario.cameras) {
        auto it = cameras.begin();
        while (it != cameras.end() && (*it)->spec().serial != spec.serial)
            ++it;
        if (it == cameras.end()) {
            cameras.push_back(makeCamera(spec));
            continue;
        }
        // The same incarnation stays unless it was unplugged; a camera plugged back in is a
        // new device.
        if ((*it)->spec().replugs == spec.replugs) {
            if (!spec.plugged) gone.push_back(*it);
            continue;
        }
        gone.push_back(*it);
        *it = makeCamera(spec);
    }
    std::map<std::string, std::shared_ptr<Node>> nodes = extraNodes_;
    for (const auto& cam : cameras) {
        if (cam->state.unplugged) continue;
        for (Node* n : cam->nodes())
            nodes[n->devPath()] = n->shared_from_this();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    cameras_ = std::move(cameras);
    nodes_ = std::move(nodes);
    return gone;
}

void World::sync() {
    if (counter_.value() == seen_.load(std::memory_order_relaxed)) return;
    std::vector<std::shared_ptr<Camera>> gone;
    {
        std::lock_guard<std::mutex> reload(reloadMutex_);
        // The counter before the file: a change in between makes the next sync read again.
        const uint64_t value = counter_.value();
        if (value == seen_.load()) return;
        Scenario scenario;
        std::string error;
        if (!loadScenarioFile(scenarioPath_, &scenario, &error)) return;
        gone = adopt(scenario);
        seen_ = value;
    }
    for (const auto& cam : gone)
        cam->disconnect();
}

std::shared_ptr<Node> World::find(const std::string& devPath) {
    sync();
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = nodes_.find(devPath);
    return it == nodes_.end() ? nullptr : it->second;
}

std::shared_ptr<Camera> World::cameraBySerial(const std::string& serial) {
    sync();
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& c : cameras_)
        if (c->spec().serial == serial) return c;
    return nullptr;
}

int World::pluggedCount() {
    sync();
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& c : cameras_)
        n += !c->state.unplugged;
    return n;
}

// The maps must not be copied into a child half replaced; a reload that a fork interrupts is
// done again by the child's next sync.
void World::prepareFork() {
    g_world->mutex_.lock();
}

void World::parentAfterFork() {
    g_world->mutex_.unlock();
}

void World::childAfterFork() {
    g_world->mutex_.unlock();
    new (&g_world->reloadMutex_) std::mutex;
}

void syncWorld() {
    if (World* world = World::get()) world->sync();
}

bool deviceNodePath(const char* path, std::string* devPath) {
    if (!path) return false;
    if (std::strncmp(path, "/dev/video", 10) == 0 || std::strncmp(path, "/dev/hidraw", 11) == 0) {
        *devPath = path;
        return true;
    }
    // umockdev's realpath() resolves /dev paths into its testbed; accept those too.
    static const char* root = std::getenv("UMOCKDEV_DIR");
    if (!root) return false;
    const std::size_t n = std::strlen(root);
    if (std::strncmp(path, root, n) != 0 || std::strncmp(path + n, "/dev/", 5) != 0) return false;
    *devPath = std::string(path + n);
    return devPath->compare(0, 10, "/dev/video") == 0 ||
           devPath->compare(0, 11, "/dev/hidraw") == 0;
}

}  // namespace vcam
