#include "Testbed.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <umockdev.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace vcam {

namespace {

constexpr int kVideoMajor = 81;
constexpr int kHidrawMajor = 243;

std::vector<const char*> cstrings(const std::vector<std::string>& v) {
    std::vector<const char*> out;
    for (const auto& s : v)
        out.push_back(s.c_str());
    out.push_back(nullptr);
    return out;
}

std::string devnum(int major, int minor) {
    return std::to_string(major) + ":" + std::to_string(minor);
}

// uevent properties of a character device node.
std::vector<std::string> nodeProperties(const std::string& name, int major, int minor) {
    return {"DEVNAME", "/dev/" + name,       "MAJOR", std::to_string(major),
            "MINOR",   std::to_string(minor)};
}

std::string canonical(const std::string& path) {
    char* real = realpath(path.c_str(), nullptr);
    if (!real) return "";
    std::string out = real;
    std::free(real);
    return out;
}

std::vector<std::string> nodeNames(const CameraSpec& cam) {
    return {"video" + std::to_string(cam.video), "video" + std::to_string(cam.meta),
            "hidraw" + std::to_string(cam.hidraw), "hidraw" + std::to_string(cam.hidrawImu)};
}

}  // namespace

Testbed::Testbed() {
    testbed_ = umockdev_testbed_new();
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    root_ = root;
    g_free(root);
}

Testbed::~Testbed() {
    if (testbed_) g_object_unref(testbed_);
}

std::string Testbed::addDevice(const char* subsystem, const std::string& name,
                               const std::string& parent,
                               const std::vector<std::string>& attributes,
                               const std::vector<std::string>& properties) {
    auto attrs = cstrings(attributes);
    auto props = cstrings(properties);
    gchar* path = umockdev_testbed_add_devicev(
        testbed_, subsystem, name.c_str(), parent.empty() ? nullptr : parent.c_str(),
        const_cast<gchar**>(attrs.data()), const_cast<gchar**>(props.data()));
    std::string result = path ? path : "";
    g_free(path);
    if (result.empty() && error_.empty()) error_ = "umockdev could not add " + name;
    return result;
}

// umockdev records the node's numbers but leaves the /dev file to us; its stat() then reports
// a character device.
bool Testbed::addDevNode(const std::string& name, std::string* error) {
    mkdir((root_ + "/dev").c_str(), 0755);
    const std::string path = root_ + "/dev/" + name;
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
    if (fd < 0) {
        *error = "cannot create " + path;
        return false;
    }
    ::close(fd);
    return true;
}

void Testbed::addCamera(const CameraSpec& cam) {
    std::vector<std::string>& added = devices_[cam.serial];
    added.clear();
    auto add = [&](const char* subsystem, const std::string& name, const std::string& parent,
                   const std::vector<std::string>& attributes,
                   const std::vector<std::string>& properties) {
        added.push_back(addDevice(subsystem, name, parent, attributes, properties));
        return added.back();
    };
    std::vector<std::string> usbAttrs = {
        "idVendor",     cam.vendorId, "idProduct",    cam.productId,
        "manufacturer", "Talvoro",    "bcdDevice",    "0110",
        "busnum",       "1",          "devnum",       std::to_string(++usbDevices_),
        "speed",        "5000",       "bDeviceClass", "ef"};
    if (!cam.omits("serial")) usbAttrs.insert(usbAttrs.end(), {"serial", cam.serial});
    if (!cam.omits("product")) usbAttrs.insert(usbAttrs.end(), {"product", cam.product});
    const std::string usb =
        add("usb", cam.usbPort, hub_, usbAttrs,
            {"DEVTYPE", "usb_device", "PRODUCT", cam.vendorId + "/" + cam.productId + "/110"});

    // Interface 0 (video control) carries both video nodes, as with uvcvideo.
    const std::string vc =
        add("usb", cam.usbPort + ":1.0", usb,
            {"bInterfaceClass", "0e", "bInterfaceSubClass", "01", "bInterfaceNumber", "00"},
            {"DEVTYPE", "usb_interface", "DRIVER", "uvcvideo"});
    for (int node : {cam.video, cam.meta}) {
        const std::string name = "video" + std::to_string(node);
        // udev's usb_id names the USB device in a video node's properties, so that even a
        // "remove", when sysfs is gone, tells which camera left.
        std::vector<std::string> properties = nodeProperties(name, kVideoMajor, node);
        properties.insert(properties.end(),
                          {"ID_VENDOR_ID", cam.vendorId, "ID_MODEL_ID", cam.productId,
                           "ID_V4L_CAPABILITIES", node == cam.video ? ":capture:" : ":"});
        if (!cam.omits("serial"))
            properties.insert(properties.end(), {"ID_SERIAL_SHORT", cam.serial});
        add("video4linux", "video4linux/" + name, vc,
            {"name", cam.product, "index", node == cam.video ? "0" : "1", "dev",
             devnum(kVideoMajor, node)},
            properties);
    }

    // Two HID interfaces: the command interface and the IMU interface.
    const int hidNodes[2] = {cam.hidraw, cam.hidrawImu};
    for (int i = 0; i < 2; ++i) {
        const std::string intf =
            add("usb", cam.usbPort + ":1." + std::to_string(3 + i), usb,
                {"bInterfaceClass", "03", "bInterfaceNumber", "0" + std::to_string(3 + i)},
                {"DEVTYPE", "usb_interface", "DRIVER", "usbhid"});
        char hidName[32];
        std::snprintf(hidName, sizeof hidName, "0003:7E91:A05C.%04X", ++hidDevices_);
        const std::string hid = add("hid", hidName, intf, {},
                                    {"HID_ID", "0003:00007E91:0000A05C", "DRIVER", "hid-generic"});
        const std::string name = "hidraw" + std::to_string(hidNodes[i]);
        add("hidraw", "hidraw/" + name, hid, {"dev", devnum(kHidrawMajor, hidNodes[i])},
            nodeProperties(name, kHidrawMajor, hidNodes[i]));
    }
}

void Testbed::addNode(const NodeSpec& node, int index) {
    const std::string name = "video" + std::to_string(node.video);
    std::string parent;
    if (node.type == "platform") {
        parent = addDevice("platform", "platform/talvoro-platform-cam." + std::to_string(index), "",
                           {}, {"DRIVER", "platform-cam"});
    } else {
        const std::string port = "1-" + std::to_string(20 + index);
        const std::string usb = addDevice("usb", port, hub_,
                                          {"idVendor", "046d", "idProduct", "0825", "product",
                                           "USB Webcam", "serial", "OTHER" + std::to_string(index)},
                                          {"DEVTYPE", "usb_device"});
        parent = addDevice("usb", port + ":1.0", usb, {"bInterfaceClass", "0e"},
                           {"DEVTYPE", "usb_interface"});
    }
    addDevice("video4linux", "video4linux/" + name, parent,
              {"name", "Other Camera", "index", "0", "dev", devnum(kVideoMajor, node.video)},
              nodeProperties(name, kVideoMajor, node.video));
}

bool Testbed::build(const Scenario& scenario, std::string* error) {
    const std::string pci = addDevice("pci", "pci0000:00/0000:00:14.0", "",
                                      {"vendor", "0x8086", "device", "0xa36d"}, {});
    hub_ = addDevice("usb", "usb1", pci,
                     {"idVendor", "1d6b", "idProduct", "0003", "product", "xHCI Host Controller"},
                     {"DEVTYPE", "usb_device"});
    for (const auto& cam : scenario.cameras)
        if (cam.plugged && !plug(cam, error)) return false;
    for (std::size_t i = 0; i < scenario.nodes.size(); ++i) {
        addNode(scenario.nodes[i], static_cast<int>(i));
        if (!addDevNode("video" + std::to_string(scenario.nodes[i].video), error)) return false;
    }
    if (!error_.empty()) {
        *error = error_;
        return false;
    }
    return true;
}

bool Testbed::plug(const CameraSpec& cam, std::string* error) {
    // The nodes exist before anyone hears of the camera, so that an application can open them
    // as soon as the "add" arrives.
    for (const auto& node : nodeNames(cam))
        if (!addDevNode(node, error)) return false;
    error_.clear();
    addCamera(cam);
    if (!error_.empty()) {
        *error = error_;
        return false;
    }
    return true;
}

// Unlinks every symbolic link in `dir` that leads into the device directory `device`.
void Testbed::removeLinksInto(const std::string& dir, const std::string& device) {
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

void Testbed::withdraw(const CameraSpec& cam) {
    auto it = devices_.find(cam.serial);
    if (it == devices_.end() || it->second.empty()) return;
    for (const auto& node : nodeNames(cam))
        unlink((root_ + "/dev/" + node).c_str());
    const std::string usb = canonical(root_ + it->second.front());
    if (usb.empty()) return;
    for (const char* dir : {"/sys/bus/usb/devices", "/sys/bus/hid/devices",
                            "/sys/class/video4linux", "/sys/class/hidraw", "/sys/dev/char"})
        removeLinksInto(root_ + dir, usb);
}

void Testbed::remove(const CameraSpec& cam) {
    auto it = devices_.find(cam.serial);
    if (it == devices_.end()) return;
    const std::vector<std::string> added = std::move(it->second);
    devices_.erase(it);
    if (added.empty()) return;
    for (auto device = added.rbegin(); device != added.rend(); ++device)
        umockdev_testbed_uevent(testbed_, device->c_str(), "remove");
    umockdev_testbed_remove_device(testbed_, added.front().c_str());
    // umockdev forgets a node's numbers only with its /dev entry, which withdraw() took away;
    // a later camera on the same node number must find the name free.
    for (const auto& node : nodeNames(cam))
        unlink((root_ + "/dev/.node/" + node).c_str());
}

}  // namespace vcam
