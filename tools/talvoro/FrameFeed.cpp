#include "FrameFeed.h"

#include <condition_variable>
#include <mutex>

#include "Cli.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

// Frames in a row that may fail to process (a malformed frame is dropped) before giving up.
constexpr int kFailuresInARow = 50;

}  // namespace

struct FrameFeed::State {
    std::mutex mutex;
    std::condition_variable cond;
    uint64_t frames = 0;
    bool lost = false;
    std::function<void()> onFrame;
};

FrameFeed::FrameFeed(const DeviceHandle& camera, std::function<void()> onFrame)
    : camera_(camera), state_(std::make_shared<State>()) {
    state_->onFrame = std::move(onFrame);
    std::shared_ptr<State> state = state_;
    RegisterFrameCallback(camera, [state](int event, int) {
        if (event != 1) return;
        if (state->onFrame) state->onFrame();
        std::lock_guard<std::mutex> lock(state->mutex);
        ++state->frames;
        state->cond.notify_all();
    });
    RegisterNotificationCallback(camera, [state](int event, int) {
        if (event != 1) return;  // 1: the stream is lost
        std::lock_guard<std::mutex> lock(state->mutex);
        state->lost = true;
        state->cond.notify_all();
    });
}

std::optional<uint64_t> FrameFeed::waitBeyond(uint64_t seen) {
    const auto deadline = std::chrono::steady_clock::now() + kFrameTimeout;
    std::unique_lock<std::mutex> lock(state_->mutex);
    while (state_->frames <= seen) {
        if (state_->lost) throw ToolError("camera " + std::string(camera_.serialNo) + " is gone");
        if (interrupted()) return std::nullopt;
        if (std::chrono::steady_clock::now() > deadline)
            throw ToolError("no frame from camera " + std::string(camera_.serialNo) + " in " +
                            std::to_string(kFrameTimeout.count()) + " s");
        // In slices, so that Ctrl-C is noticed.
        state_->cond.wait_for(lock, std::chrono::milliseconds(100));
    }
    return state_->frames;
}

bool FrameFeed::lost() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->lost;
}

bool FrameFeed::next(Frames* frames) {
    for (int failures = 0; failures < kFailuresInARow;) {
        const std::optional<uint64_t> count = waitBeyond(processed_);
        if (!count) return false;
        processed_ = *count;
        int result = GetNextFrame(camera_);
        // TimeoutError: a newer frame arrived in between; it is announced, so wait for it.
        if (result == TimeoutError) continue;
        if (result == FrameSeparationFailed) {
            ++failures;
            continue;
        }
        check(result, "GetNextFrame");
        result = GetFrames(camera_, frames);
        if (result == TimeoutError) continue;
        check(result, "GetFrames");
        return true;
    }
    throw ToolError("camera " + std::string(camera_.serialNo) + " sends frames that cannot be " +
                    "processed");
}

}  // namespace talvoro_tool
