#include "HidNode.h"

#include <linux/hidraw.h>
#include <linux/input.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Camera.h"
#include "Firmware.h"
#include "ImuStream.h"
#include "UserCopy.h"
#include "WireTrace.h"

namespace vcam {

HidNode::HidNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera)
    : Node(std::move(devPath)), kind_(kind), camera_(std::move(camera)) {}

// Reports keep their boundaries, as hidraw delivers one report per read.
int HidNode::socketType() const {
    return SOCK_SEQPACKET;
}

int HidNode::checkOpen() const {
    if (camera_->firmware->unplugged()) return -ENODEV;
    // As when the node's permissions keep the application out.
    return camera_->findFault("hid-open-fail") ? -EACCES : 0;
}

std::shared_ptr<OpenFile> HidNode::makeOpenFile(int clientFd, int peerFd, int flags) {
    auto file = std::make_shared<HidOpenFile>(std::static_pointer_cast<HidNode>(shared_from_this()),
                                              clientFd, peerFd, flags);
    {
        std::lock_guard<std::mutex> lock(filesMutex_);
        files_.erase(
            std::remove_if(files_.begin(), files_.end(), [](const auto& f) { return f.expired(); }),
            files_.end());
        files_.push_back(file);
    }
    if (kind_ == Kind::Imu) camera_->firmware->imu().resume();
    return file;
}

std::vector<std::shared_ptr<HidOpenFile>> HidNode::openFiles() {
    std::vector<std::shared_ptr<HidOpenFile>> open;
    std::lock_guard<std::mutex> lock(filesMutex_);
    for (const auto& weak : files_)
        if (auto f = weak.lock()) open.push_back(std::move(f));
    return open;
}

void HidNode::disconnect() {
    // hidraw wakes its readers with an error; here the application's select sees the end of
    // the stream, and its read then fails with ENODEV.
    for (const auto& f : openFiles())
        ::shutdown(f->peerFd(), SHUT_RDWR);
}

void HidNode::send(const HidReport& report) {
    const std::vector<std::shared_ptr<HidOpenFile>> open = openFiles();
    if (open.empty()) return;
    for (const auto& f : open)
        f->deliver(report);
    traceLine(nodeName(devPath()) + " < " + hexBytes(report.data(), report.size()));
}

HidOpenFile::HidOpenFile(std::shared_ptr<HidNode> node, int clientFd, int peerFd, int flags)
    : OpenFile(std::move(node), clientFd, peerFd, flags) {}

HidNode& HidOpenFile::hid() const {
    return static_cast<HidNode&>(*node());
}

int HidOpenFile::failure() {
    if (hid().camera()->firmware->unplugged()) return ENODEV;
    if (hid().camera()->findFault("eintr") && !interrupted_.exchange(true)) return EINTR;
    interrupted_ = false;
    return 0;
}

bool HidOpenFile::deliver(const HidReport& report) {
    return ::send(peerFd(), report.data(), report.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(report.size());
}

// hidraw writes its answers to the caller's memory itself: a bad pointer gives EFAULT.
int HidOpenFile::ioctl(unsigned long request, void* arg) {
    if (const int err = failure()) return -err;
    switch (request) {
        case HIDIOCGRDESCSIZE: {
            const int size = hid().kind() == HidNode::Kind::Command
                                 ? HidNode::kCommandDescriptorSize
                                 : HidNode::kImuDescriptorSize;
            return user::copyTo(arg, &size, sizeof size) ? 0 : -EFAULT;
        }
        case HIDIOCGRAWINFO: {
            hidraw_devinfo info{};
            info.bustype = BUS_USB;
            info.vendor = static_cast<__s16>(
                std::strtol(hid().camera()->spec().vendorId.c_str(), nullptr, 16));
            info.product = static_cast<__s16>(
                std::strtol(hid().camera()->spec().productId.c_str(), nullptr, 16));
            return user::copyTo(arg, &info, sizeof info) ? 0 : -EFAULT;
        }
        default:
            return -ENOTTY;
    }
}

ssize_t HidOpenFile::read(int fd, void* buf, std::size_t count) {
    if (const int err = failure()) {
        errno = err;
        return -1;
    }
    return OpenFile::read(fd, buf, count);
}

ssize_t HidOpenFile::write(int, const void* buf, std::size_t count) {
    if (const int err = failure()) {
        errno = err;
        return -1;
    }
    HidReport request{};
    if (count == 0 || count > request.size()) {
        errno = EINVAL;
        return -1;
    }
    if (!user::copyFrom(request.data(), buf, count)) {
        errno = EFAULT;
        return -1;
    }
    const std::string node = nodeName(hid().devPath());
    traceLine(node + " > " + hexBytes(request.data(), count));
    // The IMU interface takes no commands.
    if (hid().kind() != HidNode::Kind::Command) return static_cast<ssize_t>(count);
    HidReport answer;
    if (hid().camera()->firmware->hid().handle(request, &answer)) {
        deliver(answer);
        traceLine(node + " < " + hexBytes(answer.data(), answer.size()));
    }
    return static_cast<ssize_t>(count);
}

}  // namespace vcam
