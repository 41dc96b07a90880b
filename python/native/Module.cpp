// talvoro._native: the bindings. talvoro/__init__.py builds the public interface on them.
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "Native.h"

namespace talvoro_py {

using namespace Talvoro;

namespace {

// talvoro.Mode, handed over by talvoro/__init__.py; never released.
py::object* modeClass = nullptr;

// The Python object of an open camera. Dropping it closes the camera.
class Device {
  public:
    explicit Device(const std::string& serial) {
        GilRelease release;
        state_ = CameraState::open(serial);
    }
    ~Device() {
        // Held with the GIL here: the callbacks go first, then the camera closes without it.
        state_->setFrameCallback(py::object());
        state_->setUnplugCallback(py::object());
        if (shuttingDown) return;  // closed already, and the interpreter is going away
        GilRelease release;
        state_->close();
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    CameraState& state() { return *state_; }

    void close() {
        state_->setFrameCallback(py::object());
        state_->setUnplugCallback(py::object());
        GilRelease release;
        state_->close();
    }

    std::unique_ptr<Frame> waitFrame(double timeout) {
        GilRelease release;
        return state_->waitFrame(timeout);
    }

    // A control call without the GIL: f(handle) returns a Result.
    template <typename F>
    int call(const char* function, F&& f, bool streamToo = false) {
        GilRelease release;
        return state_->call(
            function, [&] { return f(state_->handle()); }, streamToo);
    }

  private:
    std::shared_ptr<CameraState> state_;
};

// An array over an image the frame owns, kept alive by the frame's Python object.
py::object arrayOf(const Image& image, py::handle owner) {
    if (image.empty()) return py::none();
    std::vector<py::ssize_t> shape = {image.height, image.width};
    if (image.channels > 1) shape.push_back(image.channels);
    const py::dtype type =
        image.itemSize == 2 ? py::dtype::of<uint16_t>() : py::dtype::of<uint8_t>();
    return py::array(type, shape, {}, image.data.get(), owner);
}

// An array that owns `data`.
template <typename T>
py::array owning(std::unique_ptr<T[]> data, std::vector<py::ssize_t> shape) {
    T* raw = data.release();
    py::capsule free(raw, [](void* p) { delete[] static_cast<T*>(p); });
    return py::array_t<T>(shape, raw, free);
}

// A new array over one of the frame's images each time: an array cached in the frame would
// make a cycle (frame, array, its base the frame) that the garbage collector cannot see.
py::object imageArray(py::object self, const Image& (*image)(Frame&)) {
    return arrayOf(image(self.cast<Frame&>()), self);
}

py::dict intrinsics(const CameraIntrinsics& in) {
    if (in.fx == 0) return py::dict();
    py::array_t<double> matrix({3, 3});
    auto m = matrix.mutable_unchecked<2>();
    const double k[9] = {in.fx, 0, in.cx, 0, in.fy, in.cy, 0, 0, 1};
    for (int i = 0; i < 9; ++i)
        m(i / 3, i % 3) = k[i];
    py::array_t<double> distortion(5, in.distortion);
    py::dict d;
    d["matrix"] = matrix;
    d["distortion"] = distortion;
    return d;
}

py::dict extrinsics(const StereoExtrinsics& in) {
    bool any = false;
    for (double v : in.rotation)
        any = any || v != 0;
    if (!any) return py::dict();
    py::dict d;
    d["rotation"] = py::array_t<double>({3, 3}, in.rotation);
    d["translation"] = py::array_t<double>(3, in.translation);
    return d;
}

}  // namespace

}  // namespace talvoro_py

using namespace talvoro_py;
using namespace Talvoro;

PYBIND11_MODULE(_native, m) {
    m.doc() = "Native part of the talvoro package; use the talvoro module instead.";
    registerErrors(m);

    m.def("initialize", [] {
        GilRelease release;
        check(Initialize(), "Initialize");
    });
    m.def("shutdown", [] {
        // atexit: no capture thread may call into Python from now on.
        GilRelease::shutdownRunsOnThisThread();
        shuttingDown = true;
        GilRelease release;
        CameraState::closeAll();
        DeInitialize();
    });
    m.def("camera_list", [] {
        std::vector<DeviceInfo> list;
        {
            GilRelease release;
            check(Initialize(), "Initialize");
            uint32_t count = 0;
            const int counted = GetDeviceCount(&count);
            if (counted == NoDeviceConnected)
                count = 0;  // an empty list, not a failure
            else
                check(counted, "GetDeviceCount");
            list.resize(count);
            if (count > 0) check(GetDeviceListInfo(count, list.data()), "GetDeviceListInfo");
        }
        py::list out;
        for (const DeviceInfo& info : list) {
            auto text = [](const char* s, std::size_t n) { return std::string(s, strnlen(s, n)); };
            out.append(py::make_tuple(text(info.serialNo, 50), text(info.deviceName, 50),
                                      text(info.vid, 5), text(info.pid, 5),
                                      text(info.devicePath, 500)));
        }
        return out;
    });
    m.def("_set_mode_class", [](py::object mode) {
        if (!modeClass) modeClass = new py::object;
        *modeClass = mode;
    });
    m.def("sdk_version", [] {
        uint8_t major = 0, minor = 0;
        uint16_t patch = 0;
        GetSDKVersion(&major, &minor, &patch);
        return py::make_tuple(major, minor, patch);
    });
    m.def("set_log_level", [](int level) { check(SetLogLevel(level), "SetLogLevel"); });
    m.def("set_logging", [](unsigned mode) { check(SetLogging(mode), "SetLogging"); });

    py::class_<Frame>(
        m, "Frame",
        R"doc(One frame of a camera, as Camera.wait_frame() and Camera.frames() return it.

Its arrays are views of the frame's own copy of each image (every access gives a new view of
the same memory, which stays as long as a view or the frame does); an image the data mode does
not produce is None.)doc")
        .def_property_readonly(
            "depth",
            [](py::object self) {
                return imageArray(self, [](Frame& f) -> const Image& { return f.depth; });
            },
            "Depth in millimetres, uint16 height x width (0: no measurement); registered onto "
            "the colour image when mapping is on (1280 x 720 in mode 5).")
        .def_property_readonly(
            "ir",
            [](py::object self) {
                return imageArray(self, [](Frame& f) -> const Image& { return f.ir; });
            },
            "The IR image, uint16 height x width: the camera's IR times the IR gain, saturated.")
        .def_property_readonly(
            "color",
            [](py::object self) {
                Frame& frame = self.cast<Frame&>();
                const Image* rgb;
                {
                    GilRelease release;
                    rgb = &frame.rgb();
                }
                return arrayOf(*rgb, self);
            },
            "The colour image, uint8 height x width x 3 in RGB order (converted from UYVY on "
            "first use).")
        .def_property_readonly(
            "color_uyvy",
            [](py::object self) {
                return imageArray(self, [](Frame& f) -> const Image& { return f.uyvy; });
            },
            "The colour image as the camera sends it: UYVY, uint8 height x width x 2.")
        .def_property_readonly(
            "depth_colormap",
            [](py::object self) {
                return imageArray(self, [](Frame& f) -> const Image& { return f.colormap; });
            },
            "Depth in false colour, uint8 height x width x 3 in RGB order (Camera.set_color_map).")
        .def_property_readonly(
            "sequence", [](const Frame& f) { return f.info.sequence; },
            "The driver's frame number: it counts every frame the camera sent since its stream "
            "started, so a gap to the previous frame counts the frames dropped.")
        .def_property_readonly(
            "timestamp", [](const Frame& f) { return f.info.wall_time_ns * 1e-9; },
            "Capture time, seconds since the epoch (wall clock), as time.time() tells it.")
        .def_property_readonly(
            "timestamp_ns", [](const Frame& f) { return f.info.wall_time_ns; },
            "Capture time, nanoseconds since the epoch (wall clock), as time.time_ns().")
        .def_property_readonly(
            "monotonic_ns", [](const Frame& f) { return f.info.time_stamp_ns; },
            "Capture time as the driver stamped it, CLOCK_MONOTONIC nanoseconds, as "
            "time.monotonic_ns().")
        .def_property_readonly(
            "mode",
            [](const Frame& f) -> py::object {
                const py::int_ mode(int(f.info.data_mode));
                return modeClass ? (*modeClass)(mode) : py::object(mode);
            },
            "The data mode the frame was processed in (talvoro.Mode).")
        .def(
            "points",
            [](const Frame& frame, bool colored, bool organized) -> py::object {
                Points points;
                {
                    GilRelease release;
                    points = frame.points(colored, organized);
                }
                std::vector<py::ssize_t> shape = {py::ssize_t(points.count), 3};
                if (organized) shape = {points.height, points.width, 3};
                py::array xyz = owning(std::move(points.xyz), shape);
                if (!colored) return std::move(xyz);
                return py::make_tuple(xyz, owning(std::move(points.rgb), shape));
            },
            py::arg("colored") = false, py::arg("organized") = false,
            R"doc(The frame's depth as 3D points through the camera's calibration.

x right, y down, z forward, float32 metres: N x 3 for the pixels with depth, or with
organized=True height x width x 3 with NaN where there is no depth. With colored=True (modes 4
and 5) returns (points, colours): uint8 RGB per point, black where the colour camera does not
see the point. Registered depth (mapping on) gives points in the colour camera's frame, else in
the depth camera's.

Works on the newest frame fetched from the camera only (StaleFrameError otherwise); raises
CalibrationNotFoundError without a usable calibration, NotSupportedError in a mode without
depth (or without colour, for colored=True).)doc");

    py::class_<Device>(m, "Device")
        .def(py::init<const std::string&>(), py::arg("serial"))
        .def("close", &Device::close)
        .def_property_readonly("serial", [](Device& d) { return d.state().serial(); })
        .def_property_readonly("is_open", [](Device& d) { return d.state().isOpen(); })
        .def_property_readonly("is_gone", [](Device& d) { return d.state().isGone(); })
        .def("wait_frame", &Device::waitFrame, py::arg("timeout"))
        .def("set_frame_callback",
             [](Device& d, py::object f) { d.state().setFrameCallback(std::move(f)); })
        .def("set_unplug_callback",
             [](Device& d, py::object f) { d.state().setUnplugCallback(std::move(f)); })
        .def("get_data_mode",
             [](Device& d) {
                 DataMode mode = Depth_IR_RGB_VGA_Mode;
                 d.call("GetDataMode", [&](DeviceHandle h) { return GetDataMode(h, &mode); });
                 return int(mode);
             })
        .def("set_data_mode",
             [](Device& d, int mode) {
                 d.call(
                     "SetDataMode",
                     [&](DeviceHandle h) { return SetDataMode(h, static_cast<DataMode>(mode)); },
                     true);
             })
        .def("get_depth_range",
             [](Device& d) {
                 uint16_t range = 0;
                 d.call("GetDepthRange", [&](DeviceHandle h) { return GetDepthRange(h, &range); });
                 return int(range);
             })
        .def("set_depth_range",
             [](Device& d, uint16_t range) {
                 d.call("SetDepthRange", [&](DeviceHandle h) { return SetDepthRange(h, range); });
             })
        .def("get_exposure",
             [](Device& d) {
                 unsigned short value = 0;
                 d.call("GetTOFExposure",
                        [&](DeviceHandle h) { return GetTOFExposure(h, &value); });
                 return int(value);
             })
        .def("set_exposure",
             [](Device& d, unsigned short value) {
                 d.call("SetTOFExposure", [&](DeviceHandle h) { return SetTOFExposure(h, value); });
             })
        .def("get_ir_gain",
             [](Device& d) {
                 unsigned short value = 0;
                 d.call("GetTOFIRGain", [&](DeviceHandle h) { return GetTOFIRGain(h, &value); });
                 return int(value);
             })
        .def("set_ir_gain",
             [](Device& d, unsigned short value) {
                 d.call("SetTOFIRGain", [&](DeviceHandle h) { return SetTOFIRGain(h, value); });
             })
        .def("set_filter",
             [](Device& d, int type, bool on) {
                 d.call("SetFilterType",
                        [&](DeviceHandle h) { return SetFilterType(h, type, on); });
             })
        .def("set_flying_pixel_filter",
             [](Device& d, bool on) {
                 d.call("SetFlyingPixelFilter",
                        [&](DeviceHandle h) { return SetFlyingPixelFilter(h, on); });
             })
        .def("set_planarization",
             [](Device& d, bool on) {
                 d.call("SetPlanarization",
                        [&](DeviceHandle h) { return SetPlanarization(h, on); });
             })
        .def("set_undistortion",
             [](Device& d, bool on) {
                 d.call("SetUnDistortion", [&](DeviceHandle h) { return SetUnDistortion(h, on); });
             })
        .def("set_mapping",
             [](Device& d, bool on) {
                 d.call("SetRGBDMapping", [&](DeviceHandle h) { return SetRGBDMapping(h, on); });
             })
        .def("set_color_map",
             [](Device& d, int min, int max, int colormap) {
                 d.call("UpdateColorMap",
                        [&](DeviceHandle h) { return UpdateColorMap(h, min, max, colormap); });
             })
        .def("temperatures",
             [](Device& d) {
                 float base = 0, laser = 0;
                 d.call("GetBaseBoardTemperatureData",
                        [&](DeviceHandle h) { return GetBaseBoardTemperatureData(h, &base); });
                 d.call("GetLaserBoardTemperatureData",
                        [&](DeviceHandle h) { return GetLaserBoardTemperatureData(h, &laser); });
                 return py::make_tuple(base, laser);
             })
        .def("imu_samples",
             [](Device& d, int count) {
                 std::vector<IMUDATAOUTPUT_TypeDef> samples;
                 d.call("GetIMUValue", [&](DeviceHandle h) {
                     // The configuration read sets the scales samples are converted with.
                     IMUCONFIG_TypeDef config{};
                     int result = GetIMUConfig(h, &config);
                     IMUDATAINPUT_TypeDef control{1, uint16_t(std::clamp(count, 1, 65535))};
                     if (result == Ok) result = ControlIMUCapture(h, &control);
                     // A sample every 10 ms: a generous second more before giving up.
                     const auto deadline = std::chrono::steady_clock::now() +
                                           std::chrono::milliseconds(1000 + 20 * count);
                     while (result == Ok && int(samples.size()) < count) {
                         if (std::chrono::steady_clock::now() > deadline) return int(TimeoutError);
                         IMUDATAOUTPUT_TypeDef sample{};
                         const int read = GetIMUValue(h, &sample);
                         // HidReadFail: nothing pending yet. A count of 0: no sample report.
                         if (read == HidReadFail || (read == Ok && sample.imuValueCount == 0))
                             continue;
                         result = read;
                         if (read == Ok) samples.push_back(sample);
                     }
                     return result;
                 });
                 py::list out;
                 for (const IMUDATAOUTPUT_TypeDef& s : samples)
                     out.append(py::make_tuple(s.imuValueCount, s.accX, s.accY, s.accZ, s.gyroX,
                                               s.gyroY, s.gyroZ));
                 return out;
             })
        .def("calibration",
             [](Device& d) {
                 CalibrationParams p{};
                 d.call("GetDeviceCalibrationParams",
                        [&](DeviceHandle h) { return GetDeviceCalibrationParams(h, &p); });
                 py::dict out;
                 out["depth"] = intrinsics(p.depth);
                 out["color"] = intrinsics(p.rgb);
                 out["hd_depth"] = intrinsics(p.hd_depth);
                 out["hd_color"] = intrinsics(p.hd_rgb);
                 out["extrinsic"] = extrinsics(p.extrinsic);
                 out["hd_extrinsic"] = extrinsics(p.hd_extrinsic);
                 return out;
             })
        .def("frames_per_second",
             [](Device& d) {
                 return d.call("GetFramesPerSecond",
                               [&](DeviceHandle h) { return GetFramesPerSecond(h); });
             })
        .def("unique_id", [](Device& d) {
            unsigned long id = 0;
            d.call("GetUniqueID", [&](DeviceHandle h) { return GetUniqueID(h, &id); });
            return id;
        });
}
