#include "RunState.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vcam::run {

namespace {

constexpr std::size_t kMaxMessage = 4096;
constexpr std::size_t kCounterBytes = 4096;

bool socketAddress(const std::string& path, sockaddr_un* address) {
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof address->sun_path) return false;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

void setTimeout(int fd, int option, int seconds) {
    timeval tv{seconds, 0};
    setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv);
}

}  // namespace

std::string stateDir() {
    const char* root = std::getenv("UMOCKDEV_DIR");
    return root && *root ? std::string(root) + "/talvoro-vcam" : "";
}

std::string scenarioPath(const std::string& dir) {
    return dir + "/scenario";
}

std::string controlPath(const std::string& dir) {
    return dir + "/control";
}

PlugCounter::~PlugCounter() {
    if (word_) munmap(word_, kCounterBytes);
}

bool PlugCounter::map(const std::string& dir, bool create) {
    const std::string path = dir + "/plug-counter";
    const int fd = ::open(path.c_str(), (create ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    if (create && ftruncate(fd, kCounterBytes) != 0) {
        ::close(fd);
        return false;
    }
    void* p = ::mmap(nullptr, kCounterBytes, create ? PROT_READ | PROT_WRITE : PROT_READ,
                     MAP_SHARED, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED) return false;
    word_ = static_cast<uint64_t*>(p);
    return true;
}

void PlugCounter::advance() {
    if (word_) __atomic_add_fetch(word_, 1, __ATOMIC_RELEASE);
}

bool request(const std::string& message, std::string* answer) {
    const std::string dir = stateDir();
    sockaddr_un address;
    if (dir.empty() || !socketAddress(controlPath(dir), &address)) {
        *answer = "not running under talvoro-vcam";
        return false;
    }
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *answer = std::strerror(errno);
        return false;
    }
    // A plug or unplug takes the launcher milliseconds; a launcher that does not answer in
    // seconds is gone or stopped.
    setTimeout(fd, SO_RCVTIMEO, 10);
    setTimeout(fd, SO_SNDTIMEO, 10);
    char buf[kMaxMessage];
    ssize_t n = -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::send(fd, message.data(), message.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(message.size())) {
        do {
            n = ::recv(fd, buf, sizeof buf, 0);
        } while (n < 0 && errno == EINTR);
    }
    const int err = errno;
    ::close(fd);
    if (n <= 0) {
        *answer = "the launcher does not answer: " +
                  std::string(n == 0 ? "connection closed" : std::strerror(err));
        return false;
    }
    answer->assign(buf, static_cast<std::size_t>(n));
    return true;
}

int listenForRequests(const std::string& dir, std::string* error) {
    sockaddr_un address;
    const std::string path = controlPath(dir);
    if (!socketAddress(path, &address)) {
        *error = "control socket path too long: " + path;
        return -1;
    }
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 16) != 0) {
        *error = "cannot listen on " + path + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return -1;
    }
    return fd;
}

int acceptRequest(int listenFd, std::string* message) {
    const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return -1;
    // A client that connects and says nothing must not hold up the run.
    setTimeout(fd, SO_RCVTIMEO, 1);
    setTimeout(fd, SO_SNDTIMEO, 1);
    char buf[kMaxMessage];
    ssize_t n;
    do {
        n = ::recv(fd, buf, sizeof buf, 0);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        ::close(fd);
        return -1;
    }
    message->assign(buf, static_cast<std::size_t>(n));
    return fd;
}

void answerRequest(int connection, const std::string& answer) {
    ::send(connection, answer.data(), std::min(answer.size(), kMaxMessage), MSG_NOSIGNAL);
    ::close(connection);
}

}  // namespace vcam::run
