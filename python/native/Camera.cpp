// An open camera: opening and closing, the library's callbacks, waiting for and fetching frames.
#include <chrono>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "Native.h"

namespace talvoro_py {

using namespace Talvoro;

std::atomic<bool> shuttingDown{false};

namespace {
std::atomic<std::thread::id> shutdownThread{};
}  // namespace

GilRelease::GilRelease() : state_(PyEval_SaveThread()) {}

GilRelease::~GilRelease() {
    if (shuttingDown && std::this_thread::get_id() != shutdownThread.load()) {
        while (true)
            std::this_thread::sleep_for(std::chrono::hours(1));
    }
    PyEval_RestoreThread(state_);
}

void GilRelease::shutdownRunsOnThisThread() {
    shutdownThread = std::this_thread::get_id();
}

namespace {

// The library keeps a camera's first frame and notification callbacks until the camera leaves
// its registry, however often it is opened: the callbacks registered for a serial forward to
// whichever state currently has that camera open.
struct Dispatch {
    std::mutex mutex;
    std::weak_ptr<CameraState> current;

    std::shared_ptr<CameraState> target() {
        std::lock_guard<std::mutex> lock(mutex);
        return current.lock();
    }
};

std::mutex registryMutex;  // guards the two maps below
std::map<std::string, std::shared_ptr<Dispatch>>& dispatches() {
    static auto* map = new std::map<std::string, std::shared_ptr<Dispatch>>;
    return *map;
}
std::vector<std::weak_ptr<CameraState>>& openCameras() {
    static auto* list = new std::vector<std::weak_ptr<CameraState>>;
    return *list;
}

std::shared_ptr<Dispatch> dispatchFor(const std::string& serial) {
    std::lock_guard<std::mutex> lock(registryMutex);
    std::shared_ptr<Dispatch>& d = dispatches()[serial];
    if (!d) d = std::make_shared<Dispatch>();
    return d;
}

// The camera with this serial as the library lists it; found false when it lists none.
DeviceInfo findCamera(const std::string& serial, bool* found) {
    *found = false;
    uint32_t count = 0;
    check(GetDeviceCount(&count), "GetDeviceCount");
    std::vector<DeviceInfo> list(count);
    if (count > 0) check(GetDeviceListInfo(count, list.data()), "GetDeviceListInfo");
    for (const DeviceInfo& info : list) {
        if (serial.empty() || serial == std::string(info.serialNo, strnlen(info.serialNo, 50))) {
            *found = true;
            return info;
        }
    }
    return DeviceInfo{};
}

thread_local bool onCaptureThread = false;

// Copies a library image (rows back to back) into a buffer of the pool.
Image copyImage(const ToFFrame& frame, int channels, int itemSize, bool swapRedBlue,
                BufferPool& pool) {
    Image image;
    if (!frame.frame_data || frame.width == 0 || frame.height == 0) return image;
    image.height = frame.height;
    image.width = frame.width;
    image.channels = channels;
    image.itemSize = itemSize;
    if (image.bytes() != frame.total_size) return Image{};
    image.data = pool.take(image.bytes());
    if (!swapRedBlue) {
        std::memcpy(image.data.get(), frame.frame_data, image.bytes());
        return image;
    }
    // The colour map comes in blue-green-red: the one copy also reorders it.
    const cv::Mat in(image.height, image.width, CV_8UC3, frame.frame_data);
    cv::Mat out(image.height, image.width, CV_8UC3, image.data.get());
    cv::cvtColor(in, out, cv::COLOR_BGR2RGB);
    return image;
}

}  // namespace

CameraState::CameraState(const std::string& serial) : serial_(serial) {}

CameraState::~CameraState() {
    // The Python side has closed the camera and cleared its callbacks by now; this only makes
    // sure that the library never calls into a camera nobody closed.
    if (open_) close();
}

std::shared_ptr<CameraState> CameraState::open(const std::string& serial) {
    const int init = Initialize();
    if (init < 0) check(init, "Initialize");
    bool found = false;
    DeviceInfo info = findCamera(serial, &found);
    if (!found) {
        if (serial.empty()) throw CallError{NoDeviceConnected, "no Talvoro camera is connected"};
        throw CallError{InvalidNode, "no Talvoro camera with serial '" + serial + "'"};
    }
    std::shared_ptr<CameraState> state(new CameraState(info.serialNo));
    check(OpenDevice(info, &state->handle_), "OpenDevice");
    state->open_ = true;

    std::shared_ptr<Dispatch> dispatch = dispatchFor(state->serial_);
    {
        std::lock_guard<std::mutex> lock(dispatch->mutex);
        dispatch->current = state;
    }
    {
        std::lock_guard<std::mutex> lock(registryMutex);
        openCameras().push_back(state);
    }
    // Ignored by the library when this camera's callbacks are registered already (opened
    // before): those forward through the same dispatch.
    RegisterFrameCallback(state->handle_, [dispatch](int, int) {
        if (std::shared_ptr<CameraState> s = dispatch->target()) s->onFrame();
    });
    RegisterNotificationCallback(state->handle_, [dispatch](int event, int) {
        if (std::shared_ptr<CameraState> s = dispatch->target()) s->onNotification(event);
    });
    return state;
}

void CameraState::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!open_) return;
        open_ = false;
    }
    cond_.notify_all();
    {
        std::shared_ptr<Dispatch> dispatch = dispatchFor(serial_);
        std::lock_guard<std::mutex> lock(dispatch->mutex);
        if (dispatch->current.lock().get() == this) dispatch->current.reset();
    }
    // Not beside a command or a fetch that still uses the camera.
    std::lock_guard<std::mutex> command(commandMutex_);
    std::lock_guard<std::mutex> fetching(fetchMutex_);
    // An unplugged camera has been closed and unregistered by the library already.
    if (!isGone()) CloseDevice(handle_);
}

bool CameraState::isOpen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
}

bool CameraState::isGone() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return gone_;
}

void CameraState::closeAll() {
    std::vector<std::weak_ptr<CameraState>> cameras;
    {
        std::lock_guard<std::mutex> lock(registryMutex);
        cameras.swap(openCameras());
    }
    for (const std::weak_ptr<CameraState>& weak : cameras)
        if (std::shared_ptr<CameraState> camera = weak.lock()) camera->close();
}

void CameraState::_usable(const char* function) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (gone_)
        throw CallError{CameraNotOpened, std::string(function) + ": camera " + serial_ + " is gone",
                        CallError::Kind::Gone};
    if (!open_)
        throw CallError{CameraNotOpened,
                        std::string(function) + ": camera " + serial_ + " is closed"};
}

void CameraState::_fail(int result, const char* function) const {
    // After an unplug the library no longer knows the camera: say why.
    if (result == CameraNotOpened) _usable(function);
    check(result, function);
    throw CallError{result, function};  // not reached
}

std::unique_ptr<Frame> CameraState::waitFrame(double timeout) {
    if (onCaptureThread)
        throw CallError{OperationFailed,
                        "wait_frame inside a frame or unplug callback would wait for itself"};
    using Clock = std::chrono::steady_clock;
    const bool forever = timeout < 0;
    const Clock::time_point deadline =
        forever ? Clock::time_point::max()
                : Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(timeout));
    int skipped = Ok;  // the failure of a frame skipped
    while (true) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            auto ready = [&] { return announced_ > taken_ || gone_ || !open_; };
            if (forever)
                cond_.wait(lock, ready);
            else
                cond_.wait_until(lock, deadline, ready);
        }
        _usable("wait_frame");
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (announced_ <= taken_) {
                if (skipped != Ok) _fail(skipped, "wait_frame");
                char text[96];
                std::snprintf(text, sizeof text, "wait_frame: no frame from %s within %.3g s",
                              serial_.c_str(), timeout);
                throw CallError{TimeoutError, text};
            }
            taken_ = announced_;
        }

        std::lock_guard<std::mutex> fetching(fetchMutex_);
        _usable("wait_frame");
        int result = GetNextFrame(handle_);
        auto frame = std::make_unique<Frame>();
        Frames images{};
        if (result == Ok) result = GetFrames(handle_, &images);
        if (result == Ok) result = GetFrameInfo(handle_, &frame->info);
        // A frame captured in the meantime makes these images stale: fetch that one.
        if (result == TimeoutError) continue;
        if (result == FrameSeparationFailed) {
            skipped = result;
            continue;
        }
        if (result < 0) _fail(result, "wait_frame");
        frame->depth = copyImage(images.raw_depth_frame, 1, 2, false, *buffers_);
        frame->ir = copyImage(images.ir_frame, 1, 2, false, *buffers_);
        frame->uyvy = copyImage(images.rgb_frame, 2, 1, false, *buffers_);
        frame->colormap = copyImage(images.depth_colormap_frame, 3, 1, true, *buffers_);
        frame->camera = shared_from_this();
        frame->fetch = ++fetches_;
        return frame;
    }
}

void CameraState::onFrame() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++announced_;
    }
    cond_.notify_all();
    _callPython(&CameraState::frameCallback_);
}

void CameraState::onNotification(int event) {
    if (event != 1) return;  // 0: ten seconds without a frame, nothing to tell
    {
        std::lock_guard<std::mutex> lock(mutex_);
        gone_ = true;
    }
    cond_.notify_all();
    _callPython(&CameraState::unplugCallback_);
}

void CameraState::_callPython(py::object CameraState::*callback) {
    if (!hasCallbacks_ || shuttingDown) return;
    onCaptureThread = true;
    {
        py::gil_scoped_acquire gil;
        // Read with the GIL: the application may be clearing it right now.
        py::object f = this->*callback;
        if (f && !f.is_none()) {
            try {
                f();
            } catch (py::error_already_set& e) {
                e.discard_as_unraisable("talvoro camera callback");
            }
        }
    }
    onCaptureThread = false;
}

void CameraState::setFrameCallback(py::object callback) {
    frameCallback_ = std::move(callback);
    hasCallbacks_ = bool(frameCallback_) || bool(unplugCallback_);
}

void CameraState::setUnplugCallback(py::object callback) {
    unplugCallback_ = std::move(callback);
    hasCallbacks_ = bool(frameCallback_) || bool(unplugCallback_);
}

}  // namespace talvoro_py
