#include "World.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "Camera.h"
#include "HidNode.h"
#include "Hotplug.h"
#include "VideoNode.h"

namespace vcam {

World* World::get() {
    static World* world = nullptr;
    static std::once_flag once;
    std::call_once(once, [] {
        const char* path = std::getenv("TALVORO_VCAM_SCENARIO");
        if (!path) return;
        Scenario scenario;
        std::string error;
        if (!loadScenarioFile(path, &scenario, &error)) return;
        world = new World(std::move(scenario));  // lives as long as the process
    });
    return world;
}

World::World(Scenario scenario) : scenario_(std::move(scenario)) {
    for (const auto& spec : scenario_.cameras) {
        auto cam = std::make_shared<Camera>(spec);
        // An earlier process of this run may have unplugged it.
        if (!presentInTestbed(spec)) cam->state.unplugged = true;
        const std::string video = "/dev/video";
        cam->capture = std::make_shared<VideoNode>(video + std::to_string(spec.video),
                                                   VideoNode::Kind::Capture, cam);
        cam->metadata = std::make_shared<VideoNode>(video + std::to_string(spec.meta),
                                                    VideoNode::Kind::Metadata, cam);
        cam->hidCommand = std::make_shared<HidNode>("/dev/hidraw" + std::to_string(spec.hidraw),
                                                    HidNode::Kind::Command, cam);
        cam->hidImu = std::make_shared<HidNode>("/dev/hidraw" + std::to_string(spec.hidrawImu),
                                                HidNode::Kind::Imu, cam);
        for (const std::shared_ptr<Node>& n : std::initializer_list<std::shared_ptr<Node>>{
                 cam->capture, cam->metadata, cam->hidCommand, cam->hidImu}) {
            n->setGoneFlag(&cam->state.unplugged);
            nodes_[n->devPath()] = n;
        }
        cameras_.push_back(cam);
    }
    for (const auto& spec : scenario_.nodes) {
        const auto kind =
            spec.type == "platform" ? VideoNode::Kind::Platform : VideoNode::Kind::OtherUsb;
        auto node =
            std::make_shared<VideoNode>("/dev/video" + std::to_string(spec.video), kind, nullptr);
        nodes_[node->devPath()] = node;
    }
}

std::shared_ptr<Node> World::find(const std::string& devPath) const {
    auto it = nodes_.find(devPath);
    return it == nodes_.end() ? nullptr : it->second;
}

std::shared_ptr<Camera> World::cameraBySerial(const std::string& serial) const {
    for (const auto& c : cameras_)
        if (c->spec().serial == serial) return c;
    return nullptr;
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
