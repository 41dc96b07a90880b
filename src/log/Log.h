// The process-wide logger: levelled, timestamped entries to standard output and/or a log file.
#ifndef TALVORO_LOG_LOG_H
#define TALVORO_LOG_LOG_H

#include <atomic>
#include <fstream>
#include <mutex>
#include <string>

namespace Talvoro {

class Log {
  public:
    // Output mode bits.
    static constexpr unsigned kConsole = 1;
    static constexpr unsigned kFile = 2;

    // The one instance, created on first use and never destroyed.
    static Log* getInstance();

    // Writes one entry "<timestamp>  : <message>\n" when `level >> threshold` is non-zero.
    void writeLog(int level, const std::string& message);

    // Current local time, whole seconds, as "%Y_%m_%d_%H_%M_%S".
    static std::string GetTimestamp();

    // Threshold -1..8 and mode 0..4; anything else is refused (false) and changes nothing.
    bool setLevel(int level);
    bool setMode(unsigned mode);
    int level() const { return threshold_.load(std::memory_order_relaxed); }
    unsigned mode() const { return mode_.load(std::memory_order_relaxed); }
    const std::string& fileName() const { return fileName_; }

  private:
    Log();

    std::ofstream file_;
    // Read by the level filter without the lock, so a filtered message never blocks.
    std::atomic<int> threshold_{2};
    std::atomic<unsigned> mode_{kFile};
    const std::string fileName_;

    static std::atomic<Log*> instance;
    // Guards creation of the instance and every entry, so entries never interleave.
    static std::mutex mtx;
};

// Convenience for the library's own messages.
inline void writeLog(int level, const std::string& message) {
    Log::getInstance()->writeLog(level, message);
}

// Inside a catch block: logs at level 7 "\nTalvoroSDK:<context>: <what the exception says>"
// (what() of a std::exception, OpenCV's included), followed by "   <tag>" when a tag is given.
// Never throws, so that a handler that must not fail can report what it caught.
void logCaughtException(const char* context, const std::string& tag = std::string()) noexcept;

// EXTENSION: after a device node failed to open with `error` (errno), says at level 7 when it was
// for lack of permission, naming the node and the udev rule that grants it; other failures keep
// to the caller's own messages. Pass errno as the failed open left it.
void logPermissionDenied(const std::string& path, int error);

}  // namespace Talvoro

#endif
