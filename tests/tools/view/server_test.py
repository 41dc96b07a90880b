"""talvoro view without a browser: access token, origin, request checking, many viewers and a
viewer that stops reading. One viewer process with one virtual camera serves every test."""

import io
import re
import threading
import unittest

import numpy
from PIL import Image

from viewer import LiveStream, Viewer, wait_for

SERIAL = "SRV-1"
MAX_VIEWERS = 20
viewer = None


def setUpModule():
    global viewer
    viewer = Viewer([f"serial={SERIAL}"], ["--max-viewers", str(MAX_VIEWERS)])
    wait_for(lambda: (viewer.status(SERIAL) or {}).get("state") == "live", 30, "the camera")


def tearDownModule():
    status, err = viewer.stop()
    # Ctrl-C ends it cleanly (status 130, as for every command), with nothing to complain about.
    assert status == 130 and err == "", (status, err)


def camera_commands(mark):
    """Extension-unit commands sent to the camera since `mark` (selector 1 carries commands out;
    a SET_CUR on selector 2 only chooses what the next read answers)."""
    lines, _ = viewer.trace_lines(mark)
    return [line for line in lines if "XU 3 1 SET_CUR" in line]


class Access(unittest.TestCase):
    def test_every_request_needs_the_token(self):
        wrong = "0" * len(viewer.token)
        paths = ["/", "/viewer.js", "/api/cameras", "/api/live", f"/api/cameras/{SERIAL}/controls",
                 f"/api/cameras/{SERIAL}/snapshot/depth.png", f"/api/cameras/{SERIAL}/pixel?x=1&y=1"]
        for path in paths:
            for token in (None, wrong, viewer.token[:-1]):
                with self.subTest(path=path, token=token):
                    status, body = viewer.get(path, token=token)
                    self.assertEqual(status, 403)
                    self.assertIn("access token", body["error"])
        # The header carries it as well as the query.
        status, _ = viewer.get("/api/cameras", token=None,
                               headers={"X-Talvoro-Token": viewer.token})
        self.assertEqual(status, 200)

    def test_changes_need_a_post_from_the_page(self):
        before = viewer.control(SERIAL, "tof-exposure")["values"]
        mark = viewer.trace_size()
        path = f"/api/cameras/{SERIAL}/controls/tof-exposure"
        refusals = [
            dict(token="f" * len(viewer.token)),
            dict(headers={"Origin": "http://evil.example"}),
            dict(headers={"Origin": ""}),
        ]
        for refusal in refusals:
            with self.subTest(**refusal):
                status, _ = viewer.post(path, {"value": 100}, **refusal)
                self.assertEqual(status, 403)
        self.assertEqual(viewer.get(path + "?value=100")[0], 404)  # no change by GET
        self.assertEqual(viewer.control(SERIAL, "tof-exposure")["values"], before)
        self.assertEqual(camera_commands(mark), [])


class Controls(unittest.TestCase):
    def test_bad_requests_are_refused_and_change_nothing(self):
        exposure = viewer.control(SERIAL, "tof-exposure")["values"]
        colour_map = viewer.control(SERIAL, "colour-map")["values"]
        mark = viewer.trace_size()
        base = f"/api/cameras/{SERIAL}"
        cases = [
            ("tof-exposure", b"{", 400, "not a JSON object"),
            ("tof-exposure", b"[250]", 400, "not a JSON object"),
            ("tof-exposure", {}, 400, "either"),
            ("tof-exposure", {"value": 1, "values": [1]}, 400, "either"),
            ("tof-exposure", {"value": 2.5}, 400, "whole number"),
            ("tof-exposure", {"value": "5000"}, 400, "out of range (0 to 380)"),
            ("tof-exposure", {"value": "-1"}, 400, "out of range"),
            ("tof-exposure", {"values": [100, 200]}, 400, "expected 1 value"),
            ("colour-map", {"value": "3000,500,jet"}, 400, "max must be above min"),
            ("colour-map", {"value": "500,3000,sepia"}, 400, "unknown value 'sepia'"),
            ("scene-mode", {"value": "portrait"}, 400, "unknown value 'portrait'"),
            ("no-such-control", {"value": 1}, 404, "unknown control"),
            ("base-temperature", {"value": 1}, 400, "read only"),
            ("orientation", {"value": "mirrored"}, 409, "colour-only data mode"),
        ]
        for name, body, status, message in cases:
            with self.subTest(control=name, body=body):
                got, reply = viewer.post(f"{base}/controls/{name}", body,
                                         headers={"Content-Type": "application/json"})
                self.assertEqual(got, status, reply)
                self.assertIn(message, reply["error"])
        got, reply = viewer.post(f"{base}/controls/tof-exposure", b"250",
                                 headers={"Content-Type": "text/plain"})
        self.assertEqual(got, 415, reply)
        got, reply = viewer.post("/api/cameras/NOPE/controls/tof-exposure", {"value": 250})
        self.assertEqual(got, 404, reply)

        self.assertEqual(viewer.control(SERIAL, "tof-exposure")["values"], exposure)
        self.assertEqual(viewer.control(SERIAL, "colour-map")["values"], colour_map)
        self.assertEqual(camera_commands(mark), [])

    def test_a_valid_change_reaches_the_camera(self):
        mark = viewer.trace_size()
        status, reply = viewer.post(f"/api/cameras/{SERIAL}/controls/tof-exposure",
                                    {"value": "300"})
        self.assertEqual(status, 200, reply)
        self.assertEqual(reply["values"], [300])
        # Extension-unit command 0x05 carries the exposure, 300 = 0x012C little-endian.
        commands = camera_commands(mark)
        self.assertEqual(len(commands), 1, commands)
        self.assertIn("SET_CUR 05 00 2C 01", commands[0])
        self.assertEqual(viewer.control(SERIAL, "tof-exposure")["values"], [300])


class Snapshots(unittest.TestCase):
    def test_images_and_point_cloud_of_a_frame(self):
        base = f"/api/cameras/{SERIAL}"
        for file, mode in [("depth.png", "I"), ("ir.png", "I"), ("colour.png", "RGB"),
                           ("depth-colormap.png", "RGB")]:
            with self.subTest(file=file):
                status, png = viewer.get(f"{base}/snapshot/{file}")
                self.assertEqual(status, 200)
                image = Image.open(io.BytesIO(png))
                self.assertEqual((image.size, image.mode), ((640, 480), mode))
                if mode == "I":  # 16 bits as the library has them, not scaled down to 8
                    self.assertGreater(numpy.asarray(image).max(), 255)
        status, ply = viewer.get(f"{base}/snapshot/cloud.ply")
        self.assertEqual(status, 200)
        header, body = ply.split(b"end_header\n", 1)
        count = int(re.search(rb"element vertex (\d+)", header).group(1))
        self.assertEqual(len(body), 15 * count)
        # Most of the room is in range; every point lies in front of the camera.
        self.assertGreater(count, 640 * 480 // 2)
        z = numpy.frombuffer(body, dtype=numpy.dtype([("xyz", "<f4", 3), ("rgb", "u1", 3)]))
        self.assertGreater(z["xyz"][:, 2].min(), 0)
        status, reply = viewer.get(f"{base}/pixel?x=640&y=0")
        self.assertEqual(status, 400)
        self.assertIn("outside the 640x480 depth image", reply["error"])


class Viewers(unittest.TestCase):
    def test_twenty_viewers_at_once_and_no_more(self):
        streams = [LiveStream(viewer) for _ in range(MAX_VIEWERS)]
        failures = []

        def watch(stream):
            try:
                status, body = stream.read_head()
                if status != 200:
                    raise AssertionError(body)
                kinds = set()
                stream.images_until(lambda h: kinds.add(h["image"]) or len(kinds) == 3)
            except Exception as e:  # noqa: BLE001 - reported below
                failures.append(repr(e))

        threads = [threading.Thread(target=watch, args=(s,)) for s in streams]
        for t in threads:
            t.start()
        for t in threads:
            t.join(60)
        self.assertEqual(failures, [])
        self.assertEqual(viewer.viewers(), MAX_VIEWERS)

        extra = LiveStream(viewer)
        status, body = extra.read_head()
        extra.close()
        self.assertEqual(status, 503)
        self.assertIn("too many viewers", body["error"])

        for s in streams:
            s.close()
        wait_for(lambda: viewer.viewers() == 0, 30, "the viewers to leave")
        again = LiveStream(viewer)
        self.assertEqual(again.read_head()[0], 200)
        again.close()
        wait_for(lambda: viewer.viewers() == 0, 30, "the last viewer to leave")

    def test_a_slow_viewer_skips_frames_and_catches_up(self):
        slow = LiveStream(viewer, receive_buffer=4096)
        self.assertEqual(slow.read_head()[0], 200)
        depth = lambda h: h["image"] == "depth"
        frames = [slow.images_until(depth)["frame"]]
        reader = LiveStream(viewer)
        self.assertEqual(reader.read_head()[0], 200)
        # Two seconds of frames pass while the slow viewer reads nothing; the other viewer gets
        # them all the same.
        start = reader.images_until(depth)["frame"]
        now = reader.images_until(lambda h: depth(h) and h["frame"] >= start + 60)["frame"]
        while frames[-1] < now:
            frames.append(slow.images_until(depth)["frame"])
        # What it missed was dropped, not queued for it: it is back at the present.
        gaps = [b - a for a, b in zip(frames, frames[1:])]
        self.assertGreaterEqual(max(gaps), 5, frames)
        self.assertEqual(viewer.viewers(), 2)
        reader.close()
        slow.close()
        wait_for(lambda: viewer.viewers() == 0, 30, "the viewers to leave")

    def test_a_viewer_that_stops_reading_is_cut_off(self):
        stalled = LiveStream(viewer, receive_buffer=4096)
        self.assertEqual(stalled.read_head()[0], 200)
        reader = LiveStream(viewer)
        self.assertEqual(reader.read_head()[0], 200)
        wait_for(lambda: viewer.viewers() == 1, 30, "the stalled viewer to be cut off")
        depth = lambda h: h["image"] == "depth"
        start = reader.images_until(depth)["frame"]
        reader.images_until(lambda h: depth(h) and h["frame"] >= start + 30)
        reader.close()
        stalled.close()
        wait_for(lambda: viewer.viewers() == 0, 30, "the viewers to leave")


if __name__ == "__main__":
    unittest.main()
