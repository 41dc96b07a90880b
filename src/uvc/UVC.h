// The UVC control channel: extension-unit commands and standard controls on the video node.
#ifndef TALVORO_UVC_UVC_H
#define TALVORO_UVC_UVC_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/ControlNode.h"
#include "uvc/TALVOROUVC.h"

namespace Talvoro {

// The extension unit's wire constants.
inline constexpr uint8_t kXuUnit = 3;
inline constexpr uint8_t kXuCommandSelector = 1;  // takes a command and carries it out
inline constexpr uint8_t kXuAnswerSelector = 2;   // takes a command and answers it

class UVC : public TALVOROUVC {
  public:
    static constexpr std::size_t kCommandSize = 8;

    UVC() = default;

    Result _openUVC(DeviceInfo info) override;
    Result closeUVC() override;
    Result setDepthRange(unsigned short range) override;
    Result getDepthRange(unsigned short* range) override;
    Result setTOFFrameMode(unsigned short first, unsigned short second) override;
    Result getTOFFrameMode(unsigned short* first, unsigned short* second) override;
    Result setTOFExposure(unsigned short exposure) override;
    Result getTOFExposure(unsigned short* exposure) override;
    Result setTOFCoring(unsigned short coring) override;
    Result getTOFCoring(unsigned short* coring) override;
    Result setADIRegister(unsigned short address, unsigned short value) override;
    Result getADIRegister(unsigned short address, unsigned short* value) override;
    Result getPulseConfig(unsigned short* a, unsigned short* b, unsigned short* c,
                          unsigned short* d, unsigned short* e, unsigned short* f) override;
    Result setPulseConfig(unsigned short a, unsigned short b, unsigned short c, unsigned short d,
                          unsigned short e, unsigned short f) override;
    Result getUVCControl(unsigned int index, UVCProp* prop) override;
    Result setUVCControl(unsigned int index, int value) override;

    // The depth range that bounds setTOFExposure.
    uint16_t cachedDepthRange() const { return depthRange_; }

  private:
    // Starts a command: byte 0 = id, the rest zero.
    void _buildCommand(uint8_t id);
    void _put16(std::size_t at, uint16_t value);

    // Sends the command buffer to `selector` (GET_LEN, then SET_CUR).
    Result _setXUCmd(uint8_t selector);
    // Sends the command buffer to `selector` and reads the answer (GET_LEN, SET_CUR, GET_CUR);
    // *value = answer bytes 0-1.
    Result _getXUCmd(uint16_t* value, uint8_t selector);
    // As _getXUCmd, with the answer read back into the command buffer: *first = bytes 0-1,
    // *second = byte 2.
    Result _getXUCmdDatamode(uint16_t* first, uint16_t* second, uint8_t selector);
    // The control's length as the camera reports it (UVC_GET_LEN).
    bool _queryLength(uint8_t selector, uint16_t* length);
    // SET_CUR of the command buffer, padded with zeros or cut to `length` bytes.
    bool _sendCommand(uint8_t selector, uint16_t length);
    // GET_LEN, SET_CUR, GET_CUR; *answer holds at least kCommandSize bytes (zero beyond what
    // the camera returned), however short or long the control is.
    Result _query(uint8_t selector, std::vector<uint8_t>* answer);

    uint8_t command_[kCommandSize] = {};
    uint16_t depthRange_ = 0;
    ControlNode node_;
};

}  // namespace Talvoro

#endif
