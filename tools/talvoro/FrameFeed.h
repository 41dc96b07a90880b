// The frames of one open camera, announced by the library's frame callback: a command waits for
// the next frame instead of polling, notices an unplugged camera, and stops on Ctrl-C.
#ifndef TALVORO_TOOL_FRAME_FEED_H
#define TALVORO_TOOL_FRAME_FEED_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "TalvoroSDK.h"

namespace talvoro_tool {

class FrameFeed {
  public:
    // Registers the camera's frame and notification callbacks; `onFrame`, if given, runs on the
    // capture thread for every frame before it is announced (the raw frame it may copy is the
    // announced one). Only the first callbacks registered for a camera count: one feed per camera
    // and process.
    explicit FrameFeed(const Talvoro::DeviceHandle& camera, std::function<void()> onFrame = {});

    // Waits until more than `seen` frames have been announced and returns their count; nullopt
    // when interrupted (Ctrl-C). Throws when the camera is unplugged or sends nothing for a while.
    std::optional<uint64_t> waitBeyond(uint64_t seen);

    // Waits for a new frame, processes it and hands out its images (valid until the next
    // call). false when interrupted; throws as waitBeyond, or when frames keep failing.
    bool next(Talvoro::Frames* frames);

    // Whether the library reported the camera's stream lost (unplugged).
    bool lost() const;

  private:
    struct State;

    Talvoro::DeviceHandle camera_;
    // Shared with the callbacks, which the library keeps until the camera is unregistered.
    std::shared_ptr<State> state_;
    uint64_t processed_ = 0;  // the announced frame count at the last processed frame
};

// How long a camera may stay silent: the first frame of a data mode takes a moment, the more so
// in the sanitizer builds.
constexpr std::chrono::seconds kFrameTimeout{20};

}  // namespace talvoro_tool

#endif
