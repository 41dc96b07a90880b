"""The talvoro package on two virtual cameras, PY-1 and PY-2."""

import builtins
import gc
import os
import subprocess
import sys
import threading
import time
import tracemalloc

import numpy as np
import pytest

import talvoro
from conftest import clear_fault, inject_fault, rgb_from_uyvy


@pytest.fixture
def cam():
    with talvoro.open("PY-1") as camera:
        # The camera keeps its data mode from one opening to the next.
        camera.mode = talvoro.Mode.DEPTH_IR_RGB_VGA
        yield camera


def test_lists_and_opens_cameras_by_serial():
    listed = talvoro.cameras()
    assert [c.serial for c in listed] == ["PY-1", "PY-2"]
    assert (listed[0].vendor_id, listed[0].product_id) == ("7e91", "a05c")
    assert listed[1].path.startswith("/dev/video")

    with talvoro.open("PY-2") as second, talvoro.open() as first:
        assert (first.serial, second.serial) == ("PY-1", "PY-2")
        with pytest.raises(talvoro.Error) as already:
            talvoro.open("PY-2")
        assert (already.value.code, already.value.name) == (-22, "CameraAlreadyOpen")
    assert first.closed and second.closed
    with pytest.raises(talvoro.NotOpenError):
        first.exposure
    first.close()  # again: nothing happens

    with pytest.raises(talvoro.NoCameraError) as missing:
        talvoro.open("NO-SUCH")
    assert missing.value.code == -6


def test_bad_input_raises_the_library_code(cam):
    with pytest.raises(talvoro.InvalidValueError) as gain:
        cam.ir_gain = 0
    assert isinstance(gain.value, ValueError)
    assert (gain.value.code, gain.value.name) == (-13, "InvalidValue")
    assert cam.ir_gain == 16  # unchanged
    with pytest.raises(talvoro.InvalidValueError):
        cam.exposure = 1000  # above the near range's 380
    with pytest.raises(ValueError):
        cam.mode = 42

    cam.mode = talvoro.Mode.DEPTH
    with pytest.raises(talvoro.NotSupportedError) as mapping:
        cam.mapping = True
    assert mapping.value.code == -23
    assert cam.mapping is False
    with pytest.raises(talvoro.Error) as level:
        talvoro.set_log_level(99)
    assert level.value.name == "OperationFailed"


def test_controls_take_and_give_python_values(cam):
    cam.exposure = 300
    assert cam.exposure == 300
    cam.ir_gain = 40
    assert cam.ir_gain == 40
    cam.planarization = True
    assert cam.planarization is True
    assert cam.depth_range == talvoro.DepthRange.NEAR
    assert cam.temperatures == (38.0, 45.0)
    assert cam.unique_id != 0

    calibration = cam.calibration
    assert calibration.depth.matrix.shape == (3, 3)
    assert calibration.depth.distortion.shape == (5,)
    assert calibration.extrinsic.rotation.shape == (3, 3)
    assert abs(calibration.extrinsic.translation[0]) > 10  # millimetres

    samples = cam.imu_samples(3)
    assert samples.dtype == talvoro.IMU_SAMPLE and len(samples) == 3
    # At rest: gravity along y, about 1000 mg.
    assert np.all(np.abs(samples.acc_y - 1000) < 5)


def test_frames_of_each_data_mode(cam):
    # (mode, depth shape, colour shape)
    cases = [(talvoro.Mode.DEPTH_IR_RGB_VGA, (480, 640), (480, 640, 3)),
             (talvoro.Mode.DEPTH, (480, 640), None),
             (talvoro.Mode.RGB_HD, None, (720, 1280, 3)),
             (talvoro.Mode.DEPTH_IR_RGB_HD, (480, 640), (720, 1280, 3))]
    for mode, depth, colour in cases:
        cam.mode = mode
        frames = list(cam.frames(count=3))
        frame = frames[-1]
        assert frame.mode == mode
        assert [f.sequence for f in frames] == sorted(set(f.sequence for f in frames))
        assert abs(frame.timestamp - time.time()) < 5
        assert abs(frame.monotonic_ns - time.monotonic_ns()) < 5e9
        assert abs(frame.timestamp_ns * 1e-9 - frame.timestamp) < 1e-6
        if depth is None:
            assert frame.depth is None and frame.ir is None and frame.depth_colormap is None
        else:
            assert frame.depth.shape == depth and frame.depth.dtype == np.uint16
            assert frame.depth_colormap.shape == depth + (3,)
            # The virtual room: a back wall 2.4 m away.
            assert 1500 < np.median(frame.depth[frame.depth > 0]) < 3000
            assert np.shares_memory(frame.depth, frame.depth)  # views of the frame's copy
        if colour is None:
            assert frame.color is None and frame.color_uyvy is None
        else:
            assert frame.color.shape == colour and frame.color.dtype == np.uint8
            assert frame.color_uyvy.shape == colour[:2] + (2,)
            expected = np.clip(rgb_from_uyvy(frame.color_uyvy), 0, 255)
            assert np.abs(frame.color.astype(float) - expected).max() <= 3


def project(points, intrinsics):
    """Pixel coordinates of points (N x 3) through OpenCV's five-coefficient lens model."""
    k1, k2, p1, p2, k3 = intrinsics.distortion
    x, y = points[:, 0] / points[:, 2], points[:, 1] / points[:, 2]
    r2 = x * x + y * y
    radial = 1 + k1 * r2 + k2 * r2 ** 2 + k3 * r2 ** 3
    xd = x * radial + 2 * p1 * x * y + p2 * (r2 + 2 * x * x)
    yd = y * radial + p1 * (r2 + 2 * y * y) + 2 * p2 * x * y
    m = intrinsics.matrix
    return np.stack([m[0, 0] * xd + m[0, 2], m[1, 1] * yd + m[1, 2]], axis=1)


def test_points_match_an_independent_deprojection(cam):
    calibration = cam.calibration
    rows, cols = np.mgrid[0:480, 0:640]

    # Undistorted planarized depth: the pinhole model, z is the depth.
    cam.mode = talvoro.Mode.DEPTH
    cam.planarization = cam.undistortion = True
    frame = cam.wait_frame()
    points = frame.points(organized=True)
    assert points.shape == (480, 640, 3) and points.dtype == np.float32
    m = calibration.depth.matrix
    z = frame.depth / 1000.0
    has = frame.depth > 0
    expected = np.stack([(cols - m[0, 2]) / m[0, 0] * z, (rows - m[1, 2]) / m[1, 1] * z, z], -1)
    assert np.allclose(points[has], expected[has], atol=1e-5)
    assert np.isnan(points[~has]).all()

    # Depth as the lens sees it: each point projects back onto its pixel, at its distance.
    cam.planarization = cam.undistortion = False
    frame = cam.wait_frame()
    points = frame.points()
    has = frame.depth > 0
    assert len(points) == has.sum()
    pixels = np.stack([cols[has], rows[has]], axis=1)
    assert np.abs(project(points.astype(float), calibration.depth) - pixels).max() < 0.02
    assert np.allclose(np.linalg.norm(points, axis=1) * 1000, frame.depth[has], atol=0.01)

    # Registered depth: in the colour camera, coloured by the colour pixel itself.
    cam.mode = talvoro.Mode.DEPTH_IR_RGB_VGA
    cam.mapping = True
    frame = cam.wait_frame()
    points, colours = frame.points(colored=True)
    has = frame.depth > 0
    assert np.abs(project(points.astype(float), calibration.color) -
                  np.stack([cols[has], rows[has]], axis=1)).max() < 0.02
    assert np.array_equal(colours, frame.color[has])

    # Only the newest frame can be deprojected; the older one keeps its images.
    older = frame
    cam.wait_frame()
    with pytest.raises(talvoro.StaleFrameError):
        older.points()
    assert older.depth.sum() > 0

    cam.mode = talvoro.Mode.RGB_VGA
    with pytest.raises(talvoro.NotSupportedError):
        cam.wait_frame().points()


def test_another_thread_runs_while_one_waits():
    counted = []
    stop = threading.Event()

    def count():
        n = 0
        while not stop.is_set():
            n += 1
        counted.append(n)

    with talvoro.open("PY-2") as quiet, talvoro.open("PY-1") as busy:
        quiet.wait_frame()
        inject_fault("PY-2", "stall")
        # Frames filled before the stall may still be on their way: take them first.
        with pytest.raises(talvoro.TimeoutError):
            for _ in range(10):
                quiet.wait_frame(timeout=0.5)
        # A second camera streams on another thread meanwhile.
        other = []
        streamer = threading.Thread(target=lambda: other.extend(busy.frames(count=10)))
        counter = threading.Thread(target=count)
        counter.start()
        streamer.start()
        try:
            with pytest.raises(talvoro.TimeoutError) as waited:
                quiet.wait_frame(timeout=1.0)
            assert isinstance(waited.value, builtins.TimeoutError)
        finally:
            stop.set()
            counter.join()
            streamer.join()
            clear_fault("PY-2", "stall")
        # Python ran on while the main thread waited for the camera.
        assert counted[0] > 10000
        assert len(other) == 10


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")
def test_callbacks_run_with_the_gil(cam):
    calls = []
    cam.on_frame(lambda: calls.append(time.monotonic()))
    deadline = time.monotonic() + 10
    while len(calls) < 3 and time.monotonic() < deadline:
        time.sleep(0.01)
    assert len(calls) >= 3

    # A callback that raises does not stop the stream; one that waits for a frame is refused.
    refused = []

    def waits():
        try:
            cam.wait_frame()
        except talvoro.Error as e:
            refused.append(e)
        raise RuntimeError("ignored")

    cam.on_frame(waits)
    deadline = time.monotonic() + 10
    while not refused and time.monotonic() < deadline:
        cam.wait_frame()
    assert refused
    cam.wait_frame()  # the stream goes on
    cam.on_frame(None)


def test_collecting_an_open_camera_closes_it():
    camera = talvoro.open("PY-1")
    camera.on_frame(lambda: None)
    camera.wait_frame()
    del camera
    gc.collect()
    with talvoro.open("PY-1") as again:  # CameraAlreadyOpen unless the first one closed
        again.wait_frame()


@pytest.mark.parametrize("script", [
    # Exit with a camera streaming into a Python callback.
    "cam = talvoro.open('PY-1'); cam.on_frame(lambda: None); cam.wait_frame()",
    # Exit while a daemon thread waits for a frame for ever.
    "import threading; cam = talvoro.open('PY-1'); cam.wait_frame();"
    "threading.Thread(target=lambda: list(cam.frames(timeout=None)), daemon=True).start()",
])
def test_exit_while_streaming_is_clean(script):
    done = subprocess.run([sys.executable, "-c", f"import talvoro; {script}; print('done')"],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    assert done.stdout == "done\n"


def resident_bytes():
    with builtins.open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def test_no_leak_over_200_open_close_cycles():
    def fds():
        return len(os.listdir("/proc/self/fd"))

    def threads():
        return len(os.listdir("/proc/self/task"))

    for _ in range(3):
        with talvoro.open("PY-1") as camera:
            camera.wait_frame()
    gc.collect()
    tracemalloc.start()
    before = tracemalloc.take_snapshot()
    fds_before, threads_before = fds(), threads()
    for i in range(200):
        with talvoro.open("PY-1") as camera:
            if i % 50 == 0:
                camera.wait_frame()
    gc.collect()
    after = tracemalloc.take_snapshot()
    tracemalloc.stop()
    grown = sum(s.size_diff for s in after.compare_to(before, "filename"))
    assert grown < 100_000
    assert fds() == fds_before
    assert threads() == threads_before


def test_frames_and_their_arrays_are_freed(cam):
    def fetch(count):
        for frame in cam.frames(count=count):
            arrays = (frame.depth, frame.ir, frame.color, frame.depth_colormap, frame.points())
            assert all(a is not None for a in arrays)

    fetch(10)
    before = resident_bytes()
    fetch(100)  # about 7 MB each: a frame kept would show
    assert resident_bytes() - before < 50_000_000
