// A V4L2 capture node driven the way a plain client drives it, for the virtual camera's tests.
#ifndef TALVORO_TESTS_VCAM_VIDEO_DEVICE_H
#define TALVORO_TESTS_VCAM_VIDEO_DEVICE_H

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "talvoro_vcam.h"

namespace vcamtest {

// 0 or -errno, without retrying: the tests look at EINTR themselves.
inline int rawIoctl(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg) == 0 ? 0 : -errno;
}

// 0 or -errno, repeated on EINTR as the library does.
inline int xioctl(int fd, unsigned long request, void* arg) {
    int r;
    do {
        r = rawIoctl(fd, request, arg);
    } while (r == -EINTR);
    return r;
}

// Waits up to `ms` for the descriptor to become readable.
inline bool readable(int fd, int ms) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    return ::select(fd + 1, &set, nullptr, nullptr, &tv) > 0;
}

// Polls `condition` until it holds or `seconds` pass.
template <typename Fn>
bool waitFor(Fn condition, double seconds = 20) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// What a shell command writes to standard output and standard error.
inline std::string commandOutput(const std::string& command) {
    std::string out;
    if (FILE* p = ::popen((command + " 2>&1").c_str(), "r")) {
        char buf[512];
        while (std::fgets(buf, sizeof buf, p))
            out += buf;
        ::pclose(p);
    }
    return out;
}

inline pid_t threadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// Whether thread `tid` of this process sleeps in the kernel (blocked in a wait).
inline bool sleeping(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    const auto paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'S';
}

inline talvoro_vcam::FrameCounters counters(const char* serial) {
    talvoro_vcam::FrameCounters c{};
    EXPECT_TRUE(talvoro_vcam::frameCounters(serial, &c));
    return c;
}

class VideoDevice {
  public:
    // `type`: the buffers it streams (video capture, or metadata on a metadata node).
    explicit VideoDevice(const std::string& path, int flags = O_RDWR | O_NONBLOCK,
                         uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE)
        : fd_(::open(path.c_str(), flags)), type_(type) {}
    ~VideoDevice() { close(); }
    VideoDevice(const VideoDevice&) = delete;
    VideoDevice& operator=(const VideoDevice&) = delete;

    int fd() const { return fd_; }
    // Hands the descriptor over: this object no longer closes it.
    int releaseFd() { return std::exchange(fd_, -1); }
    bool isOpen() const { return fd_ >= 0; }
    void close() {
        unmap();
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    int ioctl(unsigned long request, void* arg) { return xioctl(fd_, request, arg); }

    int setFormat(uint32_t fourcc, uint32_t width, uint32_t height,
                  v4l2_pix_format* result = nullptr) {
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        f.fmt.pix.pixelformat = fourcc;
        f.fmt.pix.width = width;
        f.fmt.pix.height = height;
        f.fmt.pix.field = V4L2_FIELD_INTERLACED;
        const int r = ioctl(VIDIOC_S_FMT, &f);
        if (result) *result = f.fmt.pix;
        return r;
    }

    v4l2_pix_format format() {
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(ioctl(VIDIOC_G_FMT, &f), 0);
        return f.fmt.pix;
    }

    // REQBUFS; returns the granted count or -errno.
    int requestBuffers(uint32_t count) {
        if (count == 0) unmap();
        v4l2_requestbuffers req{};
        req.count = count;
        req.type = type_;
        req.memory = V4L2_MEMORY_MMAP;
        const int r = ioctl(VIDIOC_REQBUFS, &req);
        return r < 0 ? r : static_cast<int>(req.count);
    }

    v4l2_buffer queryBuffer(uint32_t index) {
        v4l2_buffer b = buffer(index, type_);
        EXPECT_EQ(ioctl(VIDIOC_QUERYBUF, &b), 0);
        return b;
    }

    // Requests, maps and queues `count` buffers and starts streaming.
    void start(uint32_t count = 3) {
        const int granted = requestBuffers(count);
        ASSERT_GT(granted, 0);
        for (uint32_t i = 0; i < static_cast<uint32_t>(granted); ++i) {
            const v4l2_buffer b = queryBuffer(i);
            void* p = ::mmap(nullptr, b.length, PROT_READ, MAP_SHARED, fd_, b.m.offset);
            ASSERT_NE(p, MAP_FAILED);
            maps_.push_back({static_cast<uint8_t*>(p), b.length});
            ASSERT_EQ(queue(i), 0);
        }
        uint32_t type = type_;
        ASSERT_EQ(ioctl(VIDIOC_STREAMON, &type), 0);
    }

    int streamOff() {
        uint32_t type = type_;
        return ioctl(VIDIOC_STREAMOFF, &type);
    }

    // Stops streaming and frees the buffers.
    void stop() {
        streamOff();
        requestBuffers(0);
    }

    int queue(uint32_t index) {
        v4l2_buffer b = buffer(index, type_);
        return ioctl(VIDIOC_QBUF, &b);
    }

    // Waits for a frame (up to `ms`) and dequeues it. 0 or -errno (-ETIME on time-out).
    int dequeue(v4l2_buffer* b, int ms = 20000) {
        if (!readable(fd_, ms)) return -ETIME;
        *b = buffer(0, type_);
        return ioctl(VIDIOC_DQBUF, b);
    }

    const uint8_t* data(uint32_t index) const { return maps_.at(index).data; }

    // Dequeues one frame, copies its bytesused, gives the buffer back.
    std::vector<uint8_t> grab(v4l2_buffer* info = nullptr) {
        v4l2_buffer b{};
        const int r = dequeue(&b);
        EXPECT_EQ(r, 0) << std::strerror(-r);
        if (r != 0) return {};
        std::vector<uint8_t> frame(data(b.index), data(b.index) + b.bytesused);
        EXPECT_EQ(queue(b.index), 0);
        if (info) *info = b;
        return frame;
    }

    static v4l2_buffer buffer(uint32_t index, uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        v4l2_buffer b{};
        b.index = index;
        b.type = type;
        b.memory = V4L2_MEMORY_MMAP;
        return b;
    }

  private:
    struct Map {
        uint8_t* data;
        std::size_t length;
    };
    void unmap() {
        for (const Map& m : maps_)
            ::munmap(m.data, m.length);
        maps_.clear();
    }

    int fd_;
    uint32_t type_;
    std::vector<Map> maps_;
};

}  // namespace vcamtest

#endif
