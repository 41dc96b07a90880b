// The settings a camera keeps while it is plugged in, shared by every process of one launcher
// run: $UMOCKDEV_DIR/talvoro-vcam/<serial>.firmware holds them as "name value" lines.
#ifndef TALVORO_VCAM_FIRMWARE_STORE_H
#define TALVORO_VCAM_FIRMWARE_STORE_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace vcam {

using Settings = std::map<std::string, int64_t>;

class FirmwareStore {
  public:
    // `defaults` are the settings of a camera that was just plugged in. An empty path keeps the
    // settings in this process only.
    FirmwareStore(std::string path, Settings defaults);

    // Runs `fn` on the current settings with the store locked against other threads and
    // processes, and saves what it changed.
    void update(const std::function<void(Settings&)>& fn);
    // A copy of the current settings.
    Settings snapshot();

    // The store file of the camera with `serial` in this launcher run ("" without one).
    static std::string pathFor(const std::string& serial);

  private:
    Settings load(int fd) const;
    void save(int fd, const Settings& settings) const;

    const std::string path_;
    const Settings defaults_;
    std::mutex mutex_;
    Settings memory_;  // used when there is no file
};

}  // namespace vcam

#endif
