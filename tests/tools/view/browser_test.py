"""talvoro view in a real browser: headless Chromium driven by Selenium loads the page under the
virtual camera, checks that every image panel shows the scene, changes the colour map and the data
mode through the page, reads a pixel's depth and 3D point by pointing at it, shows the point cloud
in WebGL, and sees a camera unplugged and plugged in again. A screenshot of the page is left in
the working directory (and, with TALVORO_VIEW_SCREENSHOT=FILE, written there too: the README's
picture)."""

import base64
import io
import math
import os
import shutil
import tempfile
import time
import unittest

import numpy
from PIL import Image
from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

from viewer import Viewer

CAMERA = "VIEW-1"
# Unplugged and plugged in again while the page shows it.
GONE = "VIEW-GONE"


def chromium():
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium") or "/usr/bin/chromium"
    for arg in ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                "--disable-background-networking", "--disable-component-update", "--disable-sync",
                "--window-size=1400,1100", "--user-data-dir=" + tempfile.mkdtemp()]:
        options.add_argument(arg)
    service = Service(shutil.which("chromedriver") or "/usr/bin/chromedriver")
    return webdriver.Chrome(service=service, options=options)


def decode(png):
    return numpy.asarray(Image.open(io.BytesIO(png)))


def grey(image):
    return image[..., :3].astype(float).mean(axis=2) if image.ndim == 3 else image.astype(float)


def correlation(a, b):
    a, b = grey(a).ravel(), grey(b).ravel()
    if a.std() == 0 or b.std() == 0:
        return 0.0
    return float(numpy.corrcoef(a, b)[0, 1])


class Browser(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.viewer = Viewer([f"serial={CAMERA}", f"serial={GONE},fps=10"])
        try:
            cls.driver = chromium()
        except Exception:
            cls.viewer.stop()
            raise
        cls.wait = WebDriverWait(cls.driver, 30, poll_frequency=0.05,
                                 ignored_exceptions=[StaleElementReferenceException])
        cls.driver.get(cls.viewer.url)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        status, err = cls.viewer.stop()
        assert status == 130 and err == "", (status, err)

    # ---- the page ----

    def card(self, serial=CAMERA):
        return self.wait.until(lambda d: d.find_element(
            By.CSS_SELECTOR, f'section.camera[data-serial="{serial}"]'))

    def panel(self, name, serial=CAMERA):
        return self.card(serial).find_element(By.CSS_SELECTOR, f'figure[data-image="{name}"]')

    def frame_of(self, name, serial=CAMERA):
        return int(self.panel(name, serial).get_attribute("data-frame") or 0)

    def wait_for_frames(self, names, after, serial=CAMERA):
        """Waits until each panel has drawn a frame after `after[name]`."""
        self.wait.until(lambda d: all(self.frame_of(n, serial) > after.get(n, 0) for n in names),
                        f"new images in {names}")
        return {n: self.frame_of(n, serial) for n in names}

    def canvas_pixels(self, name):
        url = self.driver.execute_script("return arguments[0].toDataURL('image/png')",
                                         self.panel(name).find_element(By.TAG_NAME, "canvas"))
        return decode(base64.b64decode(url.split(",", 1)[1]))

    def snapshot(self, file):
        status, png = self.viewer.get(f"/api/cameras/{CAMERA}/snapshot/{file}")
        self.assertEqual(status, 200, png)
        return decode(png)

    def state(self, serial=CAMERA):
        return self.card(serial).find_element(By.CSS_SELECTOR, ".state").text

    def control(self, name):
        details = self.card().find_element(By.CSS_SELECTOR, "details.controls")
        if details.get_attribute("open") is None:
            details.find_element(By.TAG_NAME, "summary").click()
        return self.wait.until(lambda d: details.find_element(
            By.CSS_SELECTOR, f'.control[data-name="{name}"]'))

    def select(self, control, field):
        return self.control(control).find_element(By.CSS_SELECTOR, f'select[data-field="{field}"]')

    # The panel is rebuilt when the camera's answer arrives: an element found a moment ago may be
    # gone, so choosing and pressing are tried again until they land on the current one.
    def choose(self, control, field, text):
        def attempt(_):
            Select(self.select(control, field)).select_by_visible_text(text)
            return True
        self.wait.until(attempt, f"{control} {field} {text} chosen")

    def press(self, control):
        def attempt(_):
            self.control(control).find_element(By.TAG_NAME, "button").click()
            return True
        self.wait.until(attempt, f"{control} applied")

    def wait_for_value(self, control, field, value):
        """Waits until the panel, read again after a change, shows the value."""
        self.wait.until(lambda d: self.select(control, field).get_attribute("value") == value,
                        f"{control} {field} {value} in the panel")

    def commands(self, since):
        lines, _ = self.viewer.trace_lines(since)
        return [line for line in lines if "XU 3 1 SET_CUR" in line]

    # ---- the tests, in order: each leaves the camera streaming in data mode 4 ----

    def test_1_panels_show_the_scene(self):
        first = self.wait_for_frames(["depth", "ir", "colour"], {})
        self.wait_for_frames(["depth", "ir", "colour"], first)
        self.assertEqual(self.state(), "live")
        # Each canvas matches the library's image of a moment later (noise and JPEG apart): a
        # blank, broken or foreign picture does not.
        for name, file in [("depth", "depth-colormap.png"), ("ir", "ir.png"),
                           ("colour", "colour.png")]:
            with self.subTest(panel=name):
                shown = self.canvas_pixels(name)
                library = self.snapshot(file)
                self.assertEqual(shown.shape[:2], library.shape[:2])
                self.assertGreater(grey(shown).std(), 10)
                self.assertGreater(correlation(shown, library), 0.9)

    def test_2_colour_map_changes_the_next_images(self):
        # "bone" is nearly grey where the default map is all colours.
        saturation = lambda image: numpy.abs(image[..., 0].astype(int) - image[..., 2]).mean()
        before = saturation(self.canvas_pixels("depth"))
        mark = self.viewer.trace_size()
        self.choose("colour-map", "map", "bone")
        self.press("colour-map")
        self.wait_for_value("colour-map", "map", "bone")
        self.wait.until(lambda d: saturation(self.canvas_pixels("depth")) < before / 2,
                        "images in the new colour map")
        self.assertGreater(correlation(self.canvas_pixels("depth"),
                                       self.snapshot("depth-colormap.png")), 0.9)
        # The colour map is the library's: nothing goes to the camera.
        self.assertEqual(self.commands(mark), [])
        self.choose("colour-map", "map", "jet")
        self.press("colour-map")
        self.wait_for_value("colour-map", "map", "jet")

    def test_3_data_mode_reprograms_the_camera(self):
        mark = self.viewer.trace_size()
        self.choose("data-mode", "mode", "depth-ir")
        # Frame mode (1, 0): depth and IR only.
        self.wait.until(lambda d: any("SET_CUR 1A 00 01 00 00" in c for c in self.commands(mark)),
                        "the frame mode command")
        colour = self.panel("colour")
        self.wait.until(lambda d: "empty" in colour.get_attribute("class"))
        self.assertIn("no colour image in data mode 0", colour.text)
        self.wait_for_frames(["depth", "ir"], {n: self.frame_of(n) for n in ["depth", "ir"]})
        self.assertEqual(self.canvas_pixels("depth").shape[:2], (480, 640))

        self.wait_for_value("data-mode", "mode", "depth-ir")
        mark = self.viewer.trace_size()
        self.choose("data-mode", "mode", "depth-ir-rgb-vga")
        self.wait.until(lambda d: any("SET_CUR 1A 00 00 00 00" in c for c in self.commands(mark)),
                        "the frame mode command")
        self.wait.until(lambda d: "empty" not in colour.get_attribute("class"))

    def test_4_pointing_at_a_pixel_shows_its_depth(self):
        card = self.card()
        card.find_element(By.CSS_SELECTOR, "button.pause").click()
        self.wait.until(lambda d: self.state() == "paused")
        canvas = self.panel("depth").find_element(By.TAG_NAME, "canvas")
        hover = card.find_element(By.CSS_SELECTOR, ".hover")
        # On the box, left of the centre.
        ActionChains(self.driver).move_to_element_with_offset(canvas, -100, 40).perform()
        self.wait.until(lambda d: hover.get_attribute("data-depth"), "the depth readout")
        x, y = int(hover.get_attribute("data-x")), int(hover.get_attribute("data-y"))
        depth = int(hover.get_attribute("data-depth"))
        self.assertGreater(depth, 0)
        # Paused, the snapshot is the very frame the readout comes from.
        self.assertEqual(int(self.snapshot("depth.png")[y, x]), depth)
        self.assertIn(f"depth {depth} mm", hover.text)
        # Unplanarized depth is the distance along the pixel's ray: the point is that far away.
        status, pixel = self.viewer.get(f"/api/cameras/{CAMERA}/pixel?x={x}&y={y}")
        self.assertEqual((status, pixel["depth"]), (200, depth))
        self.assertAlmostEqual(1000 * math.dist((0, 0, 0), pixel["point"]), depth, delta=1)
        self.assertIn("point ({:.3f}, ".format(pixel["point"][0]), hover.text)
        # The 3D view draws the frame's cloud.
        card.find_element(By.CSS_SELECTOR, "button.show-3d").click()
        note = card.find_element(By.CSS_SELECTOR, ".cloud-note")
        self.wait.until(lambda d: note.text.endswith(" points"), "the point cloud")
        self.assertGreater(int(note.text.split()[0]), 640 * 480 // 2)
        url = self.driver.execute_script("return arguments[0].toDataURL('image/png')",
                                         card.find_element(By.CSS_SELECTOR, "canvas.cloud"))
        self.assertGreater(grey(decode(base64.b64decode(url.split(",", 1)[1]))).std(), 10)
        card.find_element(By.CSS_SELECTOR, "button.show-3d").click()
        card.find_element(By.CSS_SELECTOR, "button.pause").click()
        self.wait.until(lambda d: self.state() == "live")

    def test_5_unplugged_camera_is_disconnected_and_comes_back(self):
        self.wait_for_frames(["depth"], {}, GONE)
        self.viewer.ctl("unplug", GONE)
        self.wait.until(lambda d: self.state(GONE) == "disconnected", "the unplugged camera")
        self.assertEqual(self.state(), "live")
        self.wait_for_frames(["depth"], {"depth": self.frame_of("depth")})
        self.card().find_element(By.CSS_SELECTOR, "details.controls summary").click()
        self.driver.execute_script("window.scrollTo(0, 0)")
        self.driver.save_screenshot("viewer.png")
        if os.environ.get("TALVORO_VIEW_SCREENSHOT"):
            shutil.copyfile("viewer.png", os.environ["TALVORO_VIEW_SCREENSHOT"])

        self.viewer.ctl("plug", GONE)
        self.wait.until(lambda d: self.state(GONE) == "live", "the camera plugged in again")
        # Frames count from the new opening: anything but the last frame before the unplug.
        last = self.frame_of("depth", GONE)
        self.wait.until(lambda d: self.frame_of("depth", GONE) not in (0, last), "new images")


if __name__ == "__main__":
    unittest.main()
