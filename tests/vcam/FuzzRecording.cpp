// Feeds arbitrary files to the recording reader, as `talvoro-vcam run --camera replay=FILE`
// and `talvoro replay` open them: whatever the record headers claim, the reader indexes only
// what the file holds, and reading any frame into any buffer stays within both.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Recording.h"

namespace {

// The input as a file, without touching the disk: one memory file for the whole run.
std::string asFile(const uint8_t* data, std::size_t size) {
    static const int fd = memfd_create("recording", 0);
    if (fd < 0 || ftruncate(fd, 0) != 0) std::abort();
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
        if (n <= 0) std::abort();
        done += static_cast<std::size_t>(n);
    }
    return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    vcam::rec::RecordingReader reader;
    std::string error;
    if (!reader.open(asFile(data, size), &error)) {
        if (error.empty()) std::abort();  // a refusal says why
        return 0;
    }
    for (int type = -1; type < 4; ++type) {
        const vcam::rec::Calibration* blob = reader.calibration(type);
        if (blob && (blob->type != type || blob->data.size() > size)) std::abort();
    }
    // Every frame lies within the file; a buffer smaller or larger than it is filled up to the
    // smaller of the two.
    std::vector<uint8_t> buffer;
    for (std::size_t i = 0; i < reader.frames().size(); ++i) {
        const auto& frame = reader.frames()[i];
        if (frame.offset > size || frame.size > size - frame.offset) std::abort();
        const std::size_t capacity = (i % 3 == 0) ? frame.size / 2 : frame.size + 7;
        buffer.assign(capacity, 0);
        std::size_t read = 0;
        if (!reader.readFrame(i, buffer.data(), capacity, &read) ||
            read != std::min<std::size_t>(frame.size, capacity))
            std::abort();
    }
    std::size_t read = 0;
    if (reader.readFrame(reader.frames().size(), buffer.data(), buffer.size(), &read)) std::abort();
    return 0;
}
