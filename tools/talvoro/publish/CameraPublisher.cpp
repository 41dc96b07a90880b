#include "CameraPublisher.h"

#include <chrono>
#include <cstdio>

#include <opencv2/imgproc.hpp>

#include "DataModes.h"
#include "RosNames.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

uint64_t wallClockNs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

bool watched(const std::unique_ptr<Topic>& topic) {
    return topic && topic->watched();
}

// The colour image's calibration: the HD set belongs to 1280x720.
bool hdColour(DataMode mode) {
    return mode == Depth_IR_RGB_HD_Mode || mode == RGB_HD_Mode;
}

}  // namespace

CameraPublisher::CameraPublisher(dds_entity_t participant, const std::string& serial,
                                 const PublishOptions& options, StaticTransforms* transforms)
    : participant_(participant),
      serial_(serial),
      token_(rosToken(serial)),
      options_(options),
      transforms_(transforms),
      depthFrame_(frameId(token_, "depth")),
      colourFrame_(frameId(token_, "color")),
      imuFrame_(frameId(token_, "imu")) {}

CameraPublisher::~CameraPublisher() {
    join();
}

void CameraPublisher::createTopics(DataMode mode) {
    const ModeInfo& m = modeInfo(mode);
    const Qos qos = sensorDataQos();
    auto create = [&](std::unique_ptr<Topic>* topic, const dds_topic_descriptor_t* type,
                      const std::string& suffix) {
        if (!*topic)
            *topic = std::make_unique<Topic>(participant_, type,
                                             ddsTopicName(options_.ns, token_, suffix), qos.get());
    };
    const std::string depth = options_.processing.map ? "depth_registered" : "depth";
    if (m.depth) {
        create(&depth_.image, &sensor_msgs_msg_dds__Image__desc, depth + "/image_raw");
        create(&depth_.info, &sensor_msgs_msg_dds__CameraInfo__desc, depth + "/camera_info");
        create(&points_, &sensor_msgs_msg_dds__PointCloud2__desc, "points");
    }
    if (m.ir) create(&ir_.image, &sensor_msgs_msg_dds__Image__desc, "ir/image_raw");
    if (m.colour) {
        create(&colour_.image, &sensor_msgs_msg_dds__Image__desc, "color/image_raw");
        create(&colour_.info, &sensor_msgs_msg_dds__CameraInfo__desc, "color/camera_info");
    }
    create(&imu_, &sensor_msgs_msg_dds__Imu__desc, "imu");
}

void CameraPublisher::readCalibration(DataMode mode) {
    haveDepthModel_ = haveColourModel_ = false;
    CalibrationParams c{};
    if (GetDeviceCalibrationParams(handle_, &c) != Ok) {
        std::printf("camera %s has no calibration: no camera_info, points or tf_static\n",
                    serial_.c_str());
        return;
    }
    const bool hd = hdColour(mode);
    const CameraIntrinsics& colour = hd ? c.hd_rgb : c.rgb;
    const uint32_t colourWidth = hd ? 1280 : 640, colourHeight = hd ? 720 : 480;
    const bool colourSize = mode == Depth_IR_RGB_VGA_Mode || mode == RGB_VGA_Mode || hd;
    if (colour.fx != 0 && colourSize) {
        colourModel_ = ros::cameraModel(colour, colourWidth, colourHeight, false);
        haveColourModel_ = true;
    }
    if (depthInColour_) {
        depthModel_ = colourModel_;
        haveDepthModel_ = haveColourModel_;
    } else if (c.depth.fx != 0) {
        depthModel_ = ros::cameraModel(c.depth, 640, 480, options_.processing.undistort);
        haveDepthModel_ = true;
    }
    const StereoExtrinsics& extrinsic = hd ? c.hd_extrinsic : c.extrinsic;
    if (ros::hasTransform(extrinsic))
        transforms_->set(depthFrame_, colourFrame_, ros::colourCameraPose(extrinsic));
}

void CameraPublisher::start(Session& session, const DeviceInfo& info) {
    join();
    const int opened = session.tryOpen(info, &handle_);
    if (opened != Ok)
        throw ToolError("cannot open camera " + serial_ + ": " + resultText(opened) +
                        " (is it in use by another program?)");
    mode_ = useDataMode(handle_, options_.mode);
    if (mode_ == No_Image_Mode) throw ToolError("camera " + serial_ + " is in data mode 1");
    applyProcessing(handle_, options_.processing, mode_);
    depthInColour_ = options_.processing.map;
    createTopics(mode_);
    readCalibration(mode_);
    cloudLayout_ = ros::cloudLayout(modeInfo(mode_).colour);

    feed_ = std::make_unique<FrameFeed>(handle_);
    running_ = true;
    frameThread_ = std::thread(&CameraPublisher::frameLoop, this);
    imuThread_ = std::thread(&CameraPublisher::imuLoop, this);
}

void CameraPublisher::join() {
    if (frameThread_.joinable()) frameThread_.join();
    if (imuThread_.joinable()) imuThread_.join();
}

std::vector<const Topic*> CameraPublisher::topics() const {
    std::vector<const Topic*> list;
    for (const Topic* t : {depth_.image.get(), depth_.info.get(), ir_.image.get(),
                           colour_.image.get(), colour_.info.get(), points_.get(), imu_.get()})
        if (t) list.push_back(t);
    return list;
}

bool CameraPublisher::anyFrameTopicWatched() const {
    return watched(depth_.image) || watched(depth_.info) || watched(ir_.image) ||
           watched(colour_.image) || watched(colour_.info) || watched(points_);
}

void CameraPublisher::frameLoop() {
    uint64_t seen = 0;
    while (!interrupted()) {
        try {
            const std::optional<uint64_t> count = feed_->waitBeyond(seen);
            if (!count) break;
            captured_ += *count - seen;
            seen = *count;
        } catch (const ToolError&) {
            if (!feed_->lost()) continue;  // a silent camera: keep waiting
            ++unplugs_;
            break;
        }
        // Nobody reads this camera: leave the frame unprocessed.
        if (anyFrameTopicWatched()) publishFrame();
    }
    std::lock_guard<std::mutex> lock(stopMutex_);
    running_ = false;
    stopped_.notify_all();
}

void CameraPublisher::publishFrame() {
    Frames frames{};
    FrameInfo info{};
    // A newer frame in between (TimeoutError) or a malformed one: the next announcement brings
    // the next chance; a lost camera shows in the feed.
    if (GetNextFrame(handle_) != Ok || GetFrames(handle_, &frames) != Ok ||
        GetFrameInfo(handle_, &info) != Ok)
        return;
    ++processed_;
    const uint64_t stamp = info.wall_time_ns;
    const std::string& depthFrame = depthInColour_ ? colourFrame_ : depthFrame_;
    publishImage(depth_, frames.raw_depth_frame, ros::kDepthEncoding, depthFrame, stamp,
                 haveDepthModel_ ? &depthModel_ : nullptr);
    publishImage(ir_, frames.ir_frame, ros::kIrEncoding, depthFrame_, stamp, nullptr);
    publishImage(colour_, frames.rgb_frame, options_.yuv ? ros::kUyvyEncoding : ros::kRgbEncoding,
                 colourFrame_, stamp, haveColourModel_ ? &colourModel_ : nullptr);
    if (watched(points_)) publishCloud(stamp);
}

void CameraPublisher::publishImage(const ImageTopics& topics, const ToFFrame& frame,
                                   const char* encoding, const std::string& frameId, uint64_t stamp,
                                   ros::CameraModel* model) {
    if (!frame.frame_data) return;
    if (watched(topics.image)) {
        sensor_msgs_msg_dds__Image_ image{};
        ros::setHeader(&image.header, stamp, frameId);
        if (frame.pixel_format == PixelFormat_UYVY && !options_.yuv) {
            const cv::Mat uyvy(frame.height, frame.width, CV_8UC2, frame.frame_data);
            cv::cvtColor(uyvy, rgb_, cv::COLOR_YUV2RGB_UYVY);
            ros::setImage(&image, frame.width, frame.height, encoding, frame.width * 3u, rgb_.data);
        } else {
            // Depth and IR (16-bit) and UYVY are sent as the library hands them out.
            ros::setImage(&image, frame.width, frame.height, encoding, frame.width * 2u,
                          frame.frame_data);
        }
        topics.image->publish(&image);
    }
    // A camera_info describes its image only at the calibration's size.
    if (model && watched(topics.info) && model->width == frame.width &&
        model->height == frame.height) {
        sensor_msgs_msg_dds__CameraInfo_ info{};
        ros::setHeader(&info.header, stamp, frameId);
        ros::setCameraInfo(&info, model);
        topics.info->publish(&info);
    }
}

void CameraPublisher::publishCloud(uint64_t stamp) {
    const bool colour = modeInfo(mode_).colour;
    const uint32_t flags = colour ? uint32_t(PointCloud_Colored) : uint32_t(PointCloud_Dense);
    PointCloudInfo info{};
    for (int attempt = 0; attempt < 2; ++attempt) {
        const uint32_t capacity = static_cast<uint32_t>(xyz_.size() / 3);
        const int result = GetPointCloud(handle_, flags, xyz_.data(),
                                         colour ? pointColours_.data() : nullptr, capacity, &info);
        if (result == Ok) break;
        // The first frame, or a larger image: make room for the count it reports.
        if (result != InvalidValue || info.count <= capacity) return;
        xyz_.resize(std::size_t(info.count) * 3);
        if (colour) pointColours_.resize(std::size_t(info.count) * 3);
        if (attempt == 1) return;
    }
    const void* data = xyz_.data();
    if (colour) {
        cloud_.resize(std::size_t(info.count) * cloudLayout_.pointStep);
        ros::interleaveColour(xyz_.data(), pointColours_.data(), info.count, cloud_.data());
        data = cloud_.data();
    }
    sensor_msgs_msg_dds__PointCloud2_ cloud{};
    ros::setHeader(&cloud.header, stamp,
                   info.frame == PointCloud_ColorCamera ? colourFrame_ : depthFrame_);
    ros::setPointCloud(&cloud, &cloudLayout_, info.count, data);
    points_->publish(&cloud);
}

void CameraPublisher::imuLoop() {
    // The IMU thread is the only one talking to the camera's HID channel while it publishes: the
    // frame thread uses only the capture side.
    bool capturing = false;
    auto pause = [this](std::chrono::milliseconds d) {
        std::unique_lock<std::mutex> lock(stopMutex_);
        stopped_.wait_for(lock, d, [this] { return !running_ || interrupted(); });
    };
    while (running_ && !interrupted()) {
        if (!imu_->watched()) {
            if (capturing) {
                IMUDATAINPUT_TypeDef stop{2, 1};
                ControlIMUCapture(handle_, &stop);
                capturing = false;
            }
            pause(std::chrono::milliseconds(100));
            continue;
        }
        if (!capturing) {
            // The configuration read sets the scales the samples are converted with.
            IMUCONFIG_TypeDef config{};
            IMUDATAINPUT_TypeDef start{1, 1};
            if (GetIMUConfig(handle_, &config) != Ok || ControlIMUCapture(handle_, &start) != Ok) {
                pause(std::chrono::seconds(1));
                continue;
            }
            capturing = true;
        }
        // Waits about 10 ms, then reads what is pending; HidReadFail when nothing is.
        IMUDATAOUTPUT_TypeDef sample{};
        const int result = GetIMUValue(handle_, &sample);
        if (result != Ok && result != HidReadFail) pause(std::chrono::milliseconds(100));
        if (result != Ok || sample.imuValueCount == 0) continue;
        sensor_msgs_msg_dds__Imu_ message{};
        ros::setHeader(&message.header, wallClockNs(), imuFrame_);
        ros::setImu(&message, sample);
        imu_->publish(&message);
    }
    if (capturing && !feed_->lost()) {
        IMUDATAINPUT_TypeDef stop{2, 1};
        ControlIMUCapture(handle_, &stop);
    }
}

}  // namespace talvoro_tool
