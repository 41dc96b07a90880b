"""A camera unplugged while Python iterates over its frames: GONE-1, unplugged at frame 40."""

import threading

import numpy as np
import pytest

import talvoro


def test_unplug_during_iteration_raises_and_keeps_the_frames():
    unplugged = threading.Event()
    cam = talvoro.open("GONE-1")
    cam.on_unplug(unplugged.set)
    kept = []
    with pytest.raises(talvoro.CameraGoneError) as gone:
        for frame in cam.frames(timeout=10):
            kept.append(frame)
    assert gone.value.code == -7
    assert 0 < len(kept) <= 40
    assert unplugged.wait(10)
    assert cam.closed

    # The frames fetched before stay readable; the camera itself is gone for every call.
    assert all(np.median(f.depth[f.depth > 0]) > 1000 for f in kept)
    with pytest.raises(talvoro.CameraGoneError):
        kept[-1].points()
    with pytest.raises(talvoro.CameraGoneError):
        cam.exposure = 100
    cam.close()
    assert "GONE-1" not in [c.serial for c in talvoro.cameras()]
