#include "Formats.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "SharedLocks.h"

namespace vcam::formats {

namespace {

// Y16 carries the ToF streams (and the multiplexed ones, whose odd sizes are on purpose),
// UYVY the colour-only streams.
constexpr Size kY16Sizes[] = {{640, 960}, {640, 480}, {1280, 600}, {1443, 960}};
constexpr Size kUyvySizes[] = {{640, 480}, {1280, 720}, {1920, 1080}, {1920, 1200}};
constexpr Format kFormats[] = {
    {V4L2_PIX_FMT_Y16, "16-bit Greyscale", kY16Sizes, 4},
    {V4L2_PIX_FMT_UYVY, "UYVY 4:2:2", kUyvySizes, 4},
};

std::string statePath(const std::string& name) {
    return testbedStatePath(name, "stream");
}

}  // namespace

int count() {
    return static_cast<int>(sizeof kFormats / sizeof kFormats[0]);
}

const Format& at(int index) {
    return kFormats[index];
}

const Format* find(uint32_t fourcc) {
    for (const Format& f : kFormats)
        if (f.fourcc == fourcc) return &f;
    return nullptr;
}

v4l2_pix_format make(uint32_t fourcc, uint32_t width, uint32_t height) {
    v4l2_pix_format f;
    std::memset(&f, 0, sizeof f);
    f.width = width;
    f.height = height;
    f.pixelformat = fourcc;
    f.field = V4L2_FIELD_NONE;
    f.bytesperline = width * 2;
    f.sizeimage = width * height * 2;
    f.colorspace = V4L2_COLORSPACE_SRGB;
    f.priv = V4L2_PIX_FMT_PRIV_MAGIC;
    return f;
}

v4l2_pix_format initial() {
    return make(V4L2_PIX_FMT_Y16, 1280, 600);
}

v4l2_pix_format negotiate(const v4l2_pix_format& requested) {
    const Format* format = find(requested.pixelformat);
    if (!format) format = &kFormats[0];
    const uint64_t rw = requested.width, rh = requested.height;
    uint64_t best = UINT64_MAX;
    Size chosen = format->sizes[0];
    for (int i = 0; i < format->sizeCount && best != 0; ++i) {
        const uint64_t w = format->sizes[i].width, h = format->sizes[i].height;
        const uint64_t overlap = std::min(w, rw) * std::min(h, rh);
        const uint64_t d = w * h + rw * rh - 2 * overlap;
        if (d < best) {
            best = d;
            chosen = format->sizes[i];
        }
    }
    return make(format->fourcc, chosen.width, chosen.height);
}

v4l2_fract interval(double fps) {
    v4l2_fract f;
    if (std::fabs(fps - std::round(fps)) < 1e-9) {
        f.numerator = 1;
        f.denominator = static_cast<uint32_t>(std::lround(fps));
    } else {
        f.numerator = 1000;
        f.denominator = static_cast<uint32_t>(std::lround(fps * 1000));
    }
    return f;
}

bool load(const std::string& serial, v4l2_pix_format* format) {
    const std::string path = statePath(serial);
    std::FILE* f = path.empty() ? nullptr : std::fopen(path.c_str(), "r");
    if (!f) return false;
    char name[8] = {0};
    unsigned w = 0, h = 0;
    const bool parsed = std::fscanf(f, "%4s %ux%u", name, &w, &h) == 3;
    std::fclose(f);
    if (!parsed) return false;
    uint32_t fourcc = 0;
    for (int i = 0; i < 4; ++i)
        fourcc |= static_cast<uint32_t>(name[i] ? name[i] : ' ') << (8 * i);
    const v4l2_pix_format want = make(fourcc, w, h);
    const v4l2_pix_format got = negotiate(want);
    if (got.pixelformat != fourcc || got.width != w || got.height != h) return false;
    *format = got;
    return true;
}

void save(const std::string& serial, const v4l2_pix_format& format) {
    const std::string path = statePath(serial);
    if (path.empty()) return;
    char name[5] = {0};
    for (int i = 0; i < 4; ++i)
        name[i] = static_cast<char>(format.pixelformat >> (8 * i));
    for (int i = 3; i > 0 && name[i] == ' '; --i)
        name[i] = '\0';
    // Written aside and renamed, so that another process never reads half a line.
    const std::string tmp = path + "." + std::to_string(getpid()) + ".tmp";
    std::FILE* f = std::fopen(tmp.c_str(), "w");
    if (!f) return;
    std::fprintf(f, "%s %ux%u\n", name, format.width, format.height);
    if (std::fclose(f) == 0) std::rename(tmp.c_str(), path.c_str());
}

}  // namespace vcam::formats
