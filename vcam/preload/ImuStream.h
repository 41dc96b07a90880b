// The camera's inertial sensor: value reports on the IMU interface at a steady rate while
// capture runs, scaled by the configured ranges.
#ifndef TALVORO_VCAM_IMU_STREAM_H
#define TALVORO_VCAM_IMU_STREAM_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "HidFirmware.h"

namespace vcam {

class Firmware;

class ImuStream {
  public:
    // What the sensor measures: the camera at rest, level, with a small gyroscope bias.
    static constexpr double kAccelerationMg[3] = {-20.0, 1000.0, 35.0};
    static constexpr double kRateDps[3] = {1.5, -0.75, 0.25};

    explicit ImuStream(Firmware& firmware);
    ~ImuStream();
    ImuStream(const ImuStream&) = delete;
    ImuStream& operator=(const ImuStream&) = delete;

    // Capture on and off. The reports go to every open file of the IMU node.
    void start();
    void stop();
    // Starts when an earlier process of this run left capture on.
    void resume();
    // Takes the ranges and axes of the stored configuration.
    void configure();

    // A value report: B3 06, counter, 0xFE + acceleration, 0xFD + rate, status 0x01 at 48.
    void fillReport(HidReport* report);

  private:
    struct Run {
        std::mutex mutex;
        std::condition_variable wake;
        bool stop = false;
    };
    void loop(std::shared_ptr<Run> run);

    Firmware& firmware_;
    std::mutex mutex_;
    std::shared_ptr<Run> run_;  // null while capture is off
    std::atomic<uint16_t> counter_{0};
    std::atomic<uint8_t> accAxes_{7}, accRange_{0}, gyroAxes_{7}, gyroRange_{0};
};

}  // namespace vcam

#endif
