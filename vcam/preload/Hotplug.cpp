#include "Hotplug.h"

#include <dirent.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace vcam {

namespace {

std::string testbedRoot() {
    const char* root = std::getenv("UMOCKDEV_DIR");
    return root ? root : "";
}

std::string canonical(const std::string& path) {
    char* real = realpath(path.c_str(), nullptr);
    if (!real) return "";
    std::string out = real;
    std::free(real);
    return out;
}

// Unlinks every symbolic link in `dir` that leads into the device directory `device`.
void removeLinksInto(const std::string& dir, const std::string& device) {
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> doomed;
    while (const dirent* e = readdir(d)) {
        const std::string path = dir + "/" + e->d_name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) continue;
        const std::string target = canonical(path);
        if (target == device || target.compare(0, device.size() + 1, device + "/") == 0)
            doomed.push_back(path);
    }
    closedir(d);
    for (const auto& path : doomed)
        unlink(path.c_str());
}

int removeEntry(const char* path, const struct stat*, int, FTW*) {
    std::remove(path);
    return 0;
}

void removeDevice(const CameraSpec& camera) {
    const std::string root = testbedRoot();
    if (root.empty()) return;
    const std::string device = canonical(root + "/sys/bus/usb/devices/" + camera.usbPort);
    if (!device.empty()) {
        for (const char* dir : {"/sys/bus/usb/devices", "/sys/bus/hid/devices",
                                "/sys/class/video4linux", "/sys/class/hidraw", "/sys/dev/char"})
            removeLinksInto(root + dir, device);
        nftw(device.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    const std::string nodes[] = {
        "video" + std::to_string(camera.video), "video" + std::to_string(camera.meta),
        "hidraw" + std::to_string(camera.hidraw), "hidraw" + std::to_string(camera.hidrawImu)};
    for (const auto& node : nodes) {
        unlink((root + "/dev/" + node).c_str());
        unlink((root + "/dev/.node/" + node).c_str());
    }
}

}  // namespace

void removeFromTestbed(const CameraSpec& camera) {
    try {
        removeDevice(camera);
    } catch (...) {
        // Best effort: the nodes refuse to open all the same.
    }
}

bool presentInTestbed(const CameraSpec& camera) {
    const std::string root = testbedRoot();
    struct stat st;
    return root.empty() ||
           lstat((root + "/sys/bus/usb/devices/" + camera.usbPort).c_str(), &st) == 0;
}

}  // namespace vcam
