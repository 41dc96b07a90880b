#include "FirmwareStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "Libc.h"

namespace vcam {

namespace {

// Holds an exclusive lock on the store file for one transaction.
class LockedFile {
  public:
    explicit LockedFile(const std::string& path)
        : fd_(path.empty() ? -1 : libc::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        if (fd_ >= 0) ::flock(fd_, LOCK_EX);
    }
    ~LockedFile() {
        if (fd_ >= 0) libc::close(fd_);  // closing releases the lock
    }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

}  // namespace

FirmwareStore::FirmwareStore(std::string path, Settings defaults)
    : path_(std::move(path)), defaults_(std::move(defaults)), memory_(defaults_) {}

std::string FirmwareStore::pathFor(const std::string& serial) {
    const char* root = std::getenv("UMOCKDEV_DIR");
    if (!root || serial.empty() || serial.find('/') != std::string::npos) return "";
    return std::string(root) + "/talvoro-vcam/" + serial + ".firmware";
}

Settings FirmwareStore::load(int fd) const {
    Settings settings = defaults_;
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = ::pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0)
        text.append(buf, static_cast<std::size_t>(n));
    std::istringstream in(text);
    std::string name;
    long long value;
    while (in >> name >> value)
        settings[name] = value;
    return settings;
}

void FirmwareStore::save(int fd, const Settings& settings) const {
    std::ostringstream out;
    for (const auto& [name, value] : settings)
        out << name << " " << value << "\n";
    const std::string text = out.str();
    if (::ftruncate(fd, 0) != 0) return;
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n =
            ::pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

void FirmwareStore::update(const std::function<void(Settings&)>& fn) {
    std::lock_guard<std::mutex> lock(mutex_);
    LockedFile file(path_);
    if (file.fd() < 0) {
        fn(memory_);
        return;
    }
    Settings settings = load(file.fd());
    const Settings before = settings;
    fn(settings);
    if (settings != before) save(file.fd(), settings);
}

Settings FirmwareStore::snapshot() {
    Settings copy;
    update([&](Settings& s) { copy = s; });
    return copy;
}

}  // namespace vcam
