#include "CameraWorker.h"

#include <cmath>
#include <condition_variable>
#include <deque>
#include <future>

#include <nlohmann/json.hpp>

#include "../Cli.h"
#include "../DataModes.h"
#include "../Images.h"
#include "JpegEncoder.h"
#include "LiveBoard.h"

namespace talvoro_tool {

using namespace Talvoro;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kTelemetryInterval = std::chrono::seconds(1);
constexpr auto kRetryOpen = std::chrono::seconds(2);
// How long a camera may send nothing before the page says so.
constexpr auto kSilence = std::chrono::seconds(5);

int readScalar(const char* name, const DeviceHandle& camera, Values* values) {
    const Control* c = findControl(name);
    return c && c->get ? c->get(camera, values) : OperationFailed;
}

HeldFrame::Cloud computeCloud(const DeviceHandle& camera, const cv::Mat& depth, bool colour) {
    HeldFrame::Cloud cloud;
    PointCloudInfo info{};
    const uint32_t flags = PointCloud_Organized | (colour ? uint32_t(PointCloud_Colored) : 0u);
    uint32_t capacity = static_cast<uint32_t>(depth.total());
    for (int attempt = 0; attempt < 2; ++attempt) {
        cloud.xyz.assign(std::size_t(capacity) * 3, 0.0f);
        cloud.rgb.assign(colour ? std::size_t(capacity) * 3 : 0, 0);
        cloud.result = GetPointCloud(camera, flags, cloud.xyz.data(),
                                     colour ? cloud.rgb.data() : nullptr, capacity, &info);
        if (cloud.result != InvalidValue || info.count <= capacity) break;
        capacity = info.count;  // a larger image than the depth frame said
    }
    // Without the colour camera's calibration the points themselves are still there.
    if (cloud.result == CalibrationDataNotFound && colour)
        return computeCloud(camera, depth, false);
    if (cloud.result != Ok) {
        cloud.xyz.clear();
        cloud.rgb.clear();
        return cloud;
    }
    cloud.width = info.width;
    cloud.height = info.height;
    cloud.colourCamera = info.frame == PointCloud_ColorCamera;
    return cloud;
}

}  // namespace

Reply Reply::error(int status, const std::string& message) {
    return {status, "application/json", json({{"error", message}}).dump(), ""};
}

const HeldFrame::Cloud& HeldFrame::cloud() const {
    if (!cloud_) {
        if (makeCloud_) {
            cloud_ = makeCloud_();
        } else {
            cloud_ = Cloud{};
            cloud_->result = OperationFailed;
        }
    }
    return *cloud_;
}

struct CameraWorker::Job {
    std::function<Reply(Access&)> call;
    std::function<Reply(const HeldFrame&)> frame;
    Clock::time_point deadline;
    std::promise<Reply> reply;
};

// What the camera's thread waits for, shared with the library's callbacks (which may outlive
// the worker: the library keeps them until the camera is unregistered).
struct CameraWorker::Mailbox {
    std::mutex mutex;
    std::condition_variable cond;
    bool stop = false;
    uint64_t generation = 0;  // one per open, so that a late callback of an earlier one is ignored
    uint64_t frames = 0;      // announced by the frame callback
    bool lost = false;
    std::optional<DeviceInfo> present;
    std::deque<std::shared_ptr<Job>> calls;
    std::deque<std::shared_ptr<Job>> frameJobs;
};

CameraWorker::CameraWorker(std::string serial, LiveBoard* board, CameraOpener* opener)
    : serial_(std::move(serial)),
      board_(board),
      opener_(opener),
      mail_(std::make_shared<Mailbox>()),
      encoder_(std::make_unique<JpegEncoder>()) {
    publishStatus();
    thread_ = std::thread([this] { run(); });
}

CameraWorker::~CameraWorker() {
    {
        std::lock_guard<std::mutex> lock(mail_->mutex);
        mail_->stop = true;
    }
    mail_->cond.notify_all();
    thread_.join();
}

void CameraWorker::connected(const std::optional<DeviceInfo>& info) {
    {
        std::lock_guard<std::mutex> lock(mail_->mutex);
        mail_->present = info;
    }
    mail_->cond.notify_all();
}

Reply CameraWorker::post(std::shared_ptr<Job> job, bool frame, std::chrono::milliseconds timeout,
                         const std::string& late) {
    job->deadline = Clock::now() + timeout;
    std::future<Reply> reply = job->reply.get_future();
    {
        std::lock_guard<std::mutex> lock(mail_->mutex);
        if (mail_->stop) return Reply::error(503, "the viewer is stopping");
        (frame ? mail_->frameJobs : mail_->calls).push_back(std::move(job));
    }
    mail_->cond.notify_all();
    if (reply.wait_for(timeout) != std::future_status::ready) return Reply::error(504, late);
    try {
        return reply.get();
    } catch (const std::future_error&) {
        return Reply::error(503, "the viewer is stopping");  // the job was dropped unrun
    }
}

Reply CameraWorker::call(std::function<Reply(Access&)> job, std::chrono::milliseconds timeout) {
    auto j = std::make_shared<Job>();
    j->call = std::move(job);
    return post(std::move(j), false, timeout, "camera " + serial_ + " did not answer in time");
}

Reply CameraWorker::withFrame(std::function<Reply(const HeldFrame&)> job,
                              std::chrono::milliseconds timeout) {
    auto j = std::make_shared<Job>();
    j->frame = std::move(job);
    return post(std::move(j), true, timeout, "no frame from camera " + serial_ + " in time");
}

void CameraWorker::run() {
    Clock::time_point nextOpen{};
    while (true) {
        std::deque<std::shared_ptr<Job>> calls;
        std::optional<DeviceInfo> present;
        uint64_t frames = 0;
        bool lost = false, frameJobs = false;
        {
            std::unique_lock<std::mutex> lock(mail_->mutex);
            mail_->cond.wait_for(lock, std::chrono::milliseconds(250), [&] {
                return mail_->stop || !mail_->calls.empty() ||
                       (open_ && (mail_->lost || mail_->frames > announced_)) ||
                       (!open_ && mail_->present && Clock::now() >= nextOpen) ||
                       (!mail_->frameJobs.empty() && (!open_ || paused_));
            });
            if (mail_->stop) break;
            calls.swap(mail_->calls);
            present = mail_->present;
            frames = mail_->frames;
            lost = mail_->lost;
            frameJobs = !mail_->frameJobs.empty();
        }
        for (const std::shared_ptr<Job>& job : calls) {
            if (Clock::now() > job->deadline) continue;  // its caller has given up
            Access access{open_, handle_, &processing_};
            Reply reply;
            try {
                reply = job->call(access);
            } catch (const std::exception& e) {
                reply = Reply::error(500, e.what());
            }
            job->reply.set_value(std::move(reply));
        }
        if (!calls.empty() && open_) {
            // A control may have changed the data mode.
            DataMode mode = mode_;
            if (GetDataMode(handle_, &mode) == Ok) mode_ = mode;
            publishStatus();
        }
        if (open_ && lost) lose("unplugged");
        if (!open_ && present && Clock::now() >= nextOpen) {
            open(*present);
            if (!open_) nextOpen = Clock::now() + kRetryOpen;
            // The frame count taken above belongs to the camera as it was before.
            continue;
        }
        if (!open_ && !present && state_ != "disconnected") {
            state_ = "disconnected";
            message_.clear();
            publishStatus();
        }
        if (!open_ || paused_) {
            // Frame jobs: the held frame, or nothing to give.
            std::deque<std::shared_ptr<Job>> jobs;
            {
                std::lock_guard<std::mutex> lock(mail_->mutex);
                jobs.swap(mail_->frameJobs);
            }
            for (const std::shared_ptr<Job>& job : jobs)
                job->reply.set_value(
                    open_ ? job->frame(held_)
                          : Reply::error(503, "camera " + serial_ + " is disconnected"));
        } else if (frames > announced_) {
            announced_ = frames;
            // Frames are processed only for someone: a viewer or a request waiting for one.
            if (frameJobs || board_->viewers() > 0 || pauseRequested_)
                processFrame();
            else
                skipped_ = true;
        }
        if (open_ && Clock::now() - lastTelemetry_ >= kTelemetryInterval) {
            lastTelemetry_ = Clock::now();
            if (board_->viewers() > 0) readTelemetry();
            publishStatus();
        }
    }
    // Leave the IMU as the viewer found it: not sending.
    if (open_) {
        const Control* capture = findControl("imu-capture");
        if (capture) capture->set(handle_, {2});
    }
}

void CameraWorker::open(const DeviceInfo& info) {
    DeviceHandle handle{};
    const int result = opener_->open(info, &handle);
    if (result != Ok) {
        state_ = "error";
        message_ = "cannot open: " + resultText(result) + " (is it in use by another program?)";
        publishStatus();
        return;
    }
    uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(mail_->mutex);
        generation = ++mail_->generation;
        mail_->frames = 0;
        mail_->lost = false;
    }
    std::shared_ptr<Mailbox> mail = mail_;
    RegisterFrameCallback(handle, [mail, generation](int event, int) {
        if (event != 1) return;
        {
            std::lock_guard<std::mutex> lock(mail->mutex);
            if (mail->generation != generation) return;
            ++mail->frames;
        }
        mail->cond.notify_all();
    });
    RegisterNotificationCallback(handle, [mail, generation](int event, int) {
        if (event != 1) return;  // 1: the stream is lost; 0: a time-out, which the page shows
        {
            std::lock_guard<std::mutex> lock(mail->mutex);
            if (mail->generation != generation) return;
            mail->lost = true;
        }
        mail->cond.notify_all();
    });
    handle_ = handle;
    open_ = true;
    state_ = "live";
    message_.clear();
    announced_ = processed_ = sequence_ = dropped_ = 0;
    fps_ = 0;
    lastFrame_ = Clock::now();
    DataMode mode = No_Image_Mode;
    if (GetDataMode(handle_, &mode) == Ok) mode_ = mode;
    processing_.applyTo(handle_);
    // Samples for the IMU readout; stopped again when the viewer ends.
    if (const Control* capture = findControl("imu-capture")) capture->set(handle_, {1});
    readTelemetry();
    publishStatus();
}

void CameraWorker::lose(const std::string& why) {
    // The library has closed and unregistered the camera already.
    open_ = false;
    paused_ = pauseRequested_ = false;
    held_ = HeldFrame{};
    state_ = "disconnected";
    message_ = why;
    telemetry_.clear();
    publishStatus();
}

void CameraWorker::processFrame() {
    int result = GetNextFrame(handle_);
    Frames frames{};
    if (result == Ok) result = GetFrames(handle_, &frames);
    // TimeoutError: a newer frame came in meanwhile, and is announced.
    if (result == TimeoutError || result == FrameSeparationFailed) return;
    if (result != Ok) {
        message_ = "frames fail: " + resultText(result);
        return;
    }
    ++processed_;
    lastFrame_ = Clock::now();
    FrameInfo info{};
    if (GetFrameInfo(handle_, &info) == Ok) {
        // Frames let pass on purpose (paused, nobody watching) are not dropped ones.
        if (processed_ > 1 && !skipped_ && info.sequence > sequence_ + 1)
            dropped_ += info.sequence - sequence_ - 1;
        skipped_ = false;
        sequence_ = info.sequence;
        mode_ = info.data_mode;
    }

    HeldFrame frame;
    frame.frame = processed_;
    frame.sequence = sequence_;
    frame.mode = mode_;
    frame.depth = view(frames.raw_depth_frame);
    frame.colormap = view(frames.depth_colormap_frame);
    frame.ir = view(frames.ir_frame);
    frame.colour = view(frames.rgb_frame);
    const DeviceHandle handle = handle_;
    const bool colour = modeInfo(mode_).colour && !frame.depth.empty();
    const cv::Mat depth = frame.depth;
    frame.makeCloud_ = [handle, depth, colour] { return computeCloud(handle, depth, colour); };

    // Jobs first: a point cloud must be taken before the next frame arrives.
    std::deque<std::shared_ptr<Job>> jobs;
    {
        std::lock_guard<std::mutex> lock(mail_->mutex);
        jobs.swap(mail_->frameJobs);
    }
    std::deque<std::shared_ptr<Job>> again;
    for (const std::shared_ptr<Job>& job : jobs) {
        if (Clock::now() > job->deadline) continue;
        Reply reply;
        try {
            reply = job->frame(frame);
        } catch (const std::exception& e) {
            reply = Reply::error(500, e.what());
        }
        // Status 0: the frame moved on before the job was done; it tries the next one.
        if (reply.status == 0)
            again.push_back(job);
        else
            job->reply.set_value(std::move(reply));
    }
    if (!again.empty()) {
        std::lock_guard<std::mutex> lock(mail_->mutex);
        mail_->frameJobs.insert(mail_->frameJobs.begin(), again.begin(), again.end());
    }

    if (pauseRequested_) {
        held_ = frame;
        held_.depth = frame.depth.clone();
        held_.colormap = frame.colormap.clone();
        held_.ir = frame.ir.clone();
        held_.colour = frame.colour.clone();
        // The cloud now, while the library still has the frame.
        if (!held_.depth.empty()) held_.cloud();
        held_.makeCloud_ = nullptr;
        pauseRequested_ = false;
        paused_ = true;
        state_ = "paused";
        publishStatus();
    }
    if (board_->viewers() > 0 || paused_) publishImages(frame);
}

void CameraWorker::publishImages(const HeldFrame& frame) {
    const cv::Mat* images[kImageKinds] = {&frame.colormap, &frame.ir, &frame.colour};
    for (int kind = 0; kind < kImageKinds; ++kind) {
        const cv::Mat& m = *images[kind];
        LiveImage image;
        image.frame = frame.frame;
        if (!m.empty()) {
            std::string jpeg = kind == kDepthImage ? encoder_->bgr(m)
                               : kind == kIrImage  ? encoder_->ir(m)
                                                   : encoder_->uyvy(m);
            if (jpeg.empty()) continue;
            image.width = m.cols;
            image.height = m.rows;
            image.jpeg = std::make_shared<const std::string>(std::move(jpeg));
        } else if (!imagePresent_[kind]) {
            continue;  // the page knows already
        }
        imagePresent_[kind] = !m.empty();
        board_->publishImage(serial_, kind, std::move(image));
    }
}

void CameraWorker::readTelemetry() {
    const int fps = GetFramesPerSecond(handle_);
    fps_ = fps > 0 ? fps : 0;
    json t;
    Values v;
    if (readScalar("base-temperature", handle_, &v) == Ok) t["base"] = v[0];
    if (readScalar("laser-temperature", handle_, &v) == Ok) t["laser"] = v[0];
    telemetry_.clear();
    json out;
    if (!t.empty()) out["temperatures"] = t;
    if (readScalar("imu-sample", handle_, &v) == Ok && v.size() == 7) {
        out["imu"] = {{"count", v[0]},
                      {"acc", {v[1] / 1000.0, v[2] / 1000.0, v[3] / 1000.0}},
                      {"gyro", {v[4] / 1000.0, v[5] / 1000.0, v[6] / 1000.0}}};
    }
    telemetry_ = out.dump();
}

void CameraWorker::publishStatus() {
    json s = telemetry_.empty() ? json::object() : json::parse(telemetry_);
    s["serial"] = serial_;
    s["state"] = state_;
    if (!message_.empty()) s["message"] = message_;
    if (open_) {
        const ModeInfo& m = modeInfo(mode_);
        s["mode"] = static_cast<int>(mode_);
        s["modeName"] = m.name;
        s["modeDescription"] = m.description;
        s["images"] = {{"depth", m.depth}, {"ir", m.ir}, {"colour", m.colour}};
        s["fps"] = fps_;
        s["frames"] = processed_;
        s["sequence"] = sequence_;
        s["dropped"] = dropped_;
        if (processed_ > 0 && !paused_ && Clock::now() - lastFrame_ > kSilence &&
            board_->viewers() > 0)
            s["message"] = "no frames from the camera";
    }
    board_->publishStatus(serial_, s.dump());
}

Reply CameraWorker::pause(bool on, std::chrono::milliseconds timeout) {
    return call(
        [this, on](Access& access) {
            if (!access.open) return Reply::error(503, "camera " + serial_ + " is disconnected");
            if (on) {
                if (!paused_) pauseRequested_ = true;
            } else {
                skipped_ = skipped_ || paused_;
                paused_ = pauseRequested_ = false;
                held_ = HeldFrame{};
                state_ = "live";
            }
            return Reply::ok(json({{"paused", on}}).dump());
        },
        timeout);
}

}  // namespace talvoro_tool
