// The capture formats the camera offers, the driver's choice for any request, and the format a
// camera keeps across the processes of one launcher run.
#ifndef TALVORO_VCAM_FORMATS_H
#define TALVORO_VCAM_FORMATS_H

#include <linux/videodev2.h>

#include <cstdint>
#include <string>

namespace vcam::formats {

// The metadata node's buffers: uvcvideo's UVC_METADATA_BUF_SIZE.
constexpr uint32_t kMetadataBufferSize = 10240;

struct Size {
    uint32_t width;
    uint32_t height;
};

struct Format {
    uint32_t fourcc;
    const char* description;
    const Size* sizes;
    int sizeCount;
};

// In ENUM_FMT order; the first is the default.
int count();
const Format& at(int index);
const Format* find(uint32_t fourcc);

// A complete capture format (bytes per line, image size, field, colour space) for a supported
// FourCC and size.
v4l2_pix_format make(uint32_t fourcc, uint32_t width, uint32_t height);
// What a camera starts with: Y16 1280x600, the multiplexed stream.
v4l2_pix_format initial();
// The driver's answer to S_FMT or TRY_FMT: an unknown FourCC becomes the default one, and the
// size the supported one that overlaps the request most (uvcvideo's rule).
v4l2_pix_format negotiate(const v4l2_pix_format& requested);

// The frame interval of a frame rate, as ENUM_FRAMEINTERVALS and G_PARM report it.
v4l2_fract interval(double fps);

// The negotiated format of the camera with `serial`, kept in the testbed's state directory so
// that the next process of the same run finds the camera as the previous one left it.
bool load(const std::string& serial, v4l2_pix_format* format);
void save(const std::string& serial, const v4l2_pix_format& format);

}  // namespace vcam::formats

#endif
