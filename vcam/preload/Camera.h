// One virtual camera: its scenario entry and its four nodes.
#ifndef TALVORO_VCAM_CAMERA_H
#define TALVORO_VCAM_CAMERA_H

#include <memory>
#include <string>

#include "Scenario.h"

namespace vcam {

class VideoNode;
class HidNode;

class Camera {
  public:
    explicit Camera(const CameraSpec& spec);

    const CameraSpec& spec() const { return spec_; }
    // uvcvideo's bus_info for the camera's USB port, e.g. "usb-0000:00:14.0-2".
    std::string busInfo() const;

    std::shared_ptr<VideoNode> capture;
    std::shared_ptr<VideoNode> metadata;
    std::shared_ptr<HidNode> hidCommand;
    std::shared_ptr<HidNode> hidImu;

  private:
    CameraSpec spec_;
};

}  // namespace vcam

#endif
