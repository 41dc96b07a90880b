// One camera of the viewer, run by a thread of its own: every library call for the camera is made
// there (calls for one camera must not run on two threads), so the HTTP handlers hand it jobs
// and wait for the reply. The thread opens the camera when it is connected, processes its frames
// while someone watches or waits for a frame, encodes them for the live board, reads the board
// temperatures and the IMU once a second, and notices an unplug; the camera comes back by itself
// when it is connected again.
#ifndef TALVORO_TOOL_VIEW_CAMERA_WORKER_H
#define TALVORO_TOOL_VIEW_CAMERA_WORKER_H

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "TalvoroSDK.h"
#include "ViewControls.h"

namespace talvoro_tool {

class LiveBoard;

// What an HTTP handler answers.
struct Reply {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::string filename;  // a download: sent as an attachment of this name

    static Reply error(int status, const std::string& message);
    static Reply ok(const std::string& body) { return {200, "application/json", body, ""}; }
};

// The images of one processed frame, and its point cloud when asked for. While the camera is
// live they are the library's own images (valid during the job); when paused, copies.
struct HeldFrame {
    uint64_t frame = 0;  // the processed-frame count
    uint64_t sequence = 0;
    Talvoro::DataMode mode = Talvoro::No_Image_Mode;
    cv::Mat depth;     // CV_16UC1 millimetres
    cv::Mat colormap;  // CV_8UC3
    cv::Mat ir;        // CV_16UC1
    cv::Mat colour;    // CV_8UC2 UYVY

    // The organized cloud (one point per depth pixel, NaN without depth), computed by the
    // library on first use; its result code otherwise.
    struct Cloud {
        int result = 0;
        std::vector<float> xyz;    // metres
        std::vector<uint8_t> rgb;  // empty without colour
        int width = 0, height = 0;
        bool colourCamera = false;  // in the colour camera's frame (depth mapped onto colour)
    };
    const Cloud& cloud() const;

  private:
    friend class CameraWorker;
    mutable std::optional<Cloud> cloud_;
    std::function<Cloud()> makeCloud_;
};

// Opens cameras one at a time: opening writes the calibration files into the working directory.
class CameraOpener {
  public:
    virtual ~CameraOpener() = default;
    virtual int open(const Talvoro::DeviceInfo& info, Talvoro::DeviceHandle* handle) = 0;
};

class CameraWorker {
  public:
    CameraWorker(std::string serial, LiveBoard* board, CameraOpener* opener);
    ~CameraWorker();  // stops the thread; the camera stays open for the session to close
    CameraWorker(const CameraWorker&) = delete;
    CameraWorker& operator=(const CameraWorker&) = delete;

    const std::string& serial() const { return serial_; }

    // From the camera list, about once a second: the camera's record while it is connected.
    void connected(const std::optional<Talvoro::DeviceInfo>& info);

    // The open camera and its processing settings, for a job.
    struct Access {
        bool open;
        Talvoro::DeviceHandle handle;
        ProcessingState* processing;
    };
    // Runs `job` on the camera's thread; 504 when it does not get there within `timeout`.
    Reply call(std::function<Reply(Access&)> job, std::chrono::milliseconds timeout);
    // Runs `job` with the next processed frame (at once with the held one when paused); 503 when
    // the camera is not connected, 504 without a frame within `timeout`.
    // A job may answer with status 0 when the library has moved on to a newer frame (a point
    // cloud it asked for too late); it then runs again with the next one.
    Reply withFrame(std::function<Reply(const HeldFrame&)> job, std::chrono::milliseconds timeout);
    // Pausing keeps the next processed frame: the live images stop on it, and hovering,
    // snapshots and the point cloud all refer to it until the camera is resumed.
    Reply pause(bool on, std::chrono::milliseconds timeout);

  private:
    struct Mailbox;
    struct Job;

    Reply post(std::shared_ptr<Job> job, bool frame, std::chrono::milliseconds timeout,
               const std::string& late);
    void run();
    void open(const Talvoro::DeviceInfo& info);
    void lose(const std::string& why);
    void processFrame();
    void publishImages(const HeldFrame& frame);
    void publishStatus();
    void readTelemetry();

    const std::string serial_;
    LiveBoard* board_;
    CameraOpener* opener_;
    std::shared_ptr<Mailbox> mail_;

    // The thread's own state.
    bool open_ = false;
    Talvoro::DeviceHandle handle_{};
    std::string state_ = "disconnected";
    std::string message_;
    Talvoro::DataMode mode_ = Talvoro::No_Image_Mode;
    ProcessingState processing_;
    bool paused_ = false;
    bool pauseRequested_ = false;
    HeldFrame held_;          // while paused
    uint64_t processed_ = 0;  // frames processed since the camera was opened
    uint64_t announced_ = 0;  // the announced-frame count at the last processed frame
    uint64_t sequence_ = 0;
    uint64_t dropped_ = 0;  // frames the viewer was too slow for
    bool skipped_ = false;  // frames were let pass since the last processed one
    std::chrono::steady_clock::time_point lastFrame_;
    std::chrono::steady_clock::time_point lastTelemetry_;
    std::string telemetry_;  // JSON members, without braces
    int fps_ = 0;
    bool imagePresent_[3] = {false, false, false};  // as last published, per image kind
    std::unique_ptr<class JpegEncoder> encoder_;

    std::thread thread_;  // last: starts when everything else is ready
};

}  // namespace talvoro_tool

#endif
