// What the camera threads publish and the live streams send: per camera its newest encoded
// image of each kind and its newest status. A camera thread only swaps pointers here, so a slow
// viewer never holds up capture; a viewer sends whatever is newest when it is ready for more and
// so drops the frames it is too slow for, holding at most one of each image.
#ifndef TALVORO_TOOL_VIEW_LIVE_BOARD_H
#define TALVORO_TOOL_VIEW_LIVE_BOARD_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace talvoro_tool {

enum ImageKind { kDepthImage = 0, kIrImage = 1, kColourImage = 2 };
constexpr int kImageKinds = 3;
// "depth", "ir", "colour".
const char* imageName(int kind);

struct LiveImage {
    uint64_t version = 0;  // changes with every publication
    uint64_t frame = 0;    // the camera's processed-frame count
    int width = 0, height = 0;
    // The JPEG file; null when the data mode has no such image.
    std::shared_ptr<const std::string> jpeg;
};

struct LiveCamera {
    std::string serial;
    uint64_t statusVersion = 0;
    std::shared_ptr<const std::string> status;  // a JSON object
    std::array<LiveImage, kImageKinds> images;
};

class LiveBoard {
  public:
    // A camera appears at its first publication, in that order, and stays.
    void publishImage(const std::string& serial, int kind, LiveImage image);
    void publishStatus(const std::string& serial, std::string json);

    // Waits up to `timeout` for a publication after `*seen` (a version the board returned
    // before; 0 at first), then copies the board into `cameras` and updates `*seen`. False once
    // the board is closed.
    bool wait(uint64_t* seen, std::chrono::milliseconds timeout, std::vector<LiveCamera>* cameras);
    std::vector<LiveCamera> cameras() const;
    void close();

    // Viewers, counted so that their number stays bounded and images are encoded only while
    // someone watches.
    bool addViewer(int limit);
    void removeViewer();
    int viewers() const;

  private:
    LiveCamera& entry(const std::string& serial);

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t version_ = 0;
    bool closed_ = false;
    int viewers_ = 0;
    std::vector<LiveCamera> cameras_;
};

}  // namespace talvoro_tool

#endif
