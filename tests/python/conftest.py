"""Shared by the Python tests, which run under the virtual camera's launcher (talvoro-vcam run)
with the package of the build tree on PYTHONPATH."""

import ctypes

import numpy as np
import pytest

import talvoro

_process = ctypes.CDLL(None)


def vcam_present():
    return hasattr(_process, "talvoro_vcam_camera_count")


def inject_fault(serial, spec):
    """Adds a fault to a virtual camera while the test runs ("stall", "unplug@10", ...)."""
    _process.talvoro_vcam_inject_fault.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
    assert _process.talvoro_vcam_inject_fault(serial.encode(), spec.encode()) == 0


def clear_fault(serial, name):
    _process.talvoro_vcam_clear_fault.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
    assert _process.talvoro_vcam_clear_fault(serial.encode(), name.encode()) == 0


@pytest.fixture(autouse=True)
def in_virtual_camera_and_scratch_dir(tmp_path, monkeypatch):
    # Without the launcher these tests must fail, not pass.
    assert vcam_present(), "run under talvoro-vcam"
    # The library writes calibration files and its log into the working directory.
    monkeypatch.chdir(tmp_path)


# ---- The C interface through ctypes, to compare with -------------------------------------

class DeviceHandle(ctypes.Structure):
    _fields_ = [("serialNo", ctypes.c_char * 50)]


class ToFFrame(ctypes.Structure):
    _fields_ = [("frame_data", ctypes.POINTER(ctypes.c_uint8)), ("width", ctypes.c_uint16),
                ("height", ctypes.c_uint16), ("pixel_format", ctypes.c_uint8),
                ("total_size", ctypes.c_uint32), ("time_stamp", ctypes.c_uint64)]


class Frames(ctypes.Structure):
    _fields_ = [("rgb_frame", ToFFrame), ("ir_frame", ToFFrame), ("raw_depth_frame", ToFFrame),
                ("depth_colormap_frame", ToFFrame)]


class CApi:
    """The library the package has loaded, called directly."""

    def __init__(self):
        self.lib = ctypes.CDLL("libTalvoroSDK.so.1")
        self.lib.GetFrames.argtypes = [DeviceHandle, ctypes.POINTER(Frames)]
        self.lib.GetNextFrame.argtypes = [DeviceHandle]

    def frames(self, serial):
        """The images GetFrames hands out now, as copies: {name: array or None}; None when the
        library says they are stale."""
        out = Frames()
        if self.lib.GetFrames(DeviceHandle(serial.encode()), ctypes.byref(out)) != 1:
            return None
        images = {}
        for name, channels, dtype in (("rgb_frame", 2, np.uint8), ("ir_frame", 1, np.uint16),
                                      ("raw_depth_frame", 1, np.uint16),
                                      ("depth_colormap_frame", 3, np.uint8)):
            f = getattr(out, name)
            if not f.frame_data:
                images[name] = None
                continue
            raw = np.ctypeslib.as_array(f.frame_data, shape=(f.total_size,)).copy()
            shape = (f.height, f.width) + ((channels,) if channels > 1 else ())
            images[name] = raw.view(dtype).reshape(shape)
        return images

    def next_frame(self, serial):
        return self.lib.GetNextFrame(DeviceHandle(serial.encode()))


@pytest.fixture(scope="session")
def capi():
    talvoro.cameras()  # loads and initialises the library
    return CApi()


def rgb_from_uyvy(uyvy):
    """BT.601 limited range, as the camera encodes its colour: (H, W, 3) float. Luma below
    black (16) is black."""
    u = uyvy[:, 0::2, 0].astype(float) - 128
    v = uyvy[:, 1::2, 0].astype(float) - 128
    y = np.maximum(uyvy[:, :, 1].astype(float) - 16, 0) * 1.164
    u, v = np.repeat(u, 2, axis=1), np.repeat(v, 2, axis=1)
    return np.stack([y + 1.596 * v, y - 0.392 * u - 0.813 * v, y + 2.017 * u], axis=-1)
