#!/usr/bin/python3
"""Writes one frame's depth as a coloured point cloud: a binary PLY file of x, y, z in metres
(x right, y down, z forward) and the colour the colour camera sees at each point.

usage: point_cloud.py [--serial SERIAL] [--planarize] OUT.ply
"""

import argparse
import os

import numpy as np

import talvoro


def write_ply(path, points, colours):
    vertex = np.empty(len(points), dtype=[("x", "<f4"), ("y", "<f4"), ("z", "<f4"),
                                          ("red", "u1"), ("green", "u1"), ("blue", "u1")])
    vertex["x"], vertex["y"], vertex["z"] = points[:, 0], points[:, 1], points[:, 2]
    vertex["red"], vertex["green"], vertex["blue"] = colours[:, 0], colours[:, 1], colours[:, 2]
    header = ("ply\nformat binary_little_endian 1.0\n"
              f"element vertex {len(points)}\n"
              "property float x\nproperty float y\nproperty float z\n"
              "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n")
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    with open(path, "wb") as out:
        out.write(header.encode("ascii"))
        out.write(vertex.tobytes())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--serial", help="the camera (default: the first one)")
    parser.add_argument("--planarize", action="store_true", help="planarize depth first")
    parser.add_argument("out", help="the PLY file to write")
    args = parser.parse_args()

    with talvoro.open(args.serial) as cam:
        cam.mode = talvoro.Mode.DEPTH_IR_RGB_VGA
        cam.planarization = args.planarize
        frame = cam.wait_frame()
        points, colours = frame.points(colored=True)
    write_ply(args.out, points, colours)
    print(f"wrote {len(points)} points to {args.out}")


if __name__ == "__main__":
    main()
