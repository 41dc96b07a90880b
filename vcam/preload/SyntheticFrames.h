// The synthetic scene as raw frames, rendered once per kind of content and depth range and
// shared by every camera of the process: per frame the stream only copies one of a few noisy
// variants.
#ifndef TALVORO_VCAM_SYNTHETIC_FRAMES_H
#define TALVORO_VCAM_SYNTHETIC_FRAMES_H

#include <cstdint>
#include <memory>
#include <vector>

namespace vcam {

// What the camera's firmware puts into a frame.
enum class Content {
    DepthIr,         // 480 row pairs of 16-bit depth and IR (1,228,800 bytes)
    Depth,           // 480 rows of 16-bit depth (614,400 bytes)
    Ir,              // 480 rows of 16-bit IR (614,400 bytes)
    MultiplexedVga,  // 12-bit ToF lines with 640x480 colour lines (1,536,000 bytes)
    MultiplexedHd,   // 12-bit ToF lines with 1280x720 colour lines (2,770,560 bytes)
    Colour,          // UYVY at colourWidth x colourHeight
};

struct ContentSpec {
    Content content = Content::MultiplexedVga;
    int colourWidth = 0;  // Colour only
    int colourHeight = 0;
    int depthRange = 0;  // contents with depth only: 0 near (mm), 1 far (2 mm units)

    bool operator==(const ContentSpec& o) const {
        return content == o.content && colourWidth == o.colourWidth &&
               colourHeight == o.colourHeight && depthRange == o.depthRange;
    }
};

struct FrameSet {
    std::vector<std::vector<uint8_t>> variants;  // same content, different sensor noise
};

// Renders on first use (tens to hundreds of milliseconds), then returns the cached frames.
std::shared_ptr<const FrameSet> syntheticFrames(const ContentSpec& spec);

// Held across fork() so that a child never inherits the cache locked by a rendering thread.
void lockSyntheticFramesForFork();
void unlockSyntheticFramesAfterFork();

}  // namespace vcam

#endif
