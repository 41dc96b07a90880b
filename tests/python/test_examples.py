"""The examples of examples/python on the virtual camera EXAMPLE-1."""

import os
import subprocess
import sys

import pytest
from PIL import Image

EXAMPLES = os.environ["TALVORO_PYTHON_EXAMPLES"]


def run(script, *args):
    done = subprocess.run([sys.executable, os.path.join(EXAMPLES, script), *args],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_list_cameras():
    out = run("list_cameras.py")
    assert out.startswith("EXAMPLE-1  Talvoro Depth Camera  /dev/video")
    assert "depth fx" in out


def test_save_images(tmp_path):
    out = run("save_images.py", "--frames", "5", "--out", str(tmp_path))
    assert out.count("mm at the centre") == 5
    sizes = {name: Image.open(tmp_path / name) for name in
             ("depth.png", "ir.png", "color.png", "depth-colormap.png")}
    assert sizes["depth.png"].mode.startswith("I") and sizes["depth.png"].size == (640, 480)
    assert sizes["color.png"].mode == "RGB" and sizes["color.png"].size == (640, 480)


def test_point_cloud(tmp_path):
    out = run("point_cloud.py", "--planarize", str(tmp_path / "room.ply"))
    count = int(out.split()[1])
    assert count > 250000
    data = (tmp_path / "room.ply").read_bytes()
    header, body = data.split(b"end_header\n", 1)
    assert f"element vertex {count}".encode() in header
    assert len(body) == count * 15
