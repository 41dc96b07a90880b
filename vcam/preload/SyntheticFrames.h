// The synthetic scene as one camera sends it: the moving room rendered at each frame's time
// (t = frame number / frame rate), with sensor noise that follows from the camera's seed and the
// frame's number, so that the same seed gives the same frames.
#ifndef TALVORO_VCAM_SYNTHETIC_FRAMES_H
#define TALVORO_VCAM_SYNTHETIC_FRAMES_H

#include <cstdint>
#include <vector>

#include "LiveScene.h"
#include "RawLayout.h"

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

class SyntheticFrames {
  public:
    // `still`: the ball and the door stay at rest.
    SyntheticFrames(uint32_t seed, bool still, double fps);

    // Renders the still room for `spec` ahead of the first frame (once per process).
    static void prepare(const ContentSpec& spec);
    // Frame number `index` in `spec`'s content; valid until the next call.
    const std::vector<uint8_t>& frame(const ContentSpec& spec, uint64_t index);

  private:
    const uint32_t seed_;
    const bool still_;
    const double fps_;
    scene::LiveScene scene_;
    raw::TofCodes codes_;
    std::vector<uint8_t> frame_;
};

}  // namespace vcam

#endif
