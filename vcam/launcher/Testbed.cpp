#include "Testbed.h"

#include <fcntl.h>
#include <umockdev.h>
#include <unistd.h>

#include <cstdio>

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
    const std::string path = root_ + "/dev/" + name;
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
    if (fd < 0) {
        *error = "cannot create " + path;
        return false;
    }
    ::close(fd);
    return true;
}

void Testbed::addCamera(const CameraSpec& cam, const std::string& hub, int index) {
    std::vector<std::string> usbAttrs = {
        "idVendor",     cam.vendorId, "idProduct",    cam.productId,
        "manufacturer", "Talvoro",    "bcdDevice",    "0110",
        "busnum",       "1",          "devnum",       std::to_string(index + 2),
        "speed",        "5000",       "bDeviceClass", "ef"};
    if (!cam.omits("serial")) usbAttrs.insert(usbAttrs.end(), {"serial", cam.serial});
    if (!cam.omits("product")) usbAttrs.insert(usbAttrs.end(), {"product", cam.product});
    const std::string usb = addDevice(
        "usb", cam.usbPort, hub, usbAttrs,
        {"DEVTYPE", "usb_device", "PRODUCT", cam.vendorId + "/" + cam.productId + "/110"});

    // Interface 0 (video control) carries both video nodes, as with uvcvideo.
    const std::string vc =
        addDevice("usb", cam.usbPort + ":1.0", usb,
                  {"bInterfaceClass", "0e", "bInterfaceSubClass", "01", "bInterfaceNumber", "00"},
                  {"DEVTYPE", "usb_interface", "DRIVER", "uvcvideo"});
    for (int node : {cam.video, cam.meta}) {
        const std::string name = "video" + std::to_string(node);
        addDevice("video4linux", "video4linux/" + name, vc,
                  {"name", cam.product, "index", node == cam.video ? "0" : "1", "dev",
                   devnum(kVideoMajor, node)},
                  nodeProperties(name, kVideoMajor, node));
    }

    // Two HID interfaces: the command interface and the IMU interface.
    const int hidNodes[2] = {cam.hidraw, cam.hidrawImu};
    for (int i = 0; i < 2; ++i) {
        const std::string intf =
            addDevice("usb", cam.usbPort + ":1." + std::to_string(3 + i), usb,
                      {"bInterfaceClass", "03", "bInterfaceNumber", "0" + std::to_string(3 + i)},
                      {"DEVTYPE", "usb_interface", "DRIVER", "usbhid"});
        char hidName[32];
        std::snprintf(hidName, sizeof hidName, "0003:7E91:A05C.%04X", index * 2 + i + 1);
        const std::string hid =
            addDevice("hid", hidName, intf, {},
                      {"HID_ID", "0003:00007E91:0000A05C", "DRIVER", "hid-generic"});
        const std::string name = "hidraw" + std::to_string(hidNodes[i]);
        addDevice("hidraw", "hidraw/" + name, hid, {"dev", devnum(kHidrawMajor, hidNodes[i])},
                  nodeProperties(name, kHidrawMajor, hidNodes[i]));
    }
}

void Testbed::addNode(const NodeSpec& node, const std::string& hub, int index) {
    const std::string name = "video" + std::to_string(node.video);
    std::string parent;
    if (node.type == "platform") {
        parent = addDevice("platform", "platform/talvoro-platform-cam." + std::to_string(index), "",
                           {}, {"DRIVER", "platform-cam"});
    } else {
        const std::string port = "1-" + std::to_string(20 + index);
        const std::string usb = addDevice("usb", port, hub,
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
    const std::string hub =
        addDevice("usb", "usb1", pci,
                  {"idVendor", "1d6b", "idProduct", "0003", "product", "xHCI Host Controller"},
                  {"DEVTYPE", "usb_device"});
    for (std::size_t i = 0; i < scenario.cameras.size(); ++i)
        addCamera(scenario.cameras[i], hub, static_cast<int>(i));
    for (std::size_t i = 0; i < scenario.nodes.size(); ++i)
        addNode(scenario.nodes[i], hub, static_cast<int>(i));
    if (!error_.empty()) {
        *error = error_;
        return false;
    }
    for (const auto& c : scenario.cameras) {
        for (int n : {c.video, c.meta})
            if (!addDevNode("video" + std::to_string(n), error)) return false;
        for (int n : {c.hidraw, c.hidrawImu})
            if (!addDevNode("hidraw" + std::to_string(n), error)) return false;
    }
    for (const auto& n : scenario.nodes)
        if (!addDevNode("video" + std::to_string(n.video), error)) return false;
    return true;
}

}  // namespace vcam
