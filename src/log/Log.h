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

}  // namespace Talvoro

#endif
