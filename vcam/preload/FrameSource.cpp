#include "FrameSource.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>

#include "CameraModel.h"

namespace vcam {

namespace {

bool hasDepth(const ContentSpec& spec) {
    return spec.content != Content::Ir && spec.content != Content::Colour;
}

}  // namespace

ContentSpec contentFor(const FrameRequest& r) {
    ContentSpec spec;
    const bool colourFormat =
        r.fourcc == V4L2_PIX_FMT_UYVY &&
        model::colourIntrinsics(static_cast<int>(r.width), static_cast<int>(r.height)).width != 0;
    if (colourFormat) {
        // The colour formats carry the colour camera's picture whatever the frame mode.
        spec.content = Content::Colour;
        spec.colourWidth = static_cast<int>(r.width);
        spec.colourHeight = static_cast<int>(r.height);
    } else if (r.frameModeFirst == 1) {
        spec.content = r.frameModeSecond == 2   ? Content::Depth
                       : r.frameModeSecond == 3 ? Content::Ir
                                                : Content::DepthIr;
    } else if (r.frameModeFirst == 2) {
        // Colour only, in a Y16 format: the 640x480 picture.
        spec.content = Content::Colour;
        spec.colourWidth = 640;
        spec.colourHeight = 480;
    } else {
        // 0 and anything the firmware does not know: multiplexed, HD in the HD format.
        const bool hd = r.fourcc == V4L2_PIX_FMT_Y16 && r.width == 1443 && r.height == 960;
        spec.content = hd ? Content::MultiplexedHd : Content::MultiplexedVga;
    }
    if (hasDepth(spec)) spec.depthRange = r.depthRange == 1 ? 1 : 0;
    return spec;
}

FrameSource::FrameSource(const CameraSpec& camera)
    : replayPath_(camera.replay),
      synthetic_(static_cast<uint32_t>(camera.seed), camera.scene == "still", camera.fps) {}

FrameSource::TrackKey FrameSource::keyOf(uint32_t fourcc, uint32_t width, uint32_t height,
                                         int first, int second, int range) {
    // Frames are told apart by what they contain: frame modes with the same content (any
    // frame mode in a colour format) share recorded frames; -1 matches any depth range.
    FrameRequest r;
    r.fourcc = fourcc;
    r.width = width;
    r.height = height;
    r.frameModeFirst = static_cast<uint16_t>(first);
    r.frameModeSecond = static_cast<uint8_t>(second);
    r.depthRange = static_cast<uint16_t>(range);
    const ContentSpec spec = contentFor(r);
    return {fourcc, width, height, static_cast<int>(spec.content),
            range < 0 ? -1 : spec.depthRange};
}

void FrameSource::openRecording() {
    if (replayPath_.empty()) return;
    auto reader = std::make_unique<rec::RecordingReader>();
    std::string error;
    if (!reader->open(replayPath_, &error)) return;  // the launcher has reported it already
    const auto& frames = reader->frames();
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const rec::FrameInfo& f = frames[i].info;
        exact_[keyOf(f.pixelFormat, f.width, f.height, f.frameModeFirst, f.frameModeSecond,
                     f.depthRange)]
            .frames.push_back(i);
        anyRange_[keyOf(f.pixelFormat, f.width, f.height, f.frameModeFirst, f.frameModeSecond, -1)]
            .frames.push_back(i);
    }
    recording_ = std::move(reader);
}

const rec::RecordingReader* FrameSource::recording() {
    std::call_once(opened_, [this] { openRecording(); });
    return recording_.get();
}

FrameSource::Track* FrameSource::trackFor(const FrameRequest& r) {
    if (!recording()) return nullptr;
    auto it = exact_.find(
        keyOf(r.fourcc, r.width, r.height, r.frameModeFirst, r.frameModeSecond, r.depthRange));
    if (it != exact_.end()) return &it->second;
    it =
        anyRange_.find(keyOf(r.fourcc, r.width, r.height, r.frameModeFirst, r.frameModeSecond, -1));
    return it != anyRange_.end() ? &it->second : nullptr;
}

void FrameSource::prepare(const FrameRequest& request) {
    bool replayed;
    {
        std::lock_guard<std::mutex> lock(trackMutex_);
        replayed = trackFor(request) != nullptr;
    }
    if (!replayed) SyntheticFrames::prepare(contentFor(request));
}

std::size_t FrameSource::fill(const FrameRequest& request, uint8_t* dst, std::size_t capacity) {
    {
        std::lock_guard<std::mutex> lock(trackMutex_);
        if (Track* track = trackFor(request)) {
            const std::size_t index = track->frames[track->next];
            track->next = (track->next + 1) % track->frames.size();
            std::size_t read = 0;
            if (recording_->readFrame(index, dst, capacity, &read))
                return static_cast<std::size_t>(recording_->frames()[index].size);
        }
    }
    // No recorded frame for this format and frame mode: the synthetic scene stands in.
    const std::vector<uint8_t>& frame = synthetic_.frame(contentFor(request), request.index);
    std::memcpy(dst, frame.data(), std::min(frame.size(), capacity));
    return frame.size();
}

}  // namespace vcam
