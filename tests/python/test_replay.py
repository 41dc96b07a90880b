"""Frames of a replayed recording (make_recording.py) as Python gets them: the recorded images,
and what the C interface hands out for the same frame. The camera REPLAY-1 plays the
recording; EXPECTED names the images it holds."""

import os

import numpy as np
import pytest

import talvoro
from conftest import rgb_from_uyvy

EXPECTED = np.load(os.environ["EXPECTED"])


def fetch_with_c_images(cam, capi):
    """A frame and the C interface's images of the same frame (no fetch in between)."""
    for _ in range(20):
        frame = cam.wait_frame()
        images = capi.frames(cam.serial)
        if images is not None:  # a frame captured meanwhile makes them stale: again
            return frame, images
    pytest.fail("GetFrames kept refusing")


@pytest.mark.parametrize("mode", [talvoro.Mode.DEPTH_IR, talvoro.Mode.DEPTH_IR_RGB_VGA,
                                  talvoro.Mode.RGB_VGA])
def test_frames_are_the_recorded_images_and_the_c_interfaces(mode, capi):
    with talvoro.open("REPLAY-1") as cam:
        cam.mode = mode
        frame, c = fetch_with_c_images(cam, capi)
        if mode != talvoro.Mode.RGB_VGA:
            assert np.array_equal(frame.depth, EXPECTED["depth"])
            # The IR image is the camera's IR times the gain of 16, saturated.
            assert np.array_equal(frame.ir, np.minimum(EXPECTED["ir"].astype(int) * 16, 65535))
            assert np.array_equal(frame.depth, c["raw_depth_frame"])
            assert np.array_equal(frame.ir, c["ir_frame"])
            assert np.array_equal(frame.depth_colormap, c["depth_colormap_frame"][:, :, ::-1])
        if mode != talvoro.Mode.DEPTH_IR:
            assert np.array_equal(frame.color_uyvy, EXPECTED["uyvy"])
            assert np.array_equal(frame.color_uyvy, c["rgb_frame"])
            expected = np.clip(rgb_from_uyvy(EXPECTED["uyvy"]), 0, 255)
            assert np.abs(frame.color - expected).max() <= 3
        else:
            assert frame.color is None
