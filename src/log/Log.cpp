#include "log/Log.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <exception>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "common/DataDir.h"

namespace Talvoro {

std::atomic<Log*> Log::instance{nullptr};
std::mutex Log::mtx;

Log::Log() : fileName_("Talvoro_Log_" + GetTimestamp() + ".txt") {}

Log* Log::getInstance() {
    // The lock-free fast path keeps filtered-out messages off the mutex.
    Log* log = instance.load(std::memory_order_acquire);
    if (log) return log;
    std::lock_guard<std::mutex> lock(mtx);
    log = instance.load(std::memory_order_relaxed);
    if (!log) {
        log = new Log();
        instance.store(log, std::memory_order_release);
    }
    return log;
}

std::string Log::GetTimestamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(
        std::chrono::time_point_cast<std::chrono::seconds>(now));
    std::tm local{};
    localtime_r(&seconds, &local);
    std::ostringstream out;
    out << std::put_time(&local, "%Y_%m_%d_%H_%M_%S");
    return out.str();
}

bool Log::setLevel(int level) {
    if (level < -1 || level > 8) return false;
    threshold_.store(level, std::memory_order_relaxed);
    return true;
}

bool Log::setMode(unsigned mode) {
    if (mode > 4) return false;
    mode_.store(mode, std::memory_order_relaxed);
    return true;
}

void Log::writeLog(int level, const std::string& message) {
    // Bit-shift filter: a level passes when it is at least 2^threshold; negative levels always
    // pass. Evaluated before locking.
    if ((level >> (threshold_.load(std::memory_order_relaxed) & 31)) == 0) return;

    std::lock_guard<std::mutex> lock(mtx);
    // Opened before the mode is looked at: a passing message creates the file even when file
    // output is off.
    file_.open(dataPath(fileName_), std::ios::out | std::ios::app);
    const unsigned mode = mode_.load(std::memory_order_relaxed);
    if (mode & kConsole) {
        std::cout << GetTimestamp() << "  : " << message << '\n' << std::flush;
    }
    if (mode & kFile) {
        file_ << GetTimestamp() << "  : " << message << '\n' << std::flush;
    }
    file_.close();
    file_.clear();
}

void logCaughtException(const char* context, const std::string& tag) noexcept {
    try {
        std::string what = "unknown exception";
        try {
            throw;
        } catch (const std::exception& e) {
            what = e.what();
        } catch (...) {
        }
        writeLog(7, "\nTalvoroSDK:" + std::string(context) + ": " + what +
                        (tag.empty() ? "" : "   " + tag));
    } catch (...) {
        // Out of memory while reporting: nothing more can be said.
    }
}

void logPermissionDenied(const std::string& path, int error) {
    if (error != EACCES && error != EPERM) return;
    writeLog(7, "\nTalvoroSDK:permission denied on " + path +
                    ": install the udev rule 60-talvoro.rules (see the README) or join the "
                    "plugdev group");
}

}  // namespace Talvoro
