#include "ImuStream.h"

#include <sys/socket.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "Firmware.h"
#include "HidNode.h"

namespace vcam {

namespace {

// Sensitivity per range code: mg per count and degrees per second per count.
constexpr float kAccScale[4] = {0.061f, 0.488f, 0.122f, 0.244f};
constexpr float kGyroScale[4] = {0.00763f, 0.0152f, 0.0304f, 0.0609f};

int16_t counts(double value, float scale) {
    const double c = std::round(value / static_cast<double>(scale));
    return static_cast<int16_t>(std::fmax(-32768.0, std::fmin(32767.0, c)));
}

void put16(HidReport* r, int at, int value) {
    (*r)[at] = static_cast<uint8_t>((value >> 8) & 0xFF);
    (*r)[at + 1] = static_cast<uint8_t>(value & 0xFF);
}

}  // namespace

ImuStream::ImuStream(Firmware& firmware) : firmware_(firmware) {
    configure();
}

ImuStream::~ImuStream() {
    stop();
}

void ImuStream::configure() {
    const Settings s = firmware_.store().snapshot();
    accAxes_ = static_cast<uint8_t>(s.at("imu.acc_axes"));
    accRange_ = static_cast<uint8_t>(s.at("imu.acc_range") & 3);
    gyroAxes_ = static_cast<uint8_t>(s.at("imu.gyro_axes"));
    gyroRange_ = static_cast<uint8_t>(s.at("imu.gyro_range") & 3);
}

void ImuStream::start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> runLock(runMutex_);
        stopping_ = false;
    }
    thread_ = std::thread([this] { loop(); });
}

void ImuStream::stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> runLock(runMutex_);
        stopping_ = true;
        wake_.notify_all();
    }
    thread_.join();
}

void ImuStream::resume() {
    if (firmware_.store().snapshot().at("imu.capture") == 1) start();
}

void ImuStream::fillReport(HidReport* r) {
    r->fill(0);
    (*r)[0] = HidFirmware::kControlClass;
    (*r)[1] = 0x06;
    put16(r, 2, counter_.fetch_add(1));
    (*r)[4] = 0xFE;
    for (int axis = 0; axis < 3; ++axis) {
        const bool on = accAxes_ & (1 << axis);
        put16(r, 5 + 2 * axis, on ? counts(kAccelerationMg[axis], kAccScale[accRange_]) : 0);
    }
    (*r)[15] = 0xFD;
    for (int axis = 0; axis < 3; ++axis) {
        const bool on = gyroAxes_ & (1 << axis);
        put16(r, 16 + 2 * axis, on ? counts(kRateDps[axis], kGyroScale[gyroRange_]) : 0);
    }
    (*r)[48] = 0x01;
}

void ImuStream::loop() {
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1.0 / firmware_.camera().spec().firmware.imuRate));
    auto next = Clock::now();
    std::unique_lock<std::mutex> lock(runMutex_);
    for (;;) {
        next += period;
        if (wake_.wait_until(lock, next, [&] { return stopping_; })) return;
        lock.unlock();
        if (firmware_.unplugged()) return;
        HidReport report;
        fillReport(&report);
        firmware_.camera().hidImu->send(report);
        lock.lock();
    }
}

}  // namespace vcam
