// talvoro info SERIAL [--json]: everything the camera tells without streaming into files: its
// identity, the data modes, every readable control with its range and current value, the
// calibration and the board readings. Controls the current data mode does not offer are listed
// as unavailable; nothing is changed.
#include <cstdio>
#include <string>
#include <vector>

#include "Command.h"
#include "Controls.h"
#include "DataModes.h"
#include "Json.h"
#include "Session.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

struct ControlReading {
    const Control* control;
    std::vector<Field> fields;
    Values values;
    int result;
};

std::vector<ControlReading> readControls(const DeviceHandle& camera) {
    std::vector<ControlReading> readings;
    for (const Control& c : controls()) {
        // A sample needs the IMU stream running; reading one is a command of its own.
        if (!c.get || c.name == "imu-sample") continue;
        ControlReading r{&c, fieldsOf(c, camera, false), {}, 0};
        r.result = c.get(camera, &r.values);
        readings.push_back(std::move(r));
    }
    return readings;
}

std::string rangeText(const std::vector<Field>& fields) {
    std::string text;
    for (const Field& f : fields) {
        if (!text.empty()) text += "; ";
        if (fields.size() > 1) text += f.name + ": ";
        if (f.hex || f.decimals) {
            text += "-";
            continue;
        }
        text += describeRange(f);
        if (f.step > 1) text += ", step " + std::to_string(f.step);
        if (f.byDefault) text += ", default " + formatValue(f, *f.byDefault);
    }
    return text;
}

const char* const kBlockNames[3] = {"colour intrinsics", "depth intrinsics", "extrinsics"};
const char* const kValidity[3] = {"plain set", "HD set", "plain and HD sets"};

struct Calibration {
    int result = 0;  // of GetDeviceCalibrationParams
    CalibrationParams params{};
    int flags[3] = {-1, -1, -1};  // per block type; -1 when the camera has none
};

Calibration readCalibration(const DeviceHandle& camera) {
    Calibration c;
    c.result = GetDeviceCalibrationParams(camera, &c.params);
    for (uint8_t type = 0; type < 3; ++type) {
        // A camera without the block leaves the flag as it was.
        CalibValidFlag flag = static_cast<CalibValidFlag>(0xFF);
        if (GetCalibrationDataValidFlag(camera, type, &flag) == Ok && flag <= Calib_VGA_And_HD)
            c.flags[type] = flag;
    }
    return c;
}

void printIntrinsics(const char* label, const CameraIntrinsics& in) {
    if (in.fx == 0) {
        std::printf("  %-13s -\n", label);
        return;
    }
    std::printf("  %-13s fx %.3f  fy %.3f  cx %.3f  cy %.3f  distortion %.6g %.6g %.6g %.6g %.6g\n",
                label, in.fx, in.fy, in.cx, in.cy, in.distortion[0], in.distortion[1],
                in.distortion[2], in.distortion[3], in.distortion[4]);
}

void printExtrinsics(const char* label, const StereoExtrinsics& e) {
    const double* r = e.rotation;
    if (r[0] == 0 && r[4] == 0 && r[8] == 0) {
        std::printf("  %-13s -\n", label);
        return;
    }
    std::printf(
        "  %-13s rotation [%.6f %.6f %.6f; %.6f %.6f %.6f; %.6f %.6f %.6f]  "
        "translation %.3f %.3f %.3f mm\n",
        label, r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7], r[8], e.translation[0],
        e.translation[1], e.translation[2]);
}

void printText(const DeviceInfo& info, DataMode mode, const std::vector<ControlReading>& readings,
               const Calibration& calibration, const DeviceHandle& camera) {
    uint8_t major = 0, minor = 0;
    uint16_t patch = 0;
    GetSDKVersion(&major, &minor, &patch);
    std::printf("Camera %s\n", info.serialNo);
    std::printf("  %-13s %s\n", "name", info.deviceName);
    std::printf("  %-13s %s\n", "node", info.devicePath);
    std::printf("  %-13s %s:%s\n", "USB ID", info.vid, info.pid);
    std::printf("  %-13s TalvoroSDK %u.%u.%u\n", "library", major, minor, patch);

    std::printf("\nData modes (* current)\n");
    for (int m = 0; m < kDataModes; ++m)
        std::printf("  %c %d  %-17s %s\n", m == mode ? '*' : ' ', m, modeInfo(m).name,
                    modeInfo(m).description);

    std::printf("\nControls\n");
    for (const ControlReading& r : readings) {
        if (r.result == Ok)
            std::printf("  %-26s %-22s %s\n", r.control->name.c_str(),
                        formatValues(r.fields, r.values).c_str(), rangeText(r.fields).c_str());
        else
            std::printf("  %-26s %-22s %s\n", r.control->name.c_str(), "-",
                        failureText(*r.control, r.result, false, camera).c_str());
    }

    std::printf("\nCalibration\n");
    for (int type = 0; type < 3; ++type)
        std::printf("  %-18s %s\n", kBlockNames[type],
                    calibration.flags[type] < 0 ? "not in the camera"
                                                : kValidity[calibration.flags[type] % 3]);
    if (calibration.result != Ok) {
        std::printf("  not loaded: %s\n", resultText(calibration.result).c_str());
        return;
    }
    const CalibrationParams& p = calibration.params;
    printIntrinsics("depth", p.depth);
    printIntrinsics("colour", p.rgb);
    printExtrinsics("extrinsics", p.extrinsic);
    printIntrinsics("HD depth", p.hd_depth);
    printIntrinsics("HD colour", p.hd_rgb);
    printExtrinsics("HD extrinsics", p.hd_extrinsic);
}

void intrinsicsJson(Json& out, const char* key, const CameraIntrinsics& in) {
    out.key(key)
        .beginObject()
        .field("fx", in.fx)
        .field("fy", in.fy)
        .field("cx", in.cx)
        .field("cy", in.cy);
    out.key("distortion").beginArray();
    for (double d : in.distortion)
        out.value(d);
    out.endArray().endObject();
}

void extrinsicsJson(Json& out, const char* key, const StereoExtrinsics& e) {
    out.key(key).beginObject().key("rotation").beginArray();
    for (double r : e.rotation)
        out.value(r);
    out.endArray().key("translation").beginArray();
    for (double t : e.translation)
        out.value(t);
    out.endArray().endObject();
}

void printJson(const DeviceInfo& info, DataMode mode, const std::vector<ControlReading>& readings,
               const Calibration& calibration, const DeviceHandle& camera) {
    Json out;
    out.beginObject()
        .field("serial", info.serialNo)
        .field("name", info.deviceName)
        .field("node", info.devicePath)
        .field("vid", info.vid)
        .field("pid", info.pid)
        .field("data_mode", static_cast<int>(mode));

    out.key("modes").beginArray();
    for (int m = 0; m < kDataModes; ++m)
        out.beginObject()
            .field("mode", m)
            .field("name", modeInfo(m).name)
            .field("description", modeInfo(m).description)
            .endObject();
    out.endArray();

    out.key("controls").beginArray();
    for (const ControlReading& r : readings) {
        out.beginObject().field("name", r.control->name).field("available", r.result == Ok ? 1 : 0);
        if (r.result == Ok) {
            valuesJson(out, r.fields, r.values).field("range", rangeText(r.fields));
        } else {
            out.field("reason", failureText(*r.control, r.result, false, camera));
        }
        out.endObject();
    }
    out.endArray();

    out.key("calibration").beginObject().key("validity").beginArray();
    for (int flag : calibration.flags)
        out.value(flag);
    out.endArray().field("loaded", calibration.result == Ok ? 1 : 0);
    if (calibration.result == Ok) {
        const CalibrationParams& p = calibration.params;
        intrinsicsJson(out, "depth", p.depth);
        intrinsicsJson(out, "colour", p.rgb);
        extrinsicsJson(out, "extrinsics", p.extrinsic);
        intrinsicsJson(out, "hd_depth", p.hd_depth);
        intrinsicsJson(out, "hd_colour", p.hd_rgb);
        extrinsicsJson(out, "hd_extrinsics", p.hd_extrinsic);
    }
    out.endObject().endObject();
    std::fputs(out.text().c_str(), stdout);
}

}  // namespace

int infoCommand(Args& args, const Context& context) {
    const bool json = context.json;
    const std::string serial = args.positional("SERIAL");
    args.finish();

    Session session;
    const DeviceInfo info = session.find(serial);
    const DeviceHandle camera = session.open(info);
    const DataMode mode = currentDataMode(camera);
    const std::vector<ControlReading> readings = readControls(camera);
    const Calibration calibration = readCalibration(camera);
    if (json)
        printJson(info, mode, readings, calibration, camera);
    else
        printText(info, mode, readings, calibration, camera);
    return kExitOk;
}

const bool registered = registerCommand({
    "info",
    "SERIAL",
    "modes, controls, calibration, board readings",
    "Shows everything the camera tells without streaming into files: its identity, the data "
    "modes (the current one marked), every readable control with its value and range (the ones "
    "the current data mode does not offer with the reason), the calibration and the board "
    "readings. Nothing is changed.",
    {},
    {Operand::Serial},
    infoCommand,
    20,
});

}  // namespace talvoro_tool
