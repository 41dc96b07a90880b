#!/usr/bin/python3
"""Lists the connected Talvoro cameras: serial, name, video node and calibration."""

import talvoro


def main():
    found = talvoro.cameras()
    if not found:
        print("no Talvoro camera connected")
        return
    for info in found:
        print(f"{info.serial}  {info.name}  {info.path}  ({info.vendor_id}:{info.product_id})")
        with talvoro.open(info.serial) as cam:
            depth = cam.calibration.depth
            if depth is None:
                print("    no depth calibration")
            else:
                fx, fy = depth.matrix[0, 0], depth.matrix[1, 1]
                print(f"    data mode {cam.mode.name}, depth fx {fx:.1f} fy {fy:.1f}")


if __name__ == "__main__":
    main()
