// The control table: every camera control the tool knows, with its fields, ranges and the
// public functions that read and change it.
#include "Controls.h"

#include <climits>

#include "DataModes.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

const char* const kAnyMode = "";
const char* const kColourModes = "a colour stream (data modes 4 to 9)";
const char* const kColourOnlyModes = "a colour-only data mode (6 to 9)";
const char* const kDepthModes = "depth (data modes 0, 2, 4, 5)";
const char* const kNotColourOnly = "a depth data mode (0 to 5)";

Field number(const char* name, int64_t min, int64_t max) {
    Field f;
    f.name = name;
    f.min = min;
    f.max = max;
    return f;
}

Field choice(const char* name, std::vector<Choice> choices) {
    Field f;
    f.name = name;
    f.choices = std::move(choices);
    f.min = f.choices.front().value;
    f.max = f.choices.back().value;
    return f;
}

Field onOff(const char* name) {
    return choice(name, {{0, "off"}, {1, "on"}});
}

// A control of one value that a pair of public functions reads and changes (set may be null).
template <typename T>
Control scalar(const char* name, const char* description, const char* modes, Field field,
               Result (*get)(DeviceHandle, T*), Result (*set)(DeviceHandle, T) = nullptr) {
    Control c;
    c.name = name;
    c.description = description;
    c.modes = modes;
    c.fields = {std::move(field)};
    c.get = [get](const DeviceHandle& h, Values* v) {
        T value{};
        const int result = get(h, &value);
        *v = {static_cast<int64_t>(value)};
        return result;
    };
    if (set) {
        c.set = [set](const DeviceHandle& h, const Values& v) {
            return set(h, static_cast<T>(v[0]));
        };
    }
    return c;
}

// A standard colour-sensor control by its index. The two automatic switches (3 and 9) report
// their value only; the others report range, step and default too.
Control uvcControl(const char* name, unsigned id, const char* description, Field field) {
    const bool full = id != 3 && id != 9;
    Control c;
    c.name = name;
    c.description = description;
    c.modes = kColourModes;
    c.fields = {std::move(field)};
    c.get = [id](const DeviceHandle& h, Values* v) {
        UVCProp prop{};
        const int result = GetUVCControl(h, id, &prop);
        *v = {prop.cur_value};
        return result;
    };
    c.set = [id](const DeviceHandle& h, const Values& v) {
        return SetUVCControl(h, id, static_cast<int>(v[0]));
    };
    if (full) {
        c.refine = [id](const DeviceHandle& h, std::vector<Field>* fields) {
            UVCProp prop{};
            if (GetUVCControl(h, id, &prop) != Ok) return;
            Field& f = fields->front();
            f.min = prop.min_value;
            f.max = prop.max_value;
            f.step = prop.step;
            f.byDefault = prop.default_value;
        };
    }
    return c;
}

std::vector<Control> makeControls() {
    std::vector<Control> list;

    // ---- Streaming and time of flight ----
    std::vector<Choice> modes;
    for (int m = 0; m < kDataModes; ++m)
        modes.push_back({m, modeInfo(m).name});
    list.push_back(scalar("data-mode", "what the camera streams", kAnyMode, choice("mode", modes),
                          GetDataMode, SetDataMode));
    list.push_back(scalar(
        "depth-range", "near (up to about 4 m, millimetres) or far (up to about 8 m)",
        kNotColourOnly, choice("range", {{0, "near"}, {1, "far"}}), GetDepthRange, SetDepthRange));
    {
        Control c = scalar("tof-exposure",
                           "time-of-flight exposure (at most 380 in near range, 850 in far range)",
                           kAnyMode, number("exposure", 0, 850), GetTOFExposure, SetTOFExposure);
        c.refine = [](const DeviceHandle& h, std::vector<Field>* fields) {
            uint16_t range = 0;
            if (GetDepthRange(h, &range) == Ok) fields->front().max = range == 1 ? 850 : 380;
        };
        list.push_back(std::move(c));
    }
    list.push_back(scalar("tof-coring", "coring threshold of the depth sensor", kDepthModes,
                          number("coring", 1, 65535), GetTOFCoring, SetTOFCoring));

    // ---- Standard colour-sensor controls ----
    const Field anyInt = number("value", INT32_MIN, INT32_MAX);
    list.push_back(uvcControl("brightness", 0, "colour brightness", anyInt));
    list.push_back(uvcControl("contrast", 1, "colour contrast", anyInt));
    list.push_back(uvcControl("saturation", 2, "colour saturation", anyInt));
    list.push_back(uvcControl("white-balance-auto", 3, "automatic white balance", onOff("state")));
    list.push_back(uvcControl("gamma", 4, "colour gamma", anyInt));
    list.push_back(uvcControl("gain", 5, "colour gain", anyInt));
    list.push_back(uvcControl("power-line-frequency", 6, "mains frequency to suppress",
                              choice("frequency", {{0, "off"}, {1, "50hz"}, {2, "60hz"}})));
    list.push_back(uvcControl("white-balance-temperature", 7,
                              "white balance in kelvin (when not automatic)", anyInt));
    list.push_back(uvcControl("sharpness", 8, "colour sharpness", anyInt));
    list.push_back(
        uvcControl("auto-exposure", 9, "colour exposure mode",
                   choice("mode", {{0, "auto"}, {1, "manual"}, {3, "aperture-priority"}})));
    list.push_back(uvcControl("exposure-time", 10, "colour exposure time (when manual)", anyInt));

    // ---- Camera features over HID ----
    list.push_back(scalar("anti-flicker", "flicker suppression", kColourModes,
                          choice("mode", {{0, "auto"}, {1, "50hz"}, {2, "60hz"}, {3, "off"}}),
                          GetAntiFlickerDetection, SetAntiFlickerDetection));
    list.push_back(scalar("scene-mode", "scene mode", kColourModes,
                          choice("mode", {{0, "normal"}, {1, "macro"}}), GetSceneMode,
                          SetSceneMode));
    list.push_back(scalar("special-effect", "colour effect", kColourModes,
                          choice("effect", {{0, "normal"},
                                            {1, "black-and-white"},
                                            {2, "greyscale"},
                                            {3, "negative"},
                                            {4, "sketch"}}),
                          GetSpecialEffect, SetSpecialEffect));
    list.push_back(scalar("denoise", "colour denoise strength", kColourModes,
                          number("strength", 0, 15), GetDenoise, SetDenoise));
    {
        Control c = scalar(
            "orientation", "image orientation (set in colour-only modes)", kColourModes,
            choice("orientation", {{0, "normal"}, {1, "mirrored"}, {2, "flipped"}, {3, "both"}}),
            GetOrientation, SetOrientation);
        c.setModes = kColourOnlyModes;
        list.push_back(std::move(c));
    }
    {
        Control c;
        c.name = "auto-exposure-roi";
        c.description =
            "auto-exposure region: mode, and in manual mode the window (1 to 8) around pixel "
            "(x, y) of a width x height image (set in colour-only modes)";
        c.modes = kColourModes;
        c.setModes = kColourOnlyModes;
        const Field mode = choice("mode", {{0, "centre"}, {1, "full-frame"}, {2, "manual"}});
        c.fields = {mode, number("window", 0, 255)};
        c.setFields = {mode,
                       number("width", 1, 65535),
                       number("height", 1, 65535),
                       number("x", 0, 65535),
                       number("y", 0, 65535),
                       number("window", 1, 8)};
        c.get = [](const DeviceHandle& h, Values* v) {
            unsigned char mode = 0, window = 0;
            const int result = GetAutoExposureROI(h, &mode, &window);
            *v = {mode, window};
            return result;
        };
        c.set = [](const DeviceHandle& h, const Values& v) {
            return SetAutoExposureROI(h, static_cast<unsigned char>(v[0]),
                                      static_cast<unsigned>(v[1]), static_cast<unsigned>(v[2]),
                                      static_cast<unsigned>(v[3]), static_cast<unsigned>(v[4]),
                                      static_cast<unsigned char>(v[5]));
        };
        list.push_back(std::move(c));
    }
    {
        Control c;
        c.name = "face-detection";
        c.description = "face detection, embedding of the result in the frame, overlay";
        c.modes = kColourModes;
        c.fields = {onOff("detect"), onOff("embed"), onOff("overlay")};
        c.get = [](const DeviceHandle& h, Values* v) {
            unsigned char detect = 0, embed = 0, overlay = 0;
            const int result = GetFaceDetection(h, &detect, &embed, &overlay);
            *v = {detect, embed, overlay};
            return result;
        };
        c.set = [](const DeviceHandle& h, const Values& v) {
            return SetFaceDetection(h, static_cast<unsigned char>(v[0]),
                                    static_cast<unsigned char>(v[1]),
                                    static_cast<unsigned char>(v[2]));
        };
        list.push_back(std::move(c));
    }
    {
        Control c;
        c.name = "smile-detection";
        c.description = "smile detection and embedding of the result in the frame";
        c.modes = kColourModes;
        c.fields = {onOff("detect"), onOff("embed")};
        c.get = [](const DeviceHandle& h, Values* v) {
            unsigned char detect = 0, embed = 0;
            const int result = GetSmileDetection(h, &detect, &embed);
            *v = {detect, embed};
            return result;
        };
        c.set = [](const DeviceHandle& h, const Values& v) {
            return SetSmileDetection(h, static_cast<unsigned char>(v[0]),
                                     static_cast<unsigned char>(v[1]));
        };
        list.push_back(std::move(c));
    }
    list.push_back(scalar("exposure-compensation", "colour exposure compensation", kColourModes,
                          number("value", 8000, 1000000), GetExposureCompensation,
                          SetExposureCompensation));
    list.push_back(scalar("frame-rate", "colour frame rate", kColourModes, number("fps", 1, 120),
                          GetFrameRateCtrl, SetFrameRateCtrl));

    // ---- Camera, IMU and board ----
    list.push_back(scalar("imu-embedded", "IMU samples embedded in the frames", kAnyMode,
                          onOff("state"), GetIMUEmbeddedData, SetIMUEmbeddedData));
    {
        Control c;
        c.name = "imu-config";
        c.description =
            "IMU mode, accelerometer axes and range, gyroscope axes and range, data rate";
        c.modes = kAnyMode;
        c.fields = {
            number("mode", 0, 255),
            number("acc-axes", 0, 255),
            choice("acc-range", {{0, "2g"}, {1, "16g"}, {2, "4g"}, {3, "8g"}}),
            number("gyro-axes", 0, 255),
            choice("gyro-range", {{0, "250dps"}, {1, "500dps"}, {2, "1000dps"}, {3, "2000dps"}}),
            number("rate", 0, 255)};
        c.get = [](const DeviceHandle& h, Values* v) {
            IMUCONFIG_TypeDef config{};
            const int result = GetIMUConfig(h, &config);
            *v = {config.IMU_MODE,
                  config.ACC_AXIS_CONFIG,
                  config.ACC_SENSITIVITY_CONFIG,
                  config.GYRO_AXIS_CONFIG,
                  config.GYRO_SENSITIVITY_CONFIG,
                  config.IMU_ODR_CONFIG};
            return result;
        };
        c.set = [](const DeviceHandle& h, const Values& v) {
            IMUCONFIG_TypeDef config{};
            config.IMU_MODE = static_cast<uint8_t>(v[0]);
            config.ACC_AXIS_CONFIG = static_cast<uint8_t>(v[1]);
            config.ACC_SENSITIVITY_CONFIG = static_cast<uint8_t>(v[2]);
            config.GYRO_AXIS_CONFIG = static_cast<uint8_t>(v[3]);
            config.GYRO_SENSITIVITY_CONFIG = static_cast<uint8_t>(v[4]);
            config.IMU_ODR_CONFIG = static_cast<uint8_t>(v[5]);
            return SetIMUConfig(h, config);
        };
        list.push_back(std::move(c));
    }
    {
        Control c;
        c.name = "imu-capture";
        c.description = "starts or stops the IMU sample stream";
        c.modes = kAnyMode;
        c.fields = {choice("state", {{1, "start"}, {2, "stop"}})};
        c.set = [](const DeviceHandle& h, const Values& v) {
            IMUDATAINPUT_TypeDef control{static_cast<uint16_t>(v[0]), 1};
            const int result = ControlIMUCapture(h, &control);
            // A stop the camera accepted is reported as SetValueFailed with the stopped state.
            if (v[0] == 2 && result == SetValueFailed && control.IMU_UPDATE_MODE == 2) return 1;
            return result;
        };
        list.push_back(std::move(c));
    }
    {
        Control c;
        c.name = "imu-sample";
        c.description =
            "one IMU sample: counter, acceleration in mg, angular rate in degrees per second "
            "(start the stream with imu-capture)";
        c.modes = kAnyMode;
        auto reading = [](const char* name) {
            Field f = number(name, INT64_MIN, INT64_MAX);
            f.decimals = 3;
            return f;
        };
        c.fields = {number("count", 0, 65535), reading("acc-x"),  reading("acc-y"),
                    reading("acc-z"),          reading("gyro-x"), reading("gyro-y"),
                    reading("gyro-z")};
        c.get = [](const DeviceHandle& h, Values* v) {
            // The configuration read sets the scales the sample is converted with.
            IMUCONFIG_TypeDef config{};
            int result = GetIMUConfig(h, &config);
            if (result != Ok) return result;
            IMUDATAOUTPUT_TypeDef sample{};
            result = GetIMUValue(h, &sample);
            auto milli = [](double x) { return static_cast<int64_t>(x * 1000.0); };
            *v = {sample.imuValueCount, milli(sample.accX),  milli(sample.accY), milli(sample.accZ),
                  milli(sample.gyroX),  milli(sample.gyroY), milli(sample.gyroZ)};
            return result;
        };
        list.push_back(std::move(c));
    }
    list.push_back(scalar("base-temperature", "base board temperature, the camera's raw reading",
                          kAnyMode, number("raw", 0, 65535), GetBaseBoardTemperatureData));
    list.push_back(scalar("laser-temperature", "laser board temperature, the camera's raw reading",
                          kAnyMode, number("raw", 0, 65535), GetLaserBoardTemperatureData));
    Field id = number("id", INT64_MIN, INT64_MAX);
    id.hex = true;
    list.push_back(scalar("unique-id", "the camera's 64-bit unique ID", kAnyMode, id, GetUniqueID));
    {
        Control c;
        c.name = "defaults";
        c.description = "restores the camera's HID settings to their defaults (no value)";
        c.modes = kAnyMode;
        c.set = [](const DeviceHandle& h, const Values&) { return SetDefault(h); };
        list.push_back(std::move(c));
    }
    return list;
}

}  // namespace

const std::vector<Control>& controls() {
    static const std::vector<Control> list = makeControls();
    return list;
}

}  // namespace talvoro_tool
