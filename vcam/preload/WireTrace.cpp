#include "WireTrace.h"

#include <fcntl.h>

#include <atomic>
#include <mutex>

#include "Libc.h"
#include "World.h"

namespace vcam {

namespace {

// -2: not opened yet, -1: no trace.
std::atomic<int> g_traceFd{-2};
std::mutex g_openMutex;

int traceFd() {
    int fd = g_traceFd.load(std::memory_order_acquire);
    if (fd != -2) return fd;
    std::lock_guard<std::mutex> lock(g_openMutex);
    fd = g_traceFd.load(std::memory_order_acquire);
    if (fd != -2) return fd;
    World* world = World::get();
    fd = -1;
    if (world && !world->tracePath().empty())
        fd =
            libc::open(world->tracePath().c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    g_traceFd.store(fd < 0 ? -1 : fd, std::memory_order_release);
    return fd;
}

}  // namespace

std::string hexBytes(const uint8_t* data, std::size_t size) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(size * 3);
    for (std::size_t i = 0; i < size; ++i) {
        if (i) out += ' ';
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

std::string nodeName(const std::string& devPath) {
    const auto slash = devPath.rfind('/');
    return slash == std::string::npos ? devPath : devPath.substr(slash + 1);
}

void traceLine(const std::string& line) {
    const int fd = traceFd();
    if (fd < 0) return;
    const std::string text = line + "\n";
    // A trace that cannot be written must not disturb the emulated camera.
    if (libc::write(fd, text.data(), text.size()) < 0) return;
}

}  // namespace vcam
