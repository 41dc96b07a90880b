// The moving room frame by frame, fast enough for every frame of a stream. The room without
// its ball (the door at rest is out of sight) is rendered once per process, for the ToF camera
// and for each colour size; a frame renders again only the rectangles where the ball and the
// door appear, by the rules of the full renderers in Scene.h.
#ifndef TALVORO_VCAM_LIVE_SCENE_H
#define TALVORO_VCAM_LIVE_SCENE_H

#include <cstdint>
#include <vector>

#include "Scene.h"

namespace vcam::scene {

// A rectangle of pixels, [x0, x1) x [y0, y1).
struct PixelRect {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    bool empty() const { return x0 >= x1 || y0 >= y1; }
};

class LiveScene {
  public:
    // The noise-free ToF exposure at `pose`; valid until the next call.
    const TofImage& tof(const Pose& pose);
    // The colour picture at `pose` and one of the colour sizes (empty for others), UYVY
    // (BT.601, limited range); valid until the next call.
    const std::vector<uint8_t>& colour(const Pose& pose, int width, int height);

    // Renders the still room for the ToF camera and a colour size ahead of the first frame
    // (tenths of a second each, once per process).
    static void prepareTof();
    static void prepareColour(int width, int height);
    // Held across fork(), so that a child never inherits the still room's cache locked.
    static void lockForFork();
    static void unlockAfterFork();

  private:
    // A frame starts from the still room: the last frame's rectangles are put back first.
    TofImage tof_;
    bool tofValid_ = false;
    Pose tofPose_;
    std::vector<float> centreDistance_, centreAmplitude_;  // per pixel, before edge mixing
    std::vector<uint8_t> moving_;                          // a moving thing at the centre
    std::vector<PixelRect> tofDirty_;
    std::vector<Vec3> rays_;        // a row's rays
    std::vector<uint8_t> rowRgb_;   // a row's colours
    std::vector<uint8_t> rowSeen_;  // whether a moving thing shows there
    std::vector<uint8_t> colour_;
    bool colourValid_ = false;
    Pose colourPose_;
    int colourWidth_ = 0, colourHeight_ = 0;
    std::vector<PixelRect> colourDirty_;
};

}  // namespace vcam::scene

#endif
