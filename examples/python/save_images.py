#!/usr/bin/python3
"""Streams a camera in data mode 4 (depth, IR and colour) and saves the last frame's images as
PNG files: depth.png (16-bit millimetres), ir.png (16-bit), color.png and depth-colormap.png.

usage: save_images.py [--serial SERIAL] [--frames N] [--out DIR]
"""

import argparse
import os

from PIL import Image

import talvoro


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--serial", help="the camera (default: the first one)")
    parser.add_argument("--frames", type=int, default=30, help="frames to stream (default 30)")
    parser.add_argument("--out", default=".", help="directory for the PNG files")
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)

    with talvoro.open(args.serial) as cam:
        cam.mode = talvoro.Mode.DEPTH_IR_RGB_VGA
        cam.set_color_map(300, 4000)
        for frame in cam.frames(count=args.frames):
            centre = frame.depth[frame.depth.shape[0] // 2, frame.depth.shape[1] // 2]
            print(f"frame {frame.sequence}: {centre} mm at the centre")

    # The arrays are the frame's own: they outlive the camera.
    Image.fromarray(frame.depth).save(os.path.join(args.out, "depth.png"))
    Image.fromarray(frame.ir).save(os.path.join(args.out, "ir.png"))
    Image.fromarray(frame.color).save(os.path.join(args.out, "color.png"))
    Image.fromarray(frame.depth_colormap).save(os.path.join(args.out, "depth-colormap.png"))
    print(f"saved depth.png, ir.png, color.png and depth-colormap.png in {args.out}")


if __name__ == "__main__":
    main()
