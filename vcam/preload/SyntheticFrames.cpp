#include "SyntheticFrames.h"

namespace vcam {

SyntheticFrames::SyntheticFrames(uint32_t seed, bool still, double fps)
    : seed_(seed), still_(still), fps_(fps > 0 ? fps : 30) {}

void SyntheticFrames::prepare(const ContentSpec& spec) {
    if (spec.content != Content::Colour) scene::LiveScene::prepareTof();
    if (spec.content == Content::Colour)
        scene::LiveScene::prepareColour(spec.colourWidth, spec.colourHeight);
    else if (spec.content == Content::MultiplexedVga)
        scene::LiveScene::prepareColour(640, 480);
    else if (spec.content == Content::MultiplexedHd)
        scene::LiveScene::prepareColour(1280, 720);
}

const std::vector<uint8_t>& SyntheticFrames::frame(const ContentSpec& spec, uint64_t index) {
    const scene::Pose pose = still_ ? scene::Pose() : scene::poseAt(index / fps_);
    if (spec.content == Content::Colour)
        return scene_.colour(pose, spec.colourWidth, spec.colourHeight);
    raw::quantise(scene_.tof(pose), spec.depthRange, raw::noiseKey(seed_, index), &codes_);
    switch (spec.content) {
        case Content::DepthIr:
            raw::depthIrRows(codes_, &frame_);
            break;
        case Content::Depth:
            raw::rows16(codes_.depth, &frame_);
            break;
        case Content::Ir:
            raw::rows16(codes_.ir, &frame_);
            break;
        case Content::MultiplexedVga:
            raw::multiplexed(codes_, scene_.colour(pose, 640, 480), 640, 480, &frame_);
            break;
        case Content::MultiplexedHd:
            raw::multiplexed(codes_, scene_.colour(pose, 1280, 720), 1280, 720, &frame_);
            break;
        case Content::Colour:
            break;
    }
    return frame_;
}

}  // namespace vcam
