#!/usr/bin/python3
"""What the Python package adds per frame in data mode 4: a frame fetched with the package
(wait_frame, then every image as an array) against the same fetch through the C interface
(GetNextFrame and GetFrames, no copy), as a share of the 33.3 ms frame interval.

Run under the virtual camera, with the package on the path:

    talvoro-vcam run -- env PYTHONPATH=build/python /usr/bin/python3 \
        bench/python/frame_overhead.py [--frames N]

Both fetches run after a pause longer than a frame interval, so a frame is always waiting and
nothing is timed but the fetch; they alternate, so that load on the machine hits both alike.
The medians are compared, of wall time and of the fetching thread's CPU time: OpenCV runs on
that thread alone here (OPENCV_FOR_THREADS_NUM=1), so its CPU time holds all the work and is
little disturbed by other processes on a busy machine.
"""

import argparse
import ctypes
import os
import statistics
import time

os.environ.setdefault("OPENCV_FOR_THREADS_NUM", "1")  # read when OpenCV starts its threads

import talvoro  # noqa: E402

FRAME_INTERVAL = 1 / 30


class ToFFrame(ctypes.Structure):
    _fields_ = [("frame_data", ctypes.c_void_p), ("width", ctypes.c_uint16),
                ("height", ctypes.c_uint16), ("pixel_format", ctypes.c_uint8),
                ("total_size", ctypes.c_uint32), ("time_stamp", ctypes.c_uint64)]


class Frames(ctypes.Structure):
    _fields_ = [("images", ToFFrame * 4)]


class DeviceHandle(ctypes.Structure):
    _fields_ = [("serialNo", ctypes.c_char * 50)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--frames", type=int, default=100, help="fetches of each kind")
    args = parser.parse_args()

    lib = ctypes.CDLL("libTalvoroSDK.so.1")
    lib.GetNextFrame.argtypes = [DeviceHandle]
    lib.GetFrames.argtypes = [DeviceHandle, ctypes.POINTER(Frames)]
    with talvoro.open() as cam:
        cam.mode = talvoro.Mode.DEPTH_IR_RGB_VGA
        handle = DeviceHandle(cam.serial.encode())
        for _ in range(10):
            cam.wait_frame()

        def python_fetch(colour):
            frame = cam.wait_frame()
            arrays = [frame.depth, frame.ir, frame.color_uyvy, frame.depth_colormap]
            if colour:
                arrays.append(frame.color)
            return arrays

        def c_fetch():
            images = Frames()
            lib.GetNextFrame(handle)
            lib.GetFrames(handle, ctypes.byref(images))

        wall = {"c": [], "python": [], "python+rgb": []}
        cpu = {name: [] for name in wall}
        for _ in range(args.frames):
            for name, fetch in (("c", c_fetch), ("python", lambda: python_fetch(False)),
                                ("python+rgb", lambda: python_fetch(True))):
                time.sleep(FRAME_INTERVAL * 1.3)
                start, start_cpu = time.perf_counter(), time.thread_time()
                fetch()
                cpu[name].append(time.thread_time() - start_cpu)
                wall[name].append(time.perf_counter() - start)

    for kind, timings in (("wall time", wall), ("thread CPU time", cpu)):
        c = statistics.median(timings["c"])
        print(f"{kind}: C interface (GetNextFrame + GetFrames) {c * 1e3:.2f} ms median")
        for name in ("python", "python+rgb"):
            p = statistics.median(timings[name])
            extra = p - c
            print(f"  {name:>10}: {p * 1e3:.2f} ms, {extra * 1e3:+.2f} ms over C = "
                  f"{extra / FRAME_INTERVAL:.1%} of the frame interval")


if __name__ == "__main__":
    main()
