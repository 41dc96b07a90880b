#!/usr/bin/python3
"""Writes a recording (the virtual camera's replay format) of one known frame in each of data
modes 0 (depth and IR row pairs), 4 (multiplexed with 640x480 colour) and 6 (colour), and the
images the library should make of them, for test_replay.py.

usage: make_recording.py RECORDING EXPECTED.npz
"""

import struct
import sys

import numpy as np

Y16, UYVY = 0x20363159, 0x59565955


def record(out, tag, payload):
    out.write(tag + struct.pack("<IQ", 0, len(payload)) + payload)


def frame(out, fourcc, width, height, first, second, data):
    header = struct.pack("<IHHHBBIQQ", fourcc, width, height, first, second, 0, 0, 0, 0)
    record(out, b"FRAM", header + data)


def pack12(values):
    """A ToF line: every two 12-bit pixels in three bytes."""
    p = values.astype(np.uint16).reshape(-1, 2)
    out = np.empty((len(p), 3), np.uint8)
    out[:, 0] = p[:, 0] >> 4
    out[:, 1] = p[:, 1] >> 4
    out[:, 2] = ((p[:, 0] & 15) << 4) | (p[:, 1] & 15)
    return out.tobytes()


def main():
    rng = np.random.default_rng(7)
    depth = rng.integers(0, 4096, (480, 640), dtype=np.uint16)
    ir = rng.integers(0, 4096, (480, 640), dtype=np.uint16)
    uyvy = rng.integers(0, 256, (480, 640, 2), dtype=np.uint8)
    depth[::7, ::5] = 0  # pixels without depth
    # Multiplexed lines tell their kind by bit 0 of their first byte: bit 4 of a ToF line's first
    # pixel is set, a colour line's first byte (U) is even.
    depth[:, 0] |= 16
    ir[:, 0] |= 16
    uyvy[:, 0, 0] &= 0xFE

    pairs = np.concatenate([depth, ir], axis=1)  # row pairs: depth row, then IR row
    lines = b"".join(pack12(depth[r]) + pack12(ir[r]) + uyvy[r].tobytes() for r in range(480))
    with open(sys.argv[1], "wb") as out:
        out.write(b"TALVOREC" + struct.pack("<II", 1, 16))
        record(out, b"META", b"serial=REPLAY-1\nfps=30\n")
        frame(out, Y16, 640, 960, 1, 0, pairs.astype("<u2").tobytes())
        frame(out, Y16, 1280, 600, 0, 0, lines)
        frame(out, UYVY, 640, 480, 2, 0, uyvy.tobytes())
    np.savez(sys.argv[2], depth=depth, ir=ir, uyvy=uyvy)


if __name__ == "__main__":
    main()
