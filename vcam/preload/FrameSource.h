// What a camera sends at a frame time: the synthetic scene, or the frames of a recording, in
// the content its frame mode selects and the buffer its negotiated format sizes.
#ifndef TALVORO_VCAM_FRAME_SOURCE_H
#define TALVORO_VCAM_FRAME_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "Recording.h"
#include "Scenario.h"
#include "SyntheticFrames.h"

namespace vcam {

struct FrameRequest {
    uint32_t fourcc = 0;  // the negotiated format
    uint32_t width = 0;
    uint32_t height = 0;
    uint16_t frameModeFirst = 0;  // the extension unit's frame mode
    uint8_t frameModeSecond = 0;
    uint16_t depthRange = 0;
    uint64_t index = 0;  // the camera's frame number
};

// The firmware's choice: a colour (UYVY) format carries colour; in a Y16 format the frame mode
// decides, the size only where the frame mode leaves it open (VGA or HD multiplexing). See
// docs/vcam.md.
ContentSpec contentFor(const FrameRequest& request);

class FrameSource {
  public:
    // The camera's recording to play (its `replay`), else its synthetic scene.
    explicit FrameSource(const CameraSpec& camera);

    // Renders or loads what fill() will need for `request`, so that the first frame is on time.
    void prepare(const FrameRequest& request);
    // Writes the frame into `dst`, at most `capacity` bytes. Returns the frame's own size, which
    // may be more than was written (the buffer is too small for the content) or less. Called
    // by one thread at a time.
    std::size_t fill(const FrameRequest& request, uint8_t* dst, std::size_t capacity);

    // The recording being replayed; null for the synthetic scene or an unreadable file.
    const rec::RecordingReader* recording();

  private:
    // Frames of the recording that fit a request, in file order, and where playback stands.
    struct Track {
        std::vector<std::size_t> frames;
        std::size_t next = 0;
    };
    using TrackKey = std::tuple<uint32_t, uint32_t, uint32_t, int, int>;  // format, content, range
    static TrackKey keyOf(uint32_t fourcc, uint32_t width, uint32_t height, int first, int second,
                          int range);
    Track* trackFor(const FrameRequest& request);
    void openRecording();

    std::string replayPath_;
    std::once_flag opened_;
    std::unique_ptr<rec::RecordingReader> recording_;
    std::mutex trackMutex_;
    std::map<TrackKey, Track> exact_;  // by format, frame mode and depth range
    std::map<TrackKey, Track> anyRange_;
    SyntheticFrames synthetic_;
};

}  // namespace vcam

#endif
