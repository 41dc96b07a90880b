// The camera's inertial sensor: value reports on the IMU interface at a steady rate while
// capture runs, scaled by the configured ranges.
#ifndef TALVORO_VCAM_IMU_STREAM_H
#define TALVORO_VCAM_IMU_STREAM_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

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
    void loop();

    Firmware& firmware_;
    std::mutex mutex_;    // serialises start and stop
    std::thread thread_;  // joinable while capture is on
    std::mutex runMutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::atomic<uint16_t> counter_{0};
    std::atomic<uint8_t> accAxes_{7}, accRange_{0}, gyroAxes_{7}, gyroRange_{0};
};

}  // namespace vcam

#endif
