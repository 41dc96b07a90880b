// A camera played by a test or the fuzzer: answer reports queued on the far ends of two socket
// pairs whose near ends the HID channel adopts as its command and IMU descriptors.
#ifndef TALVORO_TESTS_HID_SCRIPTED_CAMERA_H
#define TALVORO_TESTS_HID_SCRIPTED_CAMERA_H

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "hid/HID.h"

namespace talvoro_test {

class ScriptedCamera {
  public:
    explicit ScriptedCamera(Talvoro::HID& hid) {
        int command[2] = {-1, -1}, imu[2] = {-1, -1};
        ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, command);
        ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, imu);
        hid.adoptDescriptors(Talvoro::UniqueFd(command[0]), Talvoro::UniqueFd(imu[0]));
        command_ = Talvoro::UniqueFd(command[1]);
        imu_ = Talvoro::UniqueFd(imu[1]);
    }

    // Queues one answer on the command node (any length; a hidraw read takes 64 bytes).
    bool answer(const std::vector<uint8_t>& report) { return queue(command_.get(), report); }
    // Queues one report on the IMU node.
    bool imuReport(const std::vector<uint8_t>& report) { return queue(imu_.get(), report); }
    // After this, reads on an empty node return 0 bytes at once instead of waiting.
    void hangUp() {
        ::shutdown(command_.get(), SHUT_WR);
        ::shutdown(imu_.get(), SHUT_WR);
    }

    // Queues the reports of a fuzz input, each a length byte (bit 7 set: for the IMU node, else
    // for the command node; low 7 bits: 0..127 bytes) and its bytes, then hangs up.
    void play(const uint8_t* data, std::size_t size) {
        for (std::size_t at = 0; at < size;) {
            const uint8_t header = data[at++];
            const std::size_t n = std::min<std::size_t>(header & 0x7F, size - at);
            const std::vector<uint8_t> report(data + at, data + at + n);
            at += n;
            if (report.empty()) continue;  // an empty datagram would read as a hang-up
            (header & 0x80) ? imuReport(report) : answer(report);
        }
        hangUp();
    }

    // The requests written so far, oldest first.
    std::vector<std::vector<uint8_t>> requests() {
        std::vector<std::vector<uint8_t>> out;
        uint8_t buf[256];
        ssize_t n;
        while ((n = ::recv(command_.get(), buf, sizeof buf, MSG_DONTWAIT)) > 0)
            out.emplace_back(buf, buf + n);
        return out;
    }

  private:
    static bool queue(int fd, const std::vector<uint8_t>& report) {
        return ::send(fd, report.data(), report.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
               static_cast<ssize_t>(report.size());
    }

    Talvoro::UniqueFd command_;
    Talvoro::UniqueFd imu_;
};

// A 64-byte report starting with `bytes`, with `at` set to 0x01 when given (a status byte).
inline std::vector<uint8_t> report(std::initializer_list<uint8_t> bytes, int at = -1) {
    std::vector<uint8_t> r(bytes);
    r.resize(64, 0);
    if (at >= 0) r[static_cast<std::size_t>(at)] = 0x01;
    return r;
}

}  // namespace talvoro_test

#endif
