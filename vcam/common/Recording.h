// Recordings of a camera's stream: raw frames as the camera delivered them, with the
// calibration blobs it serves. The virtual camera replays them; the command-line tool writes
// them. The file format is documented in docs/vcam.md ("Recording file format").
//
// Plain C++ with stdio, so that the preload (which must not call wrapped functions) and the
// tool can both use it.
#ifndef TALVORO_VCAM_RECORDING_H
#define TALVORO_VCAM_RECORDING_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vcam::rec {

constexpr char kMagic[8] = {'T', 'A', 'L', 'V', 'O', 'R', 'E', 'C'};
constexpr uint32_t kVersion = 1;
constexpr std::size_t kFileHeaderBytes = 16;
constexpr std::size_t kRecordHeaderBytes = 16;
constexpr std::size_t kFrameHeaderBytes = 32;
constexpr std::size_t kCalibrationHeaderBytes = 4;

// What the camera was doing when it sent a frame.
struct FrameInfo {
    uint32_t pixelFormat = 0;  // V4L2 FourCC of the negotiated format
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t frameModeFirst = 0;  // extension-unit frame mode
    uint8_t frameModeSecond = 0;
    uint8_t depthRange = 0;    // 0 near, 1 far
    uint64_t sequence = 0;     // the buffer's sequence number
    uint64_t timestampNs = 0;  // the buffer's CLOCK_MONOTONIC time stamp
};

// A calibration blob as the camera's HID interface serves it.
struct Calibration {
    uint8_t type = 0;       // 0 colour intrinsics, 1 depth intrinsics, 2 extrinsics
    uint8_t validFlag = 0;  // 0 plain set, 1 HD set, 2 both
    std::string data;       // OpenCV YAML text
};

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

class RecordingWriter {
  public:
    // Creates (or truncates) the file and writes its header.
    bool open(const std::string& path, std::string* error);
    // Free-form "key=value" lines (serial, product, firmware, fps, ...).
    bool writeMetadata(const std::vector<std::pair<std::string, std::string>>& entries);
    bool writeCalibration(const Calibration& blob);
    // `size` is the frame's bytesused.
    bool writeFrame(const FrameInfo& info, const void* data, std::size_t size);
    // Flushes and closes; false when any write failed.
    bool close(std::string* error);
    // The errno of the first write that failed (ENOSPC: the disk is full), or 0.
    int writeError() const { return errno_; }

  private:
    bool writeRecord(const char tag[4], const std::vector<uint8_t>& head, const void* data,
                     std::size_t size);

    FilePtr file_;
    bool failed_ = false;
    int errno_ = 0;
};

class RecordingReader {
  public:
    struct Frame {
        FrameInfo info;
        uint64_t offset = 0;  // of the raw bytes in the file
        uint64_t size = 0;
    };

    // Reads the header, the metadata and the calibration, and indexes the frames. A record cut
    // short at the end of the file (a recording that was interrupted) is ignored.
    bool open(const std::string& path, std::string* error);

    const std::vector<Frame>& frames() const { return frames_; }
    // The blob of that type, or null.
    const Calibration* calibration(int type) const;
    const std::map<std::string, std::string>& metadata() const { return metadata_; }

    // Reads at most `capacity` bytes of frame `index` into `dst`; *read gets the count.
    // Safe to call from several threads.
    bool readFrame(std::size_t index, void* dst, std::size_t capacity, std::size_t* read) const;

  private:
    FilePtr file_;
    mutable std::mutex fileMutex_;
    std::vector<Frame> frames_;
    std::vector<Calibration> calibration_;
    std::map<std::string, std::string> metadata_;
};

}  // namespace vcam::rec

#endif
