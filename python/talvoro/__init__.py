"""Talvoro depth cameras from Python, with frames as numpy arrays.

    import talvoro

    for info in talvoro.cameras():
        print(info.serial, info.name, info.path)

    with talvoro.open() as cam:                      # the first camera; or open("SERIAL")
        cam.mode = talvoro.Mode.DEPTH_IR_RGB_VGA
        for frame in cam.frames(count=30):
            print(frame.sequence, frame.timestamp, frame.depth[240, 320], "mm")
        points = cam.wait_frame().points()            # N x 3 float32, metres

Frames: every array a frame hands out holds the frame's own copy of the image, so it stays
valid whatever the camera does next. ``frame.points()`` asks the library to deproject the
frame's depth through the camera's calibration; it works on the newest frame fetched.

Errors: a failing call raises ``talvoro.Error`` (``.code`` is the library's negative result code,
``.name`` its name), or a subclass for the common cases: ``TimeoutError``, ``NotStreamingError``,
``InvalidValueError``, ``NotOpenError`` and its ``CameraGoneError`` (the camera was unplugged),
``NotSupportedError`` (not in this data mode), ``CalibrationNotFoundError``, ``NoCameraError``
and ``StaleFrameError``.

Threads: calls that wait for the camera release the GIL, so other Python threads run meanwhile.
Frame and unplug callbacks run on the camera's capture thread, holding the GIL while they run.
Cameras still open when the interpreter exits are closed first.

The library writes the camera's calibration files (``*_intrinsic.yml``,
``stereo_extrinsic.yml``) into the working directory when it opens a camera, and its log file
there when it logs (see ``set_logging``).
"""

import atexit as _atexit
import builtins as _builtins
import enum as _enum
from typing import Callable, Iterator, List, NamedTuple, Optional, Tuple

import numpy as _np

from . import _native
from ._native import Frame

__all__ = [
    "CalibrationNotFoundError", "Calibration", "Camera", "CameraGoneError", "CameraInfo",
    "DepthRange", "Error", "Extrinsics", "Frame", "IMU_SAMPLE", "Intrinsics", "InvalidValueError",
    "LogOutput", "Mode", "NoCameraError", "NotOpenError", "NotStreamingError",
    "NotSupportedError", "StaleFrameError", "Temperatures", "TimeoutError", "cameras", "open",
    "sdk_version", "set_log_level", "set_logging",
]


# ---- Errors ---------------------------------------------------------------------------------

class Error(Exception):
    """A call into the camera library failed.

    ``code`` is the library's result code (negative), ``name`` its name, such as
    ``"InvalidValue"``.
    """

    def __init__(self, message: str, code: int):
        super().__init__(message)
        self.code = code
        self.name = _native.result_name(code)

    def __reduce__(self):
        return (type(self), (str(self), self.code))


class TimeoutError(Error, _builtins.TimeoutError):  # noqa: A001 (it is talvoro.TimeoutError)
    """No frame, or no answer from the camera, in time (code -17)."""


class NotStreamingError(Error):
    """The camera does not stream (code -4)."""


class InvalidValueError(Error, ValueError):
    """A value the camera or the library refuses (code -13)."""


class NotOpenError(Error):
    """The camera is not open, or no longer (code -7)."""


class CameraGoneError(NotOpenError):
    """The camera was unplugged (code -7)."""


class NotSupportedError(Error):
    """Not available in the current data mode (code -23)."""


class CalibrationNotFoundError(Error):
    """The camera lacks the calibration this needs (code -19)."""


class NoCameraError(Error):
    """No camera is connected, or none with the serial asked for (code -9 or -6)."""


class StaleFrameError(Error):
    """``points()`` of a frame after a later one was fetched from its camera (code -17)."""


_native._set_error_classes(
    Error,
    {-17: TimeoutError, -4: NotStreamingError, -13: InvalidValueError, -7: NotOpenError,
     -23: NotSupportedError, -19: CalibrationNotFoundError, -9: NoCameraError,
     -6: NoCameraError},
    CameraGoneError, StaleFrameError)


# ---- Values ---------------------------------------------------------------------------------

class Mode(_enum.IntEnum):
    """The camera's data mode: which images it streams."""

    DEPTH_IR = 0          #: depth and IR, 640 x 480
    NO_IMAGE = 1          #: no image (the camera keeps streaming as it was)
    DEPTH = 2             #: depth only, 640 x 480
    IR = 3                #: IR only, 640 x 480
    DEPTH_IR_RGB_VGA = 4  #: depth, IR and colour 640 x 480
    DEPTH_IR_RGB_HD = 5   #: depth and IR 640 x 480, colour 1280 x 720
    RGB_VGA = 6           #: colour only, 640 x 480
    RGB_HD = 7            #: colour only, 1280 x 720
    RGB_FULL_HD = 8       #: colour only, 1920 x 1080
    RGB_1200P = 9         #: colour only, 1920 x 1200


class DepthRange(_enum.IntEnum):
    """The depth sensor's working range."""

    NEAR = 0  #: up to about 4 m
    FAR = 1   #: up to about 8 m


class LogOutput(_enum.IntEnum):
    """Where the library's log goes (``set_logging``)."""

    NONE = 0
    STDOUT = 1
    FILE = 2  #: "Talvoro_Log_<time>.txt" in the working directory (the default)
    BOTH = 3


class CameraInfo(NamedTuple):
    """A connected camera as ``cameras()`` lists it."""

    serial: str      #: the USB serial number: the camera's identity
    name: str        #: the USB product name
    vendor_id: str   #: "7e91"
    product_id: str  #: "a05c"
    path: str        #: the video capture node, such as "/dev/video0"


class Intrinsics(NamedTuple):
    """One camera's intrinsics: 3 x 3 matrix (pixels) and OpenCV's five distortion coefficients
    (k1, k2, p1, p2, k3)."""

    matrix: _np.ndarray
    distortion: _np.ndarray


class Extrinsics(NamedTuple):
    """The rigid transform from the depth camera to the colour camera: 3 x 3 rotation and a
    translation in millimetres (p_colour = rotation @ p_depth + translation)."""

    rotation: _np.ndarray
    translation: _np.ndarray


class Calibration(NamedTuple):
    """The calibration the camera holds; sets it lacks are None. The plain set belongs to the
    640 x 480 colour image (data mode 4), the HD set to 1280 x 720 (data mode 5)."""

    depth: Optional[Intrinsics]
    color: Optional[Intrinsics]
    hd_depth: Optional[Intrinsics]
    hd_color: Optional[Intrinsics]
    extrinsic: Optional[Extrinsics]
    hd_extrinsic: Optional[Extrinsics]


class Temperatures(NamedTuple):
    """The board temperatures as the camera reports them (its raw 16-bit readings)."""

    base: float
    laser: float


#: numpy dtype of ``Camera.imu_samples``: the library's sample count of the read, acceleration in
#: mg, angular rate in degrees per second.
IMU_SAMPLE = _np.dtype([("counter", "u2"), ("acc_x", "f8"), ("acc_y", "f8"), ("acc_z", "f8"),
                        ("gyro_x", "f8"), ("gyro_y", "f8"), ("gyro_z", "f8")])


# ---- Cameras --------------------------------------------------------------------------------

def _setting(doc: str, apply: Callable[["Camera", bool], None]) -> property:
    """A processing switch: the library applies it, the camera object remembers it (the library
    cannot be asked). Switches go back to off when the camera is closed."""

    name = "_" + apply.__name__

    def get(self: "Camera") -> bool:
        return self._switches.get(name, False)

    def put(self: "Camera", on: bool) -> None:
        apply(self, bool(on))
        self._switches[name] = bool(on)

    return property(get, put, doc=doc)


class Camera:
    """An open camera; ``talvoro.open`` makes one. Use it in a ``with`` block, or ``close()`` it.

    Properties read and write the camera (or the library's processing of its frames) at once;
    they raise ``talvoro.Error`` subclasses when the camera or the library refuses.
    """

    def __init__(self, serial: Optional[str] = None):
        self._device = _native.Device(serial or "")
        self._switches = {}

    # -- life --

    @property
    def serial(self) -> str:
        """The camera's serial number."""
        return self._device.serial

    @property
    def closed(self) -> bool:
        """Whether the camera has been closed (or unplugged)."""
        return not self._device.is_open or self._device.is_gone

    def close(self) -> None:
        """Closes the camera; closing again does nothing. The frames fetched stay valid."""
        self._device.close()
        self._switches.clear()

    def __enter__(self) -> "Camera":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self.closed else "open"
        return f"<talvoro.Camera {self.serial} {state}>"

    # -- frames --

    def wait_frame(self, timeout: Optional[float] = 5.0) -> Frame:
        """Waits for the next frame (at most ``timeout`` seconds; None: for ever), processes it
        and returns it. Raises ``TimeoutError`` when none comes, ``CameraGoneError`` once the
        camera is unplugged. Not from inside a frame or unplug callback."""
        return self._device.wait_frame(-1.0 if timeout is None else float(timeout))

    def frames(self, count: Optional[int] = None,
               timeout: Optional[float] = 5.0) -> Iterator[Frame]:
        """Yields ``count`` frames (None: until the loop stops), each as ``wait_frame(timeout)``
        returns it."""
        taken = 0
        while count is None or taken < count:
            yield self.wait_frame(timeout)
            taken += 1

    def on_frame(self, callback: Optional[Callable[[], None]]) -> None:
        """Calls ``callback()`` on the camera's capture thread for every frame it captures, with
        the GIL held (a slow callback delays the camera). None removes it. Exceptions it raises
        are reported as unraisable and otherwise ignored."""
        self._device.set_frame_callback(callback)

    def on_unplug(self, callback: Optional[Callable[[], None]]) -> None:
        """Calls ``callback()`` once, on the capture thread, when the camera is unplugged while
        streaming. None removes it."""
        self._device.set_unplug_callback(callback)

    # -- streaming --

    @property
    def mode(self) -> Mode:
        """The data mode; setting it restarts the stream in the new mode."""
        return Mode(self._device.get_data_mode())

    @mode.setter
    def mode(self, mode: Mode) -> None:
        self._device.set_data_mode(int(Mode(mode)))

    @property
    def depth_range(self) -> DepthRange:
        """The depth sensor's range (not in the colour-only modes)."""
        return DepthRange(self._device.get_depth_range())

    @depth_range.setter
    def depth_range(self, value: DepthRange) -> None:
        self._device.set_depth_range(int(DepthRange(value)))

    @property
    def frames_per_second(self) -> int:
        """The rate at which frames have been fetched, re-estimated at most once a second."""
        return self._device.frames_per_second()

    # -- controls --

    @property
    def exposure(self) -> int:
        """The time-of-flight exposure (up to 380 in the near range, 850 in the far range)."""
        return self._device.get_exposure()

    @exposure.setter
    def exposure(self, value: int) -> None:
        self._device.set_exposure(value)

    @property
    def ir_gain(self) -> int:
        """The gain of the IR image, 1 to 100 (default 16)."""
        return self._device.get_ir_gain()

    @ir_gain.setter
    def ir_gain(self, value: int) -> None:
        self._device.set_ir_gain(value)

    def _spatial(self, on: bool) -> None:
        self._device.set_filter(0, on)

    def _temporal(self, on: bool) -> None:
        self._device.set_filter(1, on)

    def _edge(self, on: bool) -> None:
        self._device.set_filter(2, on)

    def _flying(self, on: bool) -> None:
        self._device.set_flying_pixel_filter(on)

    def _planarize(self, on: bool) -> None:
        self._device.set_planarization(on)

    def _undistort(self, on: bool) -> None:
        self._device.set_undistortion(on)

    def _map(self, on: bool) -> None:
        self._device.set_mapping(on)

    spatial_filter = _setting("Median filter of depth (modes with depth).", _spatial)
    temporal_filter = _setting("Temporal filter of depth over the last frames.", _temporal)
    edge_filter = _setting("Edge-preserving (bilateral) filter of depth.", _edge)
    flying_pixel_filter = _setting("Removes pixels on depth edges that mix two surfaces.",
                                   _flying)
    planarization = _setting("Depth as distance along the optical axis instead of along each "
                             "pixel's ray.", _planarize)
    undistortion = _setting("Lens undistortion of depth (needs the calibration).", _undistort)
    mapping = _setting("Depth registered onto the colour image (modes 4 and 5; needs the "
                       "calibration).", _map)

    def set_color_map(self, min_mm: int, max_mm: int, colormap: Optional[int] = None) -> None:
        """Colours ``depth_colormap`` from ``min_mm`` to ``max_mm`` with OpenCV colour map
        ``colormap`` (0 to 21; None keeps the current one)."""
        self._device.set_color_map(int(min_mm), int(max_mm), 22 if colormap is None
                                   else int(colormap))

    @property
    def temperatures(self) -> Temperatures:
        """The base and laser board temperatures."""
        return Temperatures(*self._device.temperatures())

    def imu_samples(self, count: int = 10) -> _np.recarray:
        """Starts the IMU and reads ``count`` samples (about 10 ms each) into a record array of
        ``IMU_SAMPLE``."""
        samples = self._device.imu_samples(int(count))
        return _np.array(samples, dtype=IMU_SAMPLE).view(_np.recarray)

    @property
    def calibration(self) -> Calibration:
        """The calibration read from the camera when it was opened."""
        raw = self._device.calibration()

        def intrinsics(d):
            return Intrinsics(d["matrix"], d["distortion"]) if d else None

        def extrinsics(d):
            return Extrinsics(d["rotation"], d["translation"]) if d else None

        return Calibration(intrinsics(raw["depth"]), intrinsics(raw["color"]),
                           intrinsics(raw["hd_depth"]), intrinsics(raw["hd_color"]),
                           extrinsics(raw["extrinsic"]), extrinsics(raw["hd_extrinsic"]))

    @property
    def unique_id(self) -> int:
        """The camera's 64-bit unique ID."""
        return self._device.unique_id()


# ---- The module's functions -----------------------------------------------------------------

def cameras() -> List[CameraInfo]:
    """The connected cameras, in the order the library found them."""
    return [CameraInfo(*info) for info in _native.camera_list()]


def open(serial: Optional[str] = None) -> Camera:  # noqa: A001 (talvoro.open)
    """Opens the camera with this serial, or the first one; raises ``NoCameraError`` when there
    is none, ``Error`` (code -22, "CameraAlreadyOpen") when it is open already."""
    return Camera(serial)


def set_log_level(level: int) -> None:
    """The library's log threshold, -1 to 8 (default 2: failures only; 0: everything)."""
    _native.set_log_level(int(level))


def set_logging(output: LogOutput) -> None:
    """Where the library's log goes (default ``LogOutput.FILE``)."""
    _native.set_logging(int(LogOutput(output)))


def sdk_version() -> Tuple[int, int, int]:
    """The library's version, (major, minor, patch)."""
    return tuple(_native.sdk_version())


_native._set_mode_class(Mode)
_atexit.register(_native.shutdown)
