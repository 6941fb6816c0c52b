#!/usr/bin/env python3
"""`kel render` on real production files that the test makes with OpenImageIO: data and display
windows, channels by name and layers, colour spaces and straight alpha, metadata, depths and
compression, colour parameters, and SIGTERM/SIGHUP leaving nothing behind.
Usage: kel_files_test.py KEL_BINARY"""
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import numpy as np
import OpenImageIO as oiio

KEL = None


def run(*args, timeout=120):
    p = subprocess.run([KEL, *args], capture_output=True, text=True, timeout=timeout)
    return p.returncode, p.stderr


def write(path, pixels, fmt="float", names=None, window=None, display=None, attrs=()):
    """pixels: rows top-down, as numpy (h, w, c). window: (x, y) of the data window's top-left
    in file coordinates; display: (w, h) of a display window at (0, 0)."""
    h, w, c = pixels.shape
    spec = oiio.ImageSpec(w, h, c, fmt)
    if names:
        spec.channelnames = tuple(names)
    if window:
        spec.x, spec.y = window
    if display:
        spec.full_x, spec.full_y, spec.full_width, spec.full_height = 0, 0, display[0], display[1]
    for name, value in attrs:
        spec.attribute(name, value)
    out = oiio.ImageOutput.create(path)
    assert out.open(path, spec), oiio.geterror()
    assert out.write_image(np.ascontiguousarray(pixels, dtype=np.float32))
    out.close()


def read(path):
    """(spec, pixels as float numpy rows top-down), straight alpha as the file stores it."""
    config = oiio.ImageSpec()
    config.attribute("oiio:UnassociatedAlpha", 1)
    inp = oiio.ImageInput.open(path, config)
    assert inp, oiio.geterror()
    spec = inp.spec()
    pixels = inp.read_image("float")
    inp.close()
    return spec, pixels


def solid(w, h, *values):
    return np.tile(np.array(values, np.float32), (h, w, 1))


class KelFiles(unittest.TestCase):
    def setUp(self):
        self.dir = self.enterContext(tempfile.TemporaryDirectory())

    def path(self, name):
        return os.path.join(self.dir, name)

    def render(self, script, *args):
        code, err = run("render", "-e", script, *args)
        self.assertEqual(code, 0, err)
        return err

    def test_windows(self):
        # A CG element (8x8 data window at file (40, 4)) over a 64x32 plate lands where the file
        # says, as oiiotool --over puts it; so does sample() at the pixel's own position.
        write(self.path("plate.exr"), solid(64, 32, 0.25, 0.25, 0.25, 1.0), "half")
        write(self.path("cg.exr"), solid(8, 8, 1.0, 0.0, 0.0, 0.5), window=(40, 4), display=(64, 32))
        subprocess.run(["oiiotool", self.path("cg.exr"), self.path("plate.exr"), "--over", "-o", self.path("ref.exr")], check=True)
        _, reference = read(self.path("ref.exr"))
        for script in ("out = A + B * (1 - a(A));", "out = sample(A, x, y) + B * (1 - a(sample(A, x, y)));"):
            self.render(script, "-i", "B=" + self.path("plate.exr"), "-i", "A=" + self.path("cg.exr"), "-o", self.path("over.exr"))
            spec, pixels = read(self.path("over.exr"))
            self.assertEqual((spec.x, spec.y, spec.width, spec.height), (0, 0, 64, 32))
            np.testing.assert_allclose(pixels, reference, atol=1e-3, err_msg=script)
        # An input's data window: x, y and xmin..ymax in the display window's frame (rows from
        # its bottom: 32 - (4 + 8) = 20); the output keeps both windows, and a PNG, which has no
        # windows, gets the display window with transparent black outside the data.
        self.render("out = color(xmin(src) + x / 100, ymin(src) + y / 100, xmax(src), ymax(src));",
                    "-i", "src=" + self.path("cg.exr"), "-o", self.path("q.exr"))
        spec, pixels = read(self.path("q.exr"))
        self.assertEqual((spec.x, spec.y, spec.width, spec.height, spec.full_width, spec.full_height), (40, 4, 8, 8, 64, 32))
        np.testing.assert_allclose(pixels[7, 0], [40.40, 20.20, 48, 28], atol=1e-4)  # bottom-left pixel
        self.render("out = src;", "-i", "src=" + self.path("cg.exr"), "-o", self.path("q.png"))
        spec, pixels = read(self.path("q.png"))
        self.assertEqual((spec.width, spec.height), (64, 32))
        self.assertAlmostEqual(float(pixels[4, 40, 3]), 128 / 255, places=6)
        self.assertEqual(float(pixels[3, 40, 3]), 0.0)

    def test_channels_by_name(self):
        rows = [  # channels, values, option, expected RGBA, warned channels or error
            (("B", "G", "R", "A"), (0.3, 0.2, 0.1, 0.5), "", (0.1, 0.2, 0.3, 0.5), None),
            (("r", "g", "b"), (0.1, 0.2, 0.3), "", (0.1, 0.2, 0.3, 1.0), None),
            (("Y", "A"), (0.4, 0.5), "", (0.4, 0.4, 0.4, 0.5), None),
            (("R", "G", "B", "Z"), (0.1, 0.2, 0.3, 9.0), "", (0.1, 0.2, 0.3, 1.0), "Z"),
            (("A", "Z", "diffuse.R", "diffuse.G", "diffuse.B"), (0.5, 9, 0.1, 0.2, 0.3), ":layer=diffuse",
             (0.1, 0.2, 0.3, 0.5), "Z"),
            (("A", "Z", "diffuse.R", "diffuse.G", "diffuse.B"), (0.5, 9, 0.1, 0.2, 0.3), "", None, "diffuse"),
            (("R", "G", "B"), (0.1, 0.2, 0.3), ":layer=spec", None, "no layer spec"),
        ]
        for names, values, option, expected, message in rows:
            with self.subTest(names=names, option=option):
                write(self.path("in.exr"), solid(2, 2, *values), names=names)
                code, err = run("render", "-e", "out = src;", "-i", "src=" + self.path("in.exr") + option,
                                "--channels", "RGBA", "-o", self.path("out.exr"))
                if expected is None:
                    self.assertEqual(code, 2, err)
                    self.assertIn(message, err)
                    continue
                self.assertEqual(code, 0, err)
                np.testing.assert_allclose(read(self.path("out.exr"))[1][0, 0], expected, atol=1e-3)
                self.assertEqual(err.count("warning"), 1 if message else 0, err)
                if message:
                    self.assertIn(message, err)

    def test_subimage(self):
        spec = [oiio.ImageSpec(2, 2, 3, "float"), oiio.ImageSpec(2, 2, 3, "float")]
        spec[1].attribute("name", "beauty")
        out = oiio.ImageOutput.create(self.path("parts.exr"))
        out.open(self.path("parts.exr"), spec)
        out.write_image(solid(2, 2, 0.1, 0.1, 0.1))
        out.open(self.path("parts.exr"), spec[1], "AppendSubimage")
        out.write_image(solid(2, 2, 0.7, 0.7, 0.7))
        out.close()
        for option, value in ((":subimage=1", 0.7), (":subimage=beauty", 0.7), ("", 0.1)):
            self.render("out = src;", "-i", "src=" + self.path("parts.exr") + option, "-o", self.path("o.exr"))
            self.assertAlmostEqual(float(read(self.path("o.exr"))[1][0, 0, 0]), value, places=5)
        code, err = run("render", "-e", "out = src;", "-i", "src=" + self.path("parts.exr") + ":subimage=2", "-o", self.path("o.exr"))
        self.assertEqual(code, 2)
        self.assertIn("beauty", err)

    def test_colour_and_alpha(self):
        # 8-bit PNG: sRGB, straight alpha. Read: linear and premultiplied; written back: the same bytes.
        srgb = np.array([[[128, 64, 255, 255], [255, 0, 0, 128]]], np.uint8)
        out = oiio.ImageOutput.create(self.path("in.png"))
        out.open(self.path("in.png"), oiio.ImageSpec(2, 1, 4, "uint8"))
        out.write_image(srgb)
        out.close()
        linear = lambda v: v / 12.92 if v <= 0.04045 else ((v + 0.055) / 1.055) ** 2.4
        self.render("out = src;", "-i", "src=" + self.path("in.png"), "-o", self.path("lin.exr"))
        spec, pixels = read(self.path("lin.exr"))
        self.assertEqual(spec.get_string_attribute("oiio:ColorSpace").lower(), "linear")
        np.testing.assert_allclose(pixels[0, 0], [linear(128 / 255), linear(64 / 255), 1, 1], atol=1e-4)
        np.testing.assert_allclose(pixels[0, 1], [128 / 255, 0, 0, 128 / 255], atol=1e-4)
        self.render("out = src;", "-i", "src=" + self.path("lin.exr"), "-o", self.path("back.png"))
        self.assertTrue(np.array_equal(np.round(read(self.path("back.png"))[1] * 255), srgb))
        # The space asked for wins over the file's; the output's can be asked for too.
        self.render("out = src;", "-i", "src=" + self.path("in.png") + ":colorspace=linear", "-o", self.path("raw.exr"))
        self.assertAlmostEqual(float(read(self.path("raw.exr"))[1][0, 0, 0]), 128 / 255, places=5)
        self.render("out = src;", "-i", "src=" + self.path("in.png"), "--out-colorspace", "sRGB", "-o", self.path("s.exr"))
        self.assertAlmostEqual(float(read(self.path("s.exr"))[1][0, 0, 0]), 128 / 255, places=4)
        code, err = run("render", "-e", "out = src;", "-i", "src=" + self.path("in.png") + ":colorspace=nope", "-o", self.path("n.exr"))
        self.assertEqual(code, 2)
        self.assertIn("nope", err)

    def test_metadata(self):
        spec = oiio.ImageSpec(2, 2, 3, "half")
        spec.attribute("ImageDescription", "plate 12")
        spec.attribute("Make", "camera maker")
        spec.attribute("smpte:TimeCode", oiio.TypeDesc("timecode"), (0x01020304, 0))
        out = oiio.ImageOutput.create(self.path("meta.exr"))
        out.open(self.path("meta.exr"), spec)
        out.write_image(solid(2, 2, 0.5, 0.5, 0.5))
        out.close()
        self.render("out = src * 1.5;", "-i", "src=" + self.path("meta.exr"), "-o", self.path("m.exr"))
        spec, _ = read(self.path("m.exr"))
        self.assertEqual(spec.get_string_attribute("ImageDescription"), "plate 12")
        self.assertEqual(spec.get_string_attribute("Make"), "camera maker")
        self.assertEqual(spec.getattribute("smpte:TimeCode"), (0x01020304, 0))
        self.assertTrue(spec.get_string_attribute("Software").startswith("kel "))
        self.assertIn("render", spec.get_string_attribute("ImageHistory"))
        self.render("out = src * 1.5;", "-i", "src=" + self.path("meta.exr"), "--no-metadata", "-o", self.path("n.exr"))
        spec, _ = read(self.path("n.exr"))
        self.assertEqual(spec.get_string_attribute("ImageDescription"), "")
        self.assertTrue(spec.get_string_attribute("Software").startswith("kel "))

    def test_depth_compression_channels(self):
        write(self.path("half.exr"), solid(4, 4, 0.5, 0.5, 0.5), "half", attrs=(("compression", "piz"),))
        write(self.path("rgba.tif"), solid(4, 4, 0.5, 0.5, 0.5, 1.0), "uint8")
        rows = [  # input, output, options, expected (format, bits, compression, channels) or error
            ("half.exr", "o.exr", [], ("half", 16, "piz", 3)),
            ("half.exr", "o.exr", ["-d", "float", "--compression", "dwaa:45", "--channels", "RGBA"], ("float", 32, "dwaa", 4)),
            ("half.exr", "o.tif", [], ("uint16", 16, None, 3)),
            ("rgba.tif", "o.exr", [], ("float", 32, "zip", 4)),
            ("rgba.tif", "o.png", ["-d", "uint16"], ("uint16", 16, None, 4)),
            ("half.exr", "o.dpx", [], ("uint16", 10, None, 3)),
            ("half.exr", "o.jpg", [], ("uint8", 8, None, 3)),
            (None, "o.exr", [], ("float", 32, "zip", 4)),
            ("half.exr", "o.exr", ["-d", "uint10"], "take half, float"),
            ("half.exr", "o.dpx", ["--compression", "zip"], "take none"),
            ("half.exr", "o.jpg", ["--channels", "RGBA"], "no alpha"),
            ("half.exr", "o.exr", ["-d", "double"], "expected half"),
        ]
        for source, output, options, expected in rows:
            with self.subTest(source=source, output=output, options=options):
                inputs = ["-i", "src=" + self.path(source)] if source else ["--size", "4x4"]
                script = "out = src;" if source else "out = color(0.5, 0.5, 0.5, 1);"
                code, err = run("render", "-e", script, *inputs, *options, "-o", self.path(output))
                if isinstance(expected, str):
                    self.assertEqual(code, 2, err)
                    self.assertIn(expected, err)
                    continue
                self.assertEqual(code, 0, err)
                spec, _ = read(self.path(output))
                fmt, bits, compression, channels = expected
                self.assertEqual(str(spec.format), fmt)
                self.assertEqual(spec.get_int_attribute("oiio:BitsPerSample", bits), bits)
                if compression:
                    self.assertEqual(spec.get_string_attribute("compression"), compression)
                self.assertEqual(spec.nchannels, channels)

    def test_colour_parameters_are_named_in_plain_words(self):
        for command, status in (("check", 0), ("render", 1)):
            args = [command, "-e", "out = src * tint;", "-i", "src=" + self.path("in.exr"), "-c", "tint=1,0.5,0.2,1"]
            write(self.path("in.exr"), solid(2, 2, 1.0, 1.0, 1.0))
            code, err = run(*(args + (["-o", self.path("o.exr")] if command == "render" else [])))
            self.assertEqual(code, status, err)
            self.assertIn("colour parameter tint", err)
            self.assertNotIn("KelValue", err)
        # Declared in a comment and never used: renders.
        self.render("// tint: unused\nout = src;", "-i", "src=" + self.path("in.exr"), "-c", "tint=1,0,0,1",
                    "-o", self.path("o.exr"))

    def test_terminate_and_hangup_leave_no_temporary(self):
        for sig in (signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=sig):
                out = self.path("f.####.exr")
                proc = subprocess.Popen([KEL, "render", "-e", "float s = 0; for (float i = 0; i < 2000; i += 1) s += i; out = color(s, s, s, 1);",
                                         "--size", "64x64", "--frames", "1-400", "-o", out],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
                # Once a frame's temporary is written.
                deadline = time.time() + 120
                while time.time() < deadline and not any("kel-tmp" in n for n in os.listdir(self.dir)):
                    time.sleep(0.02)
                proc.send_signal(sig)
                _, err = proc.communicate(timeout=120)
                self.assertEqual(proc.returncode, 3, err)
                self.assertEqual(os.listdir(self.dir), [])


if __name__ == "__main__":
    KEL = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=1)
