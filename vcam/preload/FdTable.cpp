#include "FdTable.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

namespace vcam {

namespace {

constexpr int kFastFds = 65536;

// Zero-initialised storage without a constructor, usable before static initialisation.
std::atomic<unsigned char> g_marked[kFastFds];
std::atomic<bool> g_anyHigh{false};

struct Table {
    std::mutex mutex;
    std::unordered_map<int, std::shared_ptr<OpenFile>> files;
};

Table& table() {
    static Table* t = new Table;  // never destroyed: wrappers may run during exit
    return *t;
}

}  // namespace

bool mayBeOurs(int fd) {
    if (fd < 0) return false;
    if (fd < kFastFds) return g_marked[fd].load(std::memory_order_relaxed) != 0;
    return g_anyHigh.load(std::memory_order_relaxed);
}

std::shared_ptr<OpenFile> lookupFd(int fd) {
    std::shared_ptr<OpenFile> file;
    {
        std::lock_guard<std::mutex> lock(table().mutex);
        auto it = table().files.find(fd);
        if (it == table().files.end()) return nullptr;
        file = it->second;
    }
    if (file->matches(fd)) return file;
    eraseFd(fd);
    return nullptr;
}

void insertFd(int fd, std::shared_ptr<OpenFile> file) {
    if (fd < 0) return;
    std::lock_guard<std::mutex> lock(table().mutex);
    table().files[fd] = std::move(file);
    if (fd < kFastFds)
        g_marked[fd].store(1, std::memory_order_relaxed);
    else
        g_anyHigh.store(true, std::memory_order_relaxed);
}

void eraseFd(int fd) {
    std::shared_ptr<OpenFile> dropped;  // released after the lock: it may close sockets
    std::lock_guard<std::mutex> lock(table().mutex);
    auto it = table().files.find(fd);
    if (it != table().files.end()) {
        dropped = std::move(it->second);
        table().files.erase(it);
    }
    if (fd >= 0 && fd < kFastFds) g_marked[fd].store(0, std::memory_order_relaxed);
}

}  // namespace vcam
