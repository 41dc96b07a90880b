// A preload library that makes a directory's disk fill up: with TALVORO_TEST_FULL_DISK set to
// "DIR:BYTES", fwrite() to files under DIR takes BYTES bytes in all; the call that goes beyond
// writes what still fits and fails with ENOSPC, as on a full disk. A file is known by the path
// of its descriptor (other preloads may open it without fopen()). Everything else passes
// straight to the C library.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace {

std::mutex mutex;
std::map<FILE*, bool> watchedFiles;  // whether each file written to lies under the directory
std::size_t budget = 0;
bool configured = false;
std::string directory;

template <typename Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// Whether `f` lies under the directory; reads the setting on first use. Locked by the caller.
bool watched(FILE* f) {
    if (!configured) {
        configured = true;
        const char* setting = std::getenv("TALVORO_TEST_FULL_DISK");
        const char* colon = setting ? std::strrchr(setting, ':') : nullptr;
        if (colon) {
            directory.assign(setting, colon) += '/';
            budget = std::strtoull(colon + 1, nullptr, 10);
        }
    }
    if (directory.empty()) return false;
    const auto known = watchedFiles.find(f);
    if (known != watchedFiles.end()) return known->second;
    char path[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fileno(f));
    const ssize_t n = readlink(link.c_str(), path, sizeof path - 1);
    const bool under = n > 0 && std::strncmp(path, directory.c_str(), directory.size()) == 0;
    watchedFiles[f] = under;
    return under;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) size_t fwrite(const void* data, size_t size, size_t count,
                                                     FILE* f) {
    using Write = size_t (*)(const void*, size_t, size_t, FILE*);
    static const Write real = next<Write>("fwrite");
    std::size_t allowed = count;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (size > 0 && watched(f)) {
            allowed = std::min(count, budget / size);
            budget -= allowed * size;
        }
    }
    const std::size_t written = allowed ? real(data, size, allowed, f) : 0;
    if (allowed < count) errno = ENOSPC;
    return written;
}

__attribute__((visibility("default"))) int fclose(FILE* f) {
    using Close = int (*)(FILE*);
    static const Close real = next<Close>("fclose");
    {
        std::lock_guard<std::mutex> lock(mutex);
        watchedFiles.erase(f);
    }
    return real(f);
}

}  // extern "C"
