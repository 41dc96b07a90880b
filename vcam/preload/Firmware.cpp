#include "Firmware.h"

#include <cctype>
#include <cstdlib>

#include "ExtensionUnit.h"
#include "HidFirmware.h"
#include "ImuStream.h"
#include "StandardControls.h"

namespace vcam {

namespace {

Settings defaultSettings() {
    Settings s;
    ExtensionUnit::addDefaults(s);
    StandardControls::addDefaults(s);
    HidFirmware::addDefaults(s);
    return s;
}

}  // namespace

Firmware::Firmware(Camera& camera)
    : camera_(camera),
      store_(FirmwareStore::pathFor(camera.spec().stateName()), defaultSettings()),
      source_(modelCalibration(camera.spec().firmware)),
      xu_(std::make_unique<ExtensionUnit>(*this)),
      controls_(std::make_unique<StandardControls>(*this)),
      hid_(std::make_unique<HidFirmware>(*this)),
      imu_(std::make_unique<ImuStream>(*this)) {
    // A camera that an earlier process of this run configured streams as it was left.
    publishState(store_.snapshot());
}

Firmware::~Firmware() = default;

bool Firmware::unplugged() const {
    if (camera_.state.unplugged.load()) return true;
    for (const FaultSpec& fault : camera_.findFaults("unplug")) {
        if (fault.atFrame == 0) {
            camera_.state.unplugged.store(true);
            return true;
        }
    }
    return false;
}

CalibrationBlob Firmware::calibration(int blobType) {
    std::lock_guard<std::mutex> lock(sourceMutex_);
    return source_ ? source_(blobType) : CalibrationBlob{};
}

void Firmware::setCalibrationSource(CalibrationSource source) {
    std::lock_guard<std::mutex> lock(sourceMutex_);
    source_ = std::move(source);
}

void Firmware::publishState(const Settings& settings) const {
    camera_.state.frameModeFirst.store(static_cast<uint16_t>(settings.at("xu.frame_mode_first")));
    camera_.state.frameModeSecond.store(static_cast<uint8_t>(settings.at("xu.frame_mode_second")));
    camera_.state.depthRange.store(static_cast<uint16_t>(settings.at("xu.depth_range")));
}

bool reportPrefixMatches(const std::string& arg, const uint8_t* data, std::size_t size) {
    if (arg.size() == 4 && arg[0] == '0' && (arg[1] == 'x' || arg[1] == 'X')) {
        const long sub = std::strtol(arg.c_str() + 2, nullptr, 16);
        return size >= 2 && data[0] == 0xB3 && data[1] == sub;
    }
    if (arg.empty() || arg.size() % 2 != 0 || arg.size() / 2 > size) return false;
    for (std::size_t i = 0; i < arg.size() / 2; ++i) {
        const std::string digits = arg.substr(2 * i, 2);
        if (!std::isxdigit(static_cast<unsigned char>(digits[0])) ||
            !std::isxdigit(static_cast<unsigned char>(digits[1])))
            return false;
        if (std::strtol(digits.c_str(), nullptr, 16) != data[i]) return false;
    }
    return true;
}

}  // namespace vcam
