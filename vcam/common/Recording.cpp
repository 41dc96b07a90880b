#include "Recording.h"

#include <cerrno>
#include <cstring>
#include <sstream>

namespace vcam::rec {

namespace {

// Records larger than this are taken for corruption rather than allocated.
constexpr uint64_t kMaxTextRecord = 16u << 20;

void put(std::vector<uint8_t>& out, uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint64_t get(const uint8_t* p, int bytes) {
    uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = v << 8 | p[i];
    return v;
}

std::vector<uint8_t> frameHeader(const FrameInfo& f) {
    std::vector<uint8_t> h;
    put(h, f.pixelFormat, 4);
    put(h, f.width, 2);
    put(h, f.height, 2);
    put(h, f.frameModeFirst, 2);
    put(h, f.frameModeSecond, 1);
    put(h, f.depthRange, 1);
    put(h, 0, 4);
    put(h, f.sequence, 8);
    put(h, f.timestampNs, 8);
    return h;
}

FrameInfo parseFrameHeader(const uint8_t* h) {
    FrameInfo f;
    f.pixelFormat = static_cast<uint32_t>(get(h, 4));
    f.width = static_cast<uint16_t>(get(h + 4, 2));
    f.height = static_cast<uint16_t>(get(h + 6, 2));
    f.frameModeFirst = static_cast<uint16_t>(get(h + 8, 2));
    f.frameModeSecond = h[10];
    f.depthRange = h[11];
    f.sequence = get(h + 16, 8);
    f.timestampNs = get(h + 24, 8);
    return f;
}

bool readExactly(std::FILE* f, void* dst, std::size_t n) {
    return n == 0 || std::fread(dst, 1, n, f) == n;
}

}  // namespace

bool RecordingWriter::open(const std::string& path, std::string* error) {
    file_.reset(std::fopen(path.c_str(), "wb"));
    if (!file_) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    failed_ = false;
    std::vector<uint8_t> header(kMagic, kMagic + 8);
    put(header, kVersion, 4);
    put(header, kFileHeaderBytes, 4);
    if (std::fwrite(header.data(), 1, header.size(), file_.get()) != header.size()) {
        *error = "cannot write " + path;
        file_.reset();
        return false;
    }
    return true;
}

bool RecordingWriter::writeRecord(const char tag[4], const std::vector<uint8_t>& head,
                                  const void* data, std::size_t size) {
    if (!file_ || failed_) return false;
    std::vector<uint8_t> h(tag, tag + 4);
    put(h, 0, 4);
    put(h, head.size() + size, 8);
    h.insert(h.end(), head.begin(), head.end());
    failed_ = std::fwrite(h.data(), 1, h.size(), file_.get()) != h.size() ||
              (size > 0 && std::fwrite(data, 1, size, file_.get()) != size);
    if (failed_) errno_ = errno;
    return !failed_;
}

bool RecordingWriter::writeMetadata(
    const std::vector<std::pair<std::string, std::string>>& entries) {
    std::string text;
    for (const auto& [k, v] : entries)
        text += k + "=" + v + "\n";
    return writeRecord("META", {}, text.data(), text.size());
}

bool RecordingWriter::writeCalibration(const Calibration& blob) {
    const std::vector<uint8_t> head = {blob.type, blob.validFlag, 0, 0};
    return writeRecord("CALB", head, blob.data.data(), blob.data.size());
}

bool RecordingWriter::writeFrame(const FrameInfo& info, const void* data, std::size_t size) {
    return writeRecord("FRAM", frameHeader(info), data, size);
}

bool RecordingWriter::close(std::string* error) {
    if (!file_) {
        *error = "recording is not open";
        return false;
    }
    const bool flushed = std::fflush(file_.get()) == 0;
    if (!flushed && !errno_) errno_ = errno;
    const bool ok = !failed_ && flushed && std::fclose(file_.release()) == 0;
    if (!ok && !errno_) errno_ = errno;
    if (!ok) *error = std::string("writing the recording failed: ") + std::strerror(errno_);
    return ok;
}

bool RecordingReader::open(const std::string& path, std::string* error) {
    file_.reset(std::fopen(path.c_str(), "rb"));
    if (!file_) {
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    std::FILE* f = file_.get();
    uint8_t header[kFileHeaderBytes];
    if (!readExactly(f, header, sizeof header) || std::memcmp(header, kMagic, 8) != 0) {
        *error = path + " is not a Talvoro recording";
        return false;
    }
    if (get(header + 8, 4) != kVersion) {
        *error = path + ": unsupported recording version " + std::to_string(get(header + 8, 4));
        return false;
    }
    const uint64_t headerBytes = get(header + 12, 4);
    if (headerBytes < kFileHeaderBytes || fseeko(f, 0, SEEK_END) != 0) {
        *error = path + ": bad header";
        return false;
    }
    const uint64_t fileSize = static_cast<uint64_t>(ftello(f));
    uint64_t pos = headerBytes;
    frames_.clear();
    calibration_.clear();
    metadata_.clear();
    while (pos + kRecordHeaderBytes <= fileSize) {
        uint8_t rh[kRecordHeaderBytes];
        if (fseeko(f, static_cast<off_t>(pos), SEEK_SET) != 0 || !readExactly(f, rh, sizeof rh))
            break;
        const uint64_t length = get(rh + 8, 8);
        const uint64_t body = pos + kRecordHeaderBytes;
        if (length > fileSize - body) break;  // cut short: the recording ends here
        const std::string tag(reinterpret_cast<const char*>(rh), 4);
        if (tag == "FRAM" && length >= kFrameHeaderBytes) {
            uint8_t fh[kFrameHeaderBytes];
            if (!readExactly(f, fh, sizeof fh)) break;
            frames_.push_back(
                {parseFrameHeader(fh), body + kFrameHeaderBytes, length - kFrameHeaderBytes});
        } else if ((tag == "CALB" && length >= kCalibrationHeaderBytes) || tag == "META") {
            if (length > kMaxTextRecord) {
                *error = path + ": " + tag + " record of " + std::to_string(length) + " bytes";
                return false;
            }
            std::string payload(length, '\0');
            if (!readExactly(f, payload.data(), payload.size())) break;
            if (tag == "META") {
                std::istringstream in(payload);
                std::string line;
                while (std::getline(in, line)) {
                    const auto eq = line.find('=');
                    if (eq != std::string::npos)
                        metadata_[line.substr(0, eq)] = line.substr(eq + 1);
                }
            } else {
                Calibration c;
                c.type = static_cast<uint8_t>(payload[0]);
                c.validFlag = static_cast<uint8_t>(payload[1]);
                c.data = payload.substr(kCalibrationHeaderBytes);
                // A later blob of a type replaces the earlier one.
                bool replaced = false;
                for (auto& old : calibration_) {
                    if (old.type == c.type) {
                        old = c;
                        replaced = true;
                    }
                }
                if (!replaced) calibration_.push_back(std::move(c));
            }
        }
        // Unknown tags are skipped: later versions may add records.
        pos = body + length;
    }
    return true;
}

const Calibration* RecordingReader::calibration(int type) const {
    for (const auto& c : calibration_)
        if (c.type == type) return &c;
    return nullptr;
}

bool RecordingReader::readFrame(std::size_t index, void* dst, std::size_t capacity,
                                std::size_t* read) const {
    if (index >= frames_.size()) return false;
    const Frame& fr = frames_[index];
    const std::size_t n = static_cast<std::size_t>(std::min<uint64_t>(fr.size, capacity));
    std::lock_guard<std::mutex> lock(fileMutex_);
    if (fseeko(file_.get(), static_cast<off_t>(fr.offset), SEEK_SET) != 0 ||
        !readExactly(file_.get(), dst, n))
        return false;
    *read = n;
    return true;
}

}  // namespace vcam::rec
