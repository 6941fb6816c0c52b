#!/usr/bin/env python3
"""`kel live` in a real browser (headless Chromium, selenium) and at the level of its requests:
error markers, pictures that follow edits and sliders, the probe against `kel render --json
--dump`, cancellation of an endless loop, full-resolution pixels equal to `kel render`'s, saving,
rendering to a file, and bad requests that change nothing.
Usage: live_page_test.py KEL_BINARY"""
import http.client
import json
import os
import struct
import subprocess
import sys
import tempfile
import unittest
import urllib.request
from array import array

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from live_support import LiveServer, chrome, picture_signature, status, type_script, wait  # noqa: E402

KEL = None
# Large enough for a proxy (the page renders it at half size while one types).
PLATE_SIZE = "800x400"
SCRIPT = '// @param gain 1.5 [0, 4] "Gain"\nout = src * gain;\n'


def kel(*args, cwd):
    return subprocess.run([KEL, *args], cwd=cwd, capture_output=True, text=True, timeout=120)


def float32(value):
    return struct.unpack("f", struct.pack("f", float(value)))[0]


class LivePage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.dir = cls.tmp.name
        made = kel("render", "-e", "out = color(x / 800, y / 400, 0.25, 1);", "--size", PLATE_SIZE, "-o", "plate.exr",
                   cwd=cls.dir)
        assert made.returncode == 0, made.stderr
        with open(os.path.join(cls.dir, "grade.kel"), "w") as f:
            f.write(SCRIPT)
        cls.server = LiveServer(KEL, ["grade.kel", "-i", "src=plate.exr"], cls.dir)
        cls.driver = chrome()
        cls.driver.get(cls.server.url)
        wait(cls.driver, lambda: status(cls.driver).startswith("full resolution"))

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        cls.server.stop()
        cls.tmp.cleanup()

    def dump(self, script, gain, *options):
        report = kel("render", "-e", script, "-i", "src=plate.exr", "-f", f"gain={gain!r}", "-o", "reference.exr",
                     "--json", "--dump", *options, cwd=self.dir)
        self.assertEqual(report.returncode, 0, report.stderr)
        return json.loads(report.stdout)

    def settle(self, before):
        """Waits for the full-resolution picture that follows a change, and returns its signature."""
        wait(self.driver, lambda: status(self.driver).startswith("full resolution")
             and picture_signature(self.driver) != before)
        return picture_signature(self.driver)

    # --- in the browser -------------------------------------------------------------------
    def test_1_error_marked_at_its_line_then_fixed_then_slider_and_probe(self):
        d = self.driver
        before = picture_signature(d)
        broken = '// @param gain 1.5 [0, 4] "Gain"\n\nout = src * ;\n'
        expected = json.loads(kel("check", "-e", broken, "-i", "src", "-f", "gain", "--json", cwd=self.dir).stdout)
        type_script(d, broken)
        item = wait(d, lambda: d.find_elements(By.CSS_SELECTOR, "#messages li.error"))[0]
        self.assertEqual([(e["line"], e["message"]) for e in expected["errors"]],
                         [(int(item.get_attribute("data-line")), item.text.split(": ", 1)[1])])
        lines = d.find_elements(By.CSS_SELECTOR, ".cm-line")
        marked = [i + 1 for i, line in enumerate(lines) if line.find_elements(By.CSS_SELECTOR, ".cm-lintRange-error")]
        self.assertEqual(marked, [expected["errors"][0]["line"]])
        self.assertIn("last good one", status(d))
        self.assertEqual(picture_signature(d), before)

        type_script(d, '// @param gain 1.5 [0, 4] "Gain"\nout = src * gain * color(1, 0.5, 2, 1);\n')
        fixed = self.settle(before)
        self.assertEqual(d.find_elements(By.CSS_SELECTOR, "#messages li"), [])

        slider = d.find_element(By.CSS_SELECTOR, ".slider[data-name=gain] input")
        ActionChains(d).click_and_hold(slider).move_by_offset(-120, 0).release().perform()
        self.settle(fixed)
        gain = float(slider.get_attribute("value"))
        self.assertLess(gain, 1.5)

        # The probe reads the very floats `kel render` writes, at the pixel it names (row 0 at the bottom).
        reference = self.dump("out = src * gain * color(1, 0.5, 2, 1);", gain)["pixels"]
        canvas = d.find_element(By.ID, "picture")
        probe = d.find_element(By.ID, "probe")
        for dx, dy in [(0, 0), (-37, 21), (50, -30)]:
            ActionChains(d).move_to_element_with_offset(canvas, dx, dy).perform()
            x, y = int(probe.get_attribute("data-x")), int(probe.get_attribute("data-y"))
            shown = [float32(probe.get_attribute("data-" + c)) for c in "rgba"]
            self.assertEqual(shown, [float32(v) for v in reference[y][x]], (x, y))

    def test_2_endless_loop_is_cancelled_and_the_next_edit_renders(self):
        d = self.driver
        endless = "float i = 0;\nwhile (1) { i = i + 1; }\nout = src;\n"
        # A new edit cancels the loop's render: the picture that follows it is rendered.
        type_script(d, endless)
        wait(d, lambda: status(d).startswith("rendering"))
        before = picture_signature(d)
        type_script(d, "out = src * 0.25;\n")
        self.settle(before)
        # And Stop cancels it where no edit follows; the page says so, and the next edit renders.
        type_script(d, endless)
        wait(d, lambda: status(d).startswith("rendering"))
        d.find_element(By.ID, "stop").click()
        wait(d, lambda: status(d) == "cancelled")
        type_script(d, "out = src * 0.5;\n")
        self.settle(None)

    # --- requests -------------------------------------------------------------------------
    def post(self, path, body, headers=None):
        data = body if isinstance(body, bytes) else json.dumps(body).encode()
        request = urllib.request.Request(self.server.url + path.lstrip("/"), data=data, method="POST",
                                         headers={"Content-Type": "application/json", **(headers or {})})
        try:
            with urllib.request.urlopen(request, timeout=60) as response:
                return response.status, response.read()
        except urllib.error.HTTPError as e:
            return e.code, e.read()

    def test_pictures_equal_kel_render_and_render_to_file(self):
        script = "// @param gain\nout = color(r(src) * gain, sqrt(g(src)), b(src) / (x + 1), 1);"
        # Full resolution, the proxy (from the reduced plate the page keeps) at its scale level, and
        # the input itself as a view: each the floats of `kel render`.
        rows = [({"proxy": False}, script, []), ({"proxy": True}, script, ["--scale-level", "1"]),
                ({"view": "src"}, "// @param gain\nout = src;", [])]
        for request, reference_script, options in rows:
            code, body = self.post("/api/render", {"script": script, "values": {"gain": 0.7}, **request})
            self.assertEqual(code, 200)
            length = struct.unpack_from("<I", body)[0]
            info = json.loads(body[4:4 + length])
            pixels = array("f", body[(4 + length + 3) // 4 * 4:])
            reference = self.dump(reference_script, 0.7, *options)
            self.assertEqual((info["outcome"], info["width"], info["height"]),
                             ("rendered", reference["width"], reference["height"]))
            self.assertEqual(list(pixels), [float32(v) for row in reference["pixels"] for pixel in row for v in pixel])

        # Rendering to a file is `kel render` itself: the same bytes.
        code, body = self.post("/api/render-file", {"script": script, "values": {"gain": 0.7}, "path": "graded.png"})
        self.assertEqual((code, json.loads(body)["ok"]), (200, True))
        made = kel("render", "-e", script, "-i", "src=plate.exr", "-f", "gain=0.7", "-o", "reference.png", cwd=self.dir)
        self.assertEqual(made.returncode, 0, made.stderr)
        with open(os.path.join(self.dir, "graded.png"), "rb") as a, open(os.path.join(self.dir, "reference.png"), "rb") as b:
            self.assertEqual(a.read(), b.read())

    def test_save_writes_the_script_in_place(self):
        path = os.path.join(self.dir, "grade.kel")
        os.chmod(path, 0o640)
        code, _ = self.post("/api/save", {"script": SCRIPT + "// saved\n"})
        self.assertEqual(code, 200)
        with open(path) as f:
            self.assertEqual(f.read(), SCRIPT + "// saved\n")
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o640)
        self.post("/api/save", {"script": SCRIPT})

    def test_bad_requests_change_nothing(self):
        listing = sorted(os.listdir(self.dir))
        with open(os.path.join(self.dir, "grade.kel"), "rb") as f:
            script = f.read()
        ok = {"script": "out = src;"}
        rows = [  # path, body, extra headers, status, part of the message
            ("/api/render", b'{"script": "out = src;"', {}, 400, "not valid JSON"),
            ("/api/render", b"[1, 2]", {}, 400, "JSON object"),
            ("/api/save", {"text": "x"}, {}, 400, '"script"'),
            ("/api/render", {**ok, "values": {"gain": "high"}}, {}, 400, "must be a number"),
            ("/api/render", {**ok, "time": 1e300}, {}, 400, "finite number"),
            ("/api/render", {**ok, "view": "nothing"}, {}, 400, 'no view "nothing"'),
            ("/api/save", b'{"script": "' + b"x" * (2 << 20) + b'"}', {}, 413, "larger than"),
            ("/api/save", {"script": "x"}, {"Origin": "http://example.com"}, 403, "another origin"),
            ("/api/save", {"script": "x"}, {"Content-Type": "text/plain"}, 415, "JSON"),
            ("/api/render-file", {**ok, "path": "../escaped.png"}, {}, 403, "inside the script's folder"),
            ("/api/render-file", {**ok, "path": "/tmp/escaped.png"}, {}, 403, "inside the script's folder"),
            ("/api/render-file", {**ok, "path": "grade.kel"}, {}, 403, "over the script"),
            ("/api/render-file", {**ok, "path": "plate.exr"}, {}, 400, "over the input"),
        ]
        for path, body, headers, expected, message in rows:
            with self.subTest(path=path, headers=headers, body=str(body)[:60]):
                code, reply = self.post(path, body, headers)
                self.assertEqual(code, expected)
                self.assertIn(message, json.loads(reply)["error"])
        # A name other than this server's (a rebound address) is refused too.
        connection = http.client.HTTPConnection(self.server.url[7:-1], timeout=30)
        connection.request("GET", "/api/session", headers={"Host": "attacker.example:80"})
        self.assertEqual(connection.getresponse().status, 403)
        connection.close()
        # Nothing changed, and the server goes on serving.
        self.assertEqual(sorted(os.listdir(self.dir)), listing)
        with open(os.path.join(self.dir, "grade.kel"), "rb") as f:
            self.assertEqual(f.read(), script)
        with urllib.request.urlopen(self.server.url + "api/session", timeout=30) as response:
            self.assertEqual(json.loads(response.read())["views"], ["out", "src"])


if __name__ == "__main__":
    KEL = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
