#include "HidFirmware.h"

#include <cstring>
#include <vector>

#include "Firmware.h"

namespace vcam {

namespace {

// One value of a simple setting: its place in the report and the values the camera accepts.
struct Field {
    uint8_t offset;
    uint8_t width;  // 1, or 4 for a big-endian 32-bit value
    const char* key;
    int64_t minimum, maximum, defaultValue;
};

struct Setting {
    uint8_t get, set;
    std::vector<Field> fields;
    // The auto-exposure region: the fields after the mode count only in manual mode 2.
    bool modeGatesRest = false;
};

const std::vector<Setting>& settings() {
    static const std::vector<Setting> table = {
        {0x01, 0x02, {{2, 1, "hid.camera_mode", 0, 3, 0}}},
        {0x0E, 0x0F, {{2, 1, "hid.anti_flicker", 0, 3, 0}}},
        {0x12, 0x13, {{2, 1, "hid.scene_mode", 0, 1, 0}}},
        {0x14, 0x15, {{2, 1, "hid.special_effect", 0, 4, 0}}},
        {0x16, 0x17, {{2, 1, "hid.denoise", 0, 15, 8}}},
        {0x18,
         0x19,
         {{2, 1, "hid.ae_roi_mode", 0, 2, 1},
          {3, 1, "hid.ae_roi_x", 0, 255, 128},
          {4, 1, "hid.ae_roi_y", 0, 255, 128},
          {5, 1, "hid.ae_roi_window", 1, 8, 4}},
         true},
        {0x1C, 0x1D, {{2, 1, "hid.orientation", 0, 3, 0}}},
        {0x1E,
         0x1F,
         {{2, 1, "hid.face_detection", 0, 1, 0},
          {3, 1, "hid.face_embed", 0, 1, 0},
          {4, 1, "hid.face_overlay", 0, 1, 0}}},
        {0x20, 0x21, {{2, 1, "hid.smile_detection", 0, 1, 0}, {4, 1, "hid.smile_embed", 0, 1, 0}}},
        {0x22, 0x23, {{2, 4, "hid.exposure_compensation", 8000, 1000000, 15000}}},
        {0x24, 0x25, {{2, 1, "hid.frame_rate", 1, 120, 30}}},
        {0x2A, 0x2B, {{2, 1, "hid.imu_embedded", 0, 1, 0}}},
    };
    return table;
}

constexpr uint8_t kSetDefault = 0xFF;

int64_t readField(const HidReport& r, const Field& f) {
    if (f.width == 1) return r[f.offset];
    return (int64_t(r[f.offset]) << 24) | (r[f.offset + 1] << 16) | (r[f.offset + 2] << 8) |
           r[f.offset + 3];
}

void writeField(HidReport* r, const Field& f, int64_t value) {
    for (int i = 0; i < f.width; ++i)
        (*r)[f.offset + i] = static_cast<uint8_t>(value >> (8 * (f.width - 1 - i)));
}

// Status byte of the simple family.
constexpr int kStatus = 6;

}  // namespace

void refuse(const HidReport& request, HidReport* answer) {
    answer->fill(0);
    const bool hasStatus =
        request[0] == HidFirmware::kControlClass && request[1] != 0x32 && request[1] != 0x33;
    (*answer)[0] = hasStatus ? request[0] : 0x00;
    (*answer)[1] = request[1];
}

HidFirmware::HidFirmware(Firmware& firmware) : firmware_(firmware) {}

void HidFirmware::addDefaults(Settings& s) {
    for (const auto& setting : settings())
        for (const auto& f : setting.fields)
            s[f.key] = f.defaultValue;
    s["imu.mode"] = 1;
    s["imu.acc_axes"] = 7;
    s["imu.acc_range"] = 0;
    s["imu.gyro_axes"] = 7;
    s["imu.gyro_range"] = 0;
    s["imu.odr"] = 3;
    s["imu.capture"] = 2;
}

bool HidFirmware::handle(const HidReport& request, HidReport* answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto matches = [&](const std::string& arg) {
        return reportPrefixMatches(arg, request.data(), request.size());
    };
    // A lost request changes nothing, not even the blob selection.
    if (firmware_.faultApplies("hid-silence", matches)) return false;
    const bool chunkRead = request[0] == kControlClass && request[1] == 0x0A;
    if (!chunkRead) selectedBlob_ = -1;
    answer->fill(0);
    if (firmware_.faultApplies("hid-nak", matches)) {
        refuse(request, answer);
        return true;
    }
    switch (request[0]) {
        case kControlClass:
            control(request, answer);
            break;
        case kVersionClass:
        case kUniqueIdClass:
            identity(request, answer);
            break;
        default:
            refuse(request, answer);
            break;
    }
    return true;
}

void HidFirmware::control(const HidReport& request, HidReport* answer) {
    (*answer)[0] = request[0];
    (*answer)[1] = request[1];
    switch (request[1]) {
        case 0x03:
        case 0x04:
        case 0x05:
        case 0x06:
            imuCommand(request, answer);
            return;
        case 0x09:
        case 0x0A:
        case 0x32:
        case 0x33:
            calibrationCommand(request, answer);
            return;
        case 0x28:
        case 0x29:
        case 0x34:
            boardData(request, answer);
            return;
        case kSetDefault:
            firmware_.store().update([](Settings& s) {
                for (const auto& setting : settings())
                    for (const auto& f : setting.fields)
                        s[f.key] = f.defaultValue;
            });
            (*answer)[kStatus] = 0x01;
            return;
        default:
            if (!simpleSetting(request, answer)) refuse(request, answer);
    }
}

bool HidFirmware::simpleSetting(const HidReport& request, HidReport* answer) {
    for (const auto& setting : settings()) {
        if (request[1] == setting.get) {
            const Settings s = firmware_.store().snapshot();
            for (const auto& f : setting.fields)
                writeField(answer, f, s.at(f.key));
            (*answer)[kStatus] = 0x01;
            return true;
        }
        if (request[1] != setting.set) continue;
        std::size_t count = setting.fields.size();
        if (setting.modeGatesRest && request[setting.fields[0].offset] != 2) count = 1;
        for (std::size_t i = 0; i < count; ++i) {
            const Field& f = setting.fields[i];
            const int64_t v = readField(request, f);
            if (v < f.minimum || v > f.maximum) return false;
        }
        firmware_.store().update([&](Settings& s) {
            for (std::size_t i = 0; i < count; ++i)
                s[setting.fields[i].key] = readField(request, setting.fields[i]);
        });
        std::memcpy(answer->data() + 2, request.data() + 2, 4);
        (*answer)[kStatus] = 0x01;
        return true;
    }
    return false;
}

void HidFirmware::identity(const HidReport& request, HidReport* answer) {
    const FirmwareSpec& spec = firmware_.camera().spec().firmware;
    if (request[0] == kVersionClass) {
        (*answer)[0] = kVersionClass;
        (*answer)[1] = spec.version[0];
        (*answer)[2] = spec.version[1];
        (*answer)[3] = static_cast<uint8_t>(spec.versionBuild[0] >> 8);
        (*answer)[4] = static_cast<uint8_t>(spec.versionBuild[0]);
        (*answer)[5] = static_cast<uint8_t>(spec.versionBuild[1] >> 8);
        (*answer)[6] = static_cast<uint8_t>(spec.versionBuild[1]);
        return;
    }
    // 41 00 answers the high half in bytes 1-4, 41 01 the low half in bytes 2-5.
    const uint64_t id = spec.uniqueIdFor(firmware_.camera().spec().serial);
    if (request[1] > 1) {
        refuse(request, answer);
        return;
    }
    const uint32_t half = request[1] == 0 ? uint32_t(id >> 32) : uint32_t(id);
    const int at = request[1] == 0 ? 1 : 2;
    (*answer)[0] = kUniqueIdClass;
    (*answer)[1] = request[1];
    for (int i = 0; i < 4; ++i)
        (*answer)[at + i] = static_cast<uint8_t>(half >> (24 - 8 * i));
}

}  // namespace vcam
