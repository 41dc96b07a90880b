#include "FirmwareSpec.h"

#include <cstdlib>
#include <sstream>

namespace vcam {

namespace {

// HID blob types: 0 colour intrinsics, 1 depth intrinsics, 2 extrinsics.
const char* const kCalibKeys[3] = {"calib_rgb", "calib_depth", "calib_extrinsic"};

struct KindName {
    BlobKind kind;
    const char* name;
};
const KindName kKindNames[] = {{BlobKind::Both, "both"},
                               {BlobKind::Vga, "vga"},
                               {BlobKind::Hd, "hd"},
                               {BlobKind::NoHeader, "no-header"},
                               {BlobKind::Empty, "empty"},
                               {BlobKind::Missing, "missing"},
                               {BlobKind::Huge, "huge"},
                               {BlobKind::BadFocal, "bad-focal"},
                               {BlobKind::Unending, "unending"}};

bool parseLong(const std::string& text, long min, long max, long* out) {
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || v < min || v > max) return false;
    *out = v;
    return true;
}

// "1 20 3" (values 0..255; blanks separate them, as commas separate command-line keys).
bool parseBytes(const std::string& text, std::vector<uint8_t>* out) {
    std::vector<uint8_t> bytes;
    std::istringstream in(text);
    std::string item;
    while (in >> item) {
        long v = 0;
        if (!parseLong(item, 0, 255, &v)) return false;
        bytes.push_back(static_cast<uint8_t>(v));
    }
    *out = bytes;
    return true;
}

// "major.minor.third.fourth"
bool parseVersion(const std::string& text, FirmwareSpec* spec) {
    long part[4];
    std::istringstream in(text);
    std::string item;
    int n = 0;
    while (std::getline(in, item, '.')) {
        if (n == 4 || !parseLong(item, 0, n < 2 ? 255 : 65535, &part[n])) return false;
        ++n;
    }
    if (n != 4) return false;
    spec->version[0] = static_cast<uint8_t>(part[0]);
    spec->version[1] = static_cast<uint8_t>(part[1]);
    spec->versionBuild[0] = static_cast<uint16_t>(part[2]);
    spec->versionBuild[1] = static_cast<uint16_t>(part[3]);
    return true;
}

bool parseUniqueId(const std::string& text) {
    const std::string digits = text.compare(0, 2, "0x") == 0 ? text.substr(2) : text;
    if (digits.empty() || digits.size() > 16) return false;
    return digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

int calibIndex(const std::string& key) {
    for (int i = 0; i < 3; ++i)
        if (key == kCalibKeys[i]) return i;
    return -1;
}

}  // namespace

uint64_t FirmwareSpec::uniqueIdFor(const std::string& serial) const {
    if (!uniqueId.empty()) return std::strtoull(uniqueId.c_str(), nullptr, 16);
    // FNV-1a of the serial: stable per camera and different between cameras.
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : serial) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return h;
}

bool isFirmwareKey(const std::string& key) {
    return key == "unique_id" || key == "firmware_version" || key == "board_config" ||
           key == "board_config_count" || calibIndex(key) >= 0 || key == "base_temperature" ||
           key == "laser_temperature" || key == "xu_answer_length" || key == "imu_rate";
}

bool setFirmwareKey(FirmwareSpec* spec, const std::string& key, const std::string& value,
                    std::string* error) {
    long v = 0;
    bool ok = true;
    if (key == "unique_id") {
        ok = parseUniqueId(value);
        if (ok) spec->uniqueId = value;
    } else if (key == "firmware_version") {
        ok = parseVersion(value, spec);
    } else if (key == "board_config") {
        // At most 27 values fit between the count and the answer's status byte.
        ok = parseBytes(value, &spec->boardConfig) && spec->boardConfig.size() <= 27;
    } else if (key == "board_config_count") {
        ok = parseLong(value, 0, 65535, &v);
        spec->boardConfigCount = static_cast<int>(v);
    } else if (const int i = calibIndex(key); i >= 0) {
        ok = false;
        for (const auto& k : kKindNames) {
            if (value == k.name) {
                spec->calib[i] = k.kind;
                ok = true;
            }
        }
    } else if (key == "base_temperature" || key == "laser_temperature") {
        ok = parseLong(value, 0, 65535, &v);
        (key == "base_temperature" ? spec->baseTemperature : spec->laserTemperature) =
            static_cast<int>(v);
    } else if (key == "xu_answer_length") {
        ok = parseLong(value, 1, 4096, &v);
        spec->xuAnswerLength = static_cast<int>(v);
    } else if (key == "imu_rate") {
        char* end = nullptr;
        const double rate = std::strtod(value.c_str(), &end);
        ok = !value.empty() && *end == '\0' && rate > 0 && rate <= 1000;
        if (ok) spec->imuRate = rate;
    } else {
        *error = "unknown camera key '" + key + "'";
        return false;
    }
    if (!ok) *error = "bad value for " + key + ": '" + value + "'";
    return ok;
}

std::string serializeFirmware(const FirmwareSpec& spec) {
    const FirmwareSpec def;
    std::ostringstream out;
    if (!spec.uniqueId.empty()) out << "unique_id = " << spec.uniqueId << "\n";
    if (spec.version[0] != def.version[0] || spec.version[1] != def.version[1] ||
        spec.versionBuild[0] != def.versionBuild[0] || spec.versionBuild[1] != def.versionBuild[1])
        out << "firmware_version = " << int(spec.version[0]) << "." << int(spec.version[1]) << "."
            << spec.versionBuild[0] << "." << spec.versionBuild[1] << "\n";
    if (spec.boardConfig != def.boardConfig) {
        out << "board_config = ";
        for (std::size_t i = 0; i < spec.boardConfig.size(); ++i)
            out << (i ? " " : "") << int(spec.boardConfig[i]);
        out << "\n";
    }
    if (spec.boardConfigCount >= 0) out << "board_config_count = " << spec.boardConfigCount << "\n";
    for (int i = 0; i < 3; ++i) {
        if (spec.calib[i] == BlobKind::Both) continue;
        for (const auto& k : kKindNames)
            if (k.kind == spec.calib[i]) out << kCalibKeys[i] << " = " << k.name << "\n";
    }
    if (spec.baseTemperature != def.baseTemperature)
        out << "base_temperature = " << spec.baseTemperature << "\n";
    if (spec.laserTemperature != def.laserTemperature)
        out << "laser_temperature = " << spec.laserTemperature << "\n";
    if (spec.xuAnswerLength != def.xuAnswerLength)
        out << "xu_answer_length = " << spec.xuAnswerLength << "\n";
    if (spec.imuRate != def.imuRate) out << "imu_rate = " << spec.imuRate << "\n";
    return out.str();
}

}  // namespace vcam
