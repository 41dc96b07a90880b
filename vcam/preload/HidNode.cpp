#include "HidNode.h"

#include <linux/hidraw.h>
#include <linux/input.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>

#include "Camera.h"

namespace vcam {

HidNode::HidNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera)
    : Node(std::move(devPath)), kind_(kind), camera_(std::move(camera)) {}

// Reports keep their boundaries, as hidraw delivers one report per read.
int HidNode::socketType() const {
    return SOCK_SEQPACKET;
}

std::shared_ptr<OpenFile> HidNode::makeOpenFile(int clientFd, int peerFd, int flags) {
    return std::make_shared<HidOpenFile>(std::static_pointer_cast<HidNode>(shared_from_this()),
                                         clientFd, peerFd, flags);
}

HidOpenFile::HidOpenFile(std::shared_ptr<HidNode> node, int clientFd, int peerFd, int flags)
    : OpenFile(std::move(node), clientFd, peerFd, flags) {}

HidNode& HidOpenFile::hid() const {
    return static_cast<HidNode&>(*node());
}

int HidOpenFile::ioctl(unsigned long request, void* arg) {
    switch (request) {
        case HIDIOCGRDESCSIZE:
            *static_cast<int*>(arg) = hid().kind() == HidNode::Kind::Command
                                          ? HidNode::kCommandDescriptorSize
                                          : HidNode::kImuDescriptorSize;
            return 0;
        case HIDIOCGRAWINFO: {
            auto* info = static_cast<hidraw_devinfo*>(arg);
            info->bustype = BUS_USB;
            info->vendor = static_cast<__s16>(
                std::strtol(hid().camera()->spec().vendorId.c_str(), nullptr, 16));
            info->product = static_cast<__s16>(
                std::strtol(hid().camera()->spec().productId.c_str(), nullptr, 16));
            return 0;
        }
        default:
            return -ENOTTY;
    }
}

}  // namespace vcam
