// The native part of the talvoro Python package (talvoro._native): one open camera, whose state
// the library's callbacks share; frames that own a copy of each image; and the errors failing
// calls raise.
//
// GIL. Every call into the library runs with the GIL released: a library call may wait for a
// capture thread that itself waits for the GIL in a Python callback. Python objects are touched
// only with the GIL held; no lock of this package is held while the GIL is acquired.
#ifndef TALVORO_PYTHON_NATIVE_H
#define TALVORO_PYTHON_NATIVE_H

#include <pybind11/pybind11.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "TalvoroSDK.h"

namespace talvoro_py {

namespace py = pybind11;

// A failed call, raised in Python as the talvoro.Error subclass its kind and code select.
struct CallError {
    enum class Kind { Result, Gone, Stale };
    int code;
    std::string message;
    Kind kind = Kind::Result;
};

// Throws a CallError for a negative result: "<function> failed: <name> (<code>)".
void check(int result, const char* function);
// The Result's name, "Ok", "TimeoutError", ...
const char* resultName(int code);

// Installs the translation of CallError into the classes talvoro/__init__.py defines.
void registerErrors(py::module_& m);

// Set once the interpreter is shutting down: capture threads no longer call into Python.
extern std::atomic<bool> shuttingDown;

// Releases the GIL for its scope. A thread that would take the GIL back once the interpreter
// shuts down (a daemon thread whose wait ended when its camera closed) is parked instead: the
// interpreter may already be finalizing, and a thread returning to it then is ended from inside
// this destructor, which ends the process.
class GilRelease {
  public:
    GilRelease();
    ~GilRelease();
    GilRelease(const GilRelease&) = delete;
    GilRelease& operator=(const GilRelease&) = delete;

    // The thread that runs the shutdown, which must take the GIL back.
    static void shutdownRunsOnThisThread();

  private:
    PyThreadState* state_;
};

class BufferPool;

// Gives a buffer back to its pool when the pool still exists, else frees it.
struct ReturnToPool {
    std::weak_ptr<BufferPool> pool;
    std::size_t bytes = 0;
    void operator()(uint8_t* buffer) const;
};
using Buffer = std::unique_ptr<uint8_t[], ReturnToPool>;

// Image memory recycled from frame to frame of a camera: fresh memory costs a page fault per
// 4 KiB, several times what copying an image into memory already mapped costs.
class BufferPool : public std::enable_shared_from_this<BufferPool> {
  public:
    Buffer take(std::size_t bytes);
    void give(uint8_t* buffer, std::size_t bytes);

  private:
    static constexpr std::size_t kKept = 16;  // about three frames of data mode 5
    std::mutex mutex_;
    std::vector<std::pair<std::size_t, std::unique_ptr<uint8_t[]>>> free_;
};

// One image of a frame, in memory the frame owns.
struct Image {
    Buffer data;
    int height = 0, width = 0, channels = 1, itemSize = 1;

    bool empty() const { return !data; }
    std::size_t bytes() const { return std::size_t(height) * width * channels * itemSize; }
};

// What GetPointCloud wrote, in memory of its own.
struct Points {
    std::unique_ptr<float[]> xyz;
    std::unique_ptr<uint8_t[]> rgb;
    uint32_t count = 0;
    uint16_t width = 0, height = 0;
};

class CameraState;

// One fetched frame: copies of the images the data mode produces and what GetFrameInfo told.
class Frame {
  public:
    Image depth, ir, uyvy, colormap;  // colormap in RGB order
    Talvoro::FrameInfo info{};
    std::shared_ptr<CameraState> camera;
    uint64_t fetch = 0;  // the camera's fetch that made it

    // The colour image in RGB, converted from the UYVY copy on first use (without the GIL).
    const Image& rgb();
    // The library's point cloud of this frame, while it is still the camera's newest fetch.
    Points points(bool colored, bool organized) const;

  private:
    std::mutex rgbMutex_;
    Image rgb_;
};

// An open camera as the library's callbacks and this package's objects share it.
class CameraState : public std::enable_shared_from_this<CameraState> {
  public:
    // Opens the camera with this serial (Initialize first when needed); throws on failure.
    static std::shared_ptr<CameraState> open(const std::string& serial);
    ~CameraState();

    // Closes the camera once (later calls do nothing). Without the GIL.
    void close();
    bool isOpen() const;
    bool isGone() const;
    const Talvoro::DeviceHandle& handle() const { return handle_; }
    const std::string& serial() const { return serial_; }

    // Waits up to `timeout` seconds (negative: for ever) for a frame announced since the last
    // fetch, processes it and copies its images. A frame the library cannot take apart is
    // skipped; when no other came in time, its failure is raised rather than a time-out.
    // Without the GIL.
    std::unique_ptr<Frame> waitFrame(double timeout);

    // Runs a control call `f()` (a Result), one per camera at a time, after checking the camera
    // is open; throws for a negative result (CameraGone once the camera was unplugged).
    // `streamToo`: the call restarts the stream, so no fetch may run beside it.
    template <typename F>
    int call(const char* function, F&& f, bool streamToo = false) {
        std::unique_lock<std::mutex> command(commandMutex_);
        std::unique_lock<std::mutex> fetching(fetchMutex_, std::defer_lock);
        if (streamToo) fetching.lock();
        _usable(function);
        const int result = f();
        if (streamToo) {
            // Frames announced before the restart are gone with the old stream's buffers.
            std::lock_guard<std::mutex> lock(mutex_);
            taken_ = announced_;
        }
        if (result < 0) _fail(result, function);
        return result;
    }

    // The library's callbacks, on the capture thread.
    void onFrame();
    void onNotification(int event);

    // Python callbacks, run on the capture thread with the GIL; set and cleared with the GIL.
    void setFrameCallback(py::object callback);
    void setUnplugCallback(py::object callback);

    // Every camera still open, closed when the interpreter shuts down.
    static void closeAll();

  private:
    friend class Frame;
    explicit CameraState(const std::string& serial);
    void _usable(const char* function) const;
    [[noreturn]] void _fail(int result, const char* function) const;
    void _callPython(py::object CameraState::*callback);

    const std::string serial_;
    Talvoro::DeviceHandle handle_{};

    mutable std::mutex mutex_;  // guards the rest of this block
    std::condition_variable cond_;
    uint64_t announced_ = 0;  // frames the frame callback announced
    uint64_t taken_ = 0;      // announcements a fetch has consumed
    bool open_ = false;
    bool gone_ = false;

    // One fetch at a time: the library's images are valid until the next one. Also held while
    // a stream restarts or the camera closes.
    mutable std::mutex fetchMutex_;
    uint64_t fetches_ = 0;  // guarded by fetchMutex_
    // One control command at a time: the camera's channels take no concurrent commands.
    std::mutex commandMutex_;
    std::shared_ptr<BufferPool> buffers_ = std::make_shared<BufferPool>();

    std::atomic<bool> hasCallbacks_{false};
    py::object frameCallback_, unplugCallback_;  // guarded by the GIL
};

}  // namespace talvoro_py

#endif
