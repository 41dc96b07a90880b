// The camera's UVC extension unit (unit 3): selector 1 takes a command and carries it out,
// selector 2 takes a command and answers it with GET_CUR.
#ifndef TALVORO_VCAM_EXTENSION_UNIT_H
#define TALVORO_VCAM_EXTENSION_UNIT_H

#include <cstdint>
#include <mutex>
#include <string>

#include "FirmwareStore.h"

struct uvc_xu_control_query;

namespace vcam {

class Firmware;

class ExtensionUnit {
  public:
    static constexpr uint8_t kUnit = 3;
    static constexpr uint8_t kCommandSelector = 1;
    static constexpr uint8_t kAnswerSelector = 2;
    static constexpr uint16_t kCommandLength = 8;

    // Command IDs (byte 0 of a command).
    static constexpr uint8_t kCoring = 0x03;
    static constexpr uint8_t kExposure = 0x05;
    static constexpr uint8_t kSensorRegister = 0x08;
    static constexpr uint8_t kDepthRange = 0x19;
    static constexpr uint8_t kFrameMode = 0x1A;

    explicit ExtensionUnit(Firmware& firmware);

    // The settings of a freshly plugged camera.
    static void addDefaults(Settings& settings);

    // One UVCIOC_CTRL_QUERY: 0, or -errno as uvcvideo reports it.
    int query(uvc_xu_control_query& q);

  private:
    int dispatch(uvc_xu_control_query& q);
    uint16_t length(uint8_t selector) const;
    // SET_CUR on the command selector: carries the command out.
    int execute(const uint8_t* command);
    // SET_CUR on the answer selector: chooses what GET_CUR answers.
    int select(const uint8_t* command);
    void answer(uint8_t* data, uint16_t size);
    bool failing(const uvc_xu_control_query& q) const;

    Firmware& firmware_;
    std::mutex mutex_;
    uint8_t lastCommand_[kCommandLength] = {};
    uint8_t selected_[kCommandLength] = {};
    bool hasSelection_ = false;
};

// "EPIPE" for EPIPE (the errno names the trace uses).
std::string errnoName(int err);

}  // namespace vcam

#endif
