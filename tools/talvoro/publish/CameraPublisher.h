// One camera's ROS 2 topics for the whole run, and its capture while it is plugged in. Topics
// are built only for matched readers; an unplugged camera's topics stay (quiet) so that readers
// stay matched, and publishing resumes when the camera is started again.
#ifndef TALVORO_TOOL_PUBLISH_CAMERA_PUBLISHER_H
#define TALVORO_TOOL_PUBLISH_CAMERA_PUBLISHER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "FrameFeed.h"
#include "Messages.h"
#include "Processing.h"
#include "Session.h"
#include "Topics.h"

namespace talvoro_tool {

struct PublishOptions {
    std::string ns = "/talvoro";  // canonical (rosNamespace)
    int mode = -1;                // the data mode to switch to; -1 keeps the camera's
    Processing processing;
    bool yuv = false;  // colour as the camera delivers it instead of rgb8
};

class CameraPublisher {
  public:
    CameraPublisher(dds_entity_t participant, const std::string& serial,
                    const PublishOptions& options, StaticTransforms* transforms);
    ~CameraPublisher();
    CameraPublisher(const CameraPublisher&) = delete;
    CameraPublisher& operator=(const CameraPublisher&) = delete;

    // Opens the camera, sets it up and starts publishing. Throws when that fails (the camera is
    // then left to the session, which closes it).
    void start(Session& session, const Talvoro::DeviceInfo& info);
    // Whether it publishes: started, and not unplugged since.
    bool running() const { return running_.load(); }
    // Waits for the capture threads, which end when the camera is unplugged or the run is
    // interrupted (interrupt()).
    void join();

    const std::string& serial() const { return serial_; }
    // The data mode it streams in (set by start()).
    Talvoro::DataMode mode() const { return mode_; }
    // The camera's topics, in a fixed order.
    std::vector<const Topic*> topics() const;
    // Frames the camera announced, and those processed for readers.
    uint64_t captured() const { return captured_.load(); }
    uint64_t processed() const { return processed_.load(); }
    int unplugs() const { return unplugs_.load(); }

  private:
    struct ImageTopics {
        std::unique_ptr<Topic> image;
        std::unique_ptr<Topic> info;  // camera_info, when there is one
    };

    void createTopics(Talvoro::DataMode mode);
    void readCalibration(Talvoro::DataMode mode);
    bool anyFrameTopicWatched() const;
    void frameLoop();
    void publishFrame();
    void publishImage(const ImageTopics& topics, const Talvoro::ToFFrame& frame,
                      const char* encoding, const std::string& frameId, uint64_t stamp,
                      ros::CameraModel* model);
    void publishCloud(uint64_t stamp);
    void imuLoop();

    dds_entity_t participant_;
    std::string serial_;
    std::string token_;
    PublishOptions options_;
    StaticTransforms* transforms_;
    std::string depthFrame_, colourFrame_, imuFrame_;

    ImageTopics depth_, ir_, colour_;
    std::unique_ptr<Topic> points_, imu_;

    // Set up by start(), used by the capture threads.
    Talvoro::DeviceHandle handle_{};
    Talvoro::DataMode mode_ = Talvoro::No_Image_Mode;
    bool depthInColour_ = false;  // depth registered onto the colour image
    bool haveDepthModel_ = false, haveColourModel_ = false;
    ros::CameraModel depthModel_, colourModel_;
    std::unique_ptr<FrameFeed> feed_;

    // Conversion buffers of the frame thread, kept from frame to frame.
    cv::Mat rgb_;
    std::vector<float> xyz_;
    std::vector<uint8_t> pointColours_, cloud_;
    ros::CloudLayout cloudLayout_;

    std::thread frameThread_, imuThread_;
    std::atomic<bool> running_{false};
    std::mutex stopMutex_;
    std::condition_variable stopped_;  // wakes the IMU thread when the camera is gone
    std::atomic<uint64_t> captured_{0}, processed_{0};
    std::atomic<int> unplugs_{0};
};

}  // namespace talvoro_tool

#endif
