#!/usr/bin/env python3
"""`kel` end to end (cli.md): commands, parameters, render options, exit statuses, JSON shapes,
--dump values, bottom-up rows, frames, cancellation, atomic output, bad option values.
Usage: kel_cli_test.py KEL_BINARY. Input images are made by kel itself."""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

KEL = None


def run(*args, cwd=None, timeout=60):
    p = subprocess.run([KEL, *args], capture_output=True, text=True, cwd=cwd, timeout=timeout)
    return p.returncode, p.stdout, p.stderr


class KelCli(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name

    def tearDown(self):
        self.tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def read_bytes(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def render_json(self, *args):
        code, out, err = run("render", *args, "--json", "--dump", cwd=self.dir)
        self.assertEqual(code, 0, err)
        return json.loads(out)

    def make_image(self, name, script, size="4x3"):
        code, _, err = run("render", "-e", script, "--size", size, "-o", self.path(name))
        self.assertEqual(code, 0, err)

    # --- commands ---------------------------------------------------------------------------
    def test_tools_and_version(self):
        code, out, _ = run("tools")
        self.assertEqual(code, 0)
        self.assertIn("KEL\tKel Expressions\tKEL language scripting tool for creating effects.", out.splitlines())
        # kel's own version, then the package's build record, its eleven fields in order, labelled.
        code, out, err = run("version")
        self.assertEqual((code, err), (0, ""))
        lines = out.splitlines()
        self.assertRegex(lines[0], r"^kel: \d+\.\d+")
        self.assertEqual([line.split(": ", 1)[1] if ": " in line else "" for line in lines[1:]],
                         ["libZtkelZttool", "Varnic Sorell Library", "2013", "8.0", "", "8", "0", "42", "2600",
                          "Jun 12 2012", "opt.x86_64.intel"])

    def test_check_ok_and_json(self):
        code, out, err = run("check", "-e", "out = x;", "--json")
        self.assertEqual(code, 0, err)
        self.assertEqual(json.loads(out), {"ok": True, "errors": []})

    def test_check_refused_human_message_with_line(self):
        code, _, err = run("check", "-e", "float a = 1;\nout = ;")
        self.assertEqual(code, 1)
        lines = err.splitlines()
        self.assertRegex(lines[0], r"^<script>:2:(\d+:)? error: ")
        self.assertEqual(lines[1], "out = ;")

    def test_check_file_script_name_and_json_errors(self):
        script = self.path("bad.kel")
        with open(script, "w") as f:
            f.write("out = ;\n")
        code, out, err = run("check", script, "--json")
        self.assertEqual(code, 1)
        report = json.loads(out)
        self.assertFalse(report["ok"])
        self.assertEqual(report["errors"][0]["line"], 1)
        self.assertEqual(err, "")  # --json: the report carries the messages, no human text
        code, _, err = run("check", script)
        self.assertEqual(code, 1)
        self.assertRegex(err, "^" + re.escape(script) + r":1:(\d+:)? error: ")

    def test_warning_line_zero_exit_0(self):
        # Part 1.1 step 7: a script that declares no main compiles, with the warning in the list.
        code, out, err = run("check", "-e", "void f(output color out) { out = 1; }", "--json")
        self.assertEqual(code, 0, err)
        self.assertEqual(json.loads(out), {"ok": True, "errors": [{"line": 0, "message": "Function main is not found"}]})
        self.assertEqual(err, "")  # --json: no human text
        code, out, err = run("check", "-e", "void f(output color out) { out = 1; }")
        self.assertEqual((code, out, err), (0, "", "<script>: warning: Function main is not found\n"))

    def test_print(self):
        code, out, err = run("print", "-e", "out = x * 2;")
        self.assertEqual(code, 0, err)
        self.assertIn("x * 2", out)
        code, out, _ = run("print", "-e", "out = ;")
        self.assertEqual(code, 1)
        self.assertEqual(out, "")

    def test_print_of_a_tree_without_printed_form(self):
        # Part 4.1: print of a `for` without its first or third clause throws the null-pointer
        # exception; the script compiles. Nothing on standard output, one readable line.
        script = "float i = 0; for (; i < 1; ) { i += 1; } out = i;"
        self.assertEqual(run("check", "-e", script)[0], 0)
        code, out, err = run("print", "-e", script)
        self.assertEqual(code, 1, err)
        self.assertEqual(out, "")
        self.assertEqual(err, "kel: the tree cannot be printed: a 'for' loop without its first or third clause "
                              "has no printed form\n")
        code, out, err = run("print", "-e", "float i = 0; for (i = 0; i < 1; i += 1) { } out = i;")
        self.assertEqual(code, 0, err)
        self.assertIn("for ( ", out)

    def test_parameters_in_command_line_order(self):
        # params[0] is the first -f, whatever image inputs stand between.
        self.make_image("src.png", "out = color(0.5, 0.5, 0.5, 1);", "2x2")
        r = self.render_json("-e", "out = color(a1, a2, r(src), 1);", "-f", "a1=0.25", "-i", "src=src.png",
                             "-f", "a2=0.75", "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0][:2], [0.25, 0.75])
        self.assertAlmostEqual(r["pixels"][0][0][2], 0.5, places=2)
        code, _, err = run("check", "-e", "out = 1;", "-i", "src", "-c", "tint=1,0,0,1", "-f", "k")
        self.assertEqual(code, 0, err)
        code, _, _ = run("check", "-e", "void main(output color res) { res = 1; }", "--out", "res")
        self.assertEqual(code, 0)

    # --- render -----------------------------------------------------------------------------
    def test_render_json_shape_and_dump(self):
        r = self.render_json("-e", "out = color(x, y, 0.1, 1);", "--size", "3x2", "-o", "o.exr")
        self.assertEqual(set(r), {"ok", "errors", "width", "height", "validity", "pixels"})
        self.assertEqual((r["width"], r["height"]), (3, 2))
        self.assertEqual(len(r["pixels"]), 2)
        self.assertEqual(r["pixels"][1][2], [2, 1, 0.100000001, 1])
        self.assertEqual(r["validity"], [-31536000, 31536000])

    def test_nan_and_inf_strings(self):
        r = self.render_json("-e", "out = color(0/0, 1/0, -1/0, 1);", "--size", "1x1", "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0][1:], ["inf", "-inf", 1])
        self.assertEqual(r["pixels"][0][0][0], "nan")

    def test_rows_bottom_up_on_read_and_write(self):
        # Row 0 is the bottom row: in the file (top row first) it comes last.
        self.make_image("rows.exr", "out = color(y / 2, 0, 0, 1);", "1x3")
        r = self.render_json("-e", "out = src;", "-i", "src=rows.exr", "-o", "copy.exr")
        self.assertEqual([row[0][0] for row in r["pixels"]], [0, 0.5, 1])
        try:
            top = subprocess.run(["oiiotool", self.path("rows.exr"), "--cut", "1x1+0+0", "--printstats"],
                                 capture_output=True, text=True).stdout
        except FileNotFoundError:
            return
        self.assertIn("Max: 1.0", top.replace("1.000000", "1.0"))  # the file's top row is row 2

    def test_channels_one_and_three(self):
        try:
            subprocess.run(["oiiotool", "--pattern", "constant:color=0.5", "2x2", "1", "-d", "float",
                            "-o", self.path("grey.exr")], check=True, capture_output=True)
        except (FileNotFoundError, subprocess.CalledProcessError):
            self.skipTest("oiiotool not available")
        r = self.render_json("-e", "out = src;", "-i", "src=grey.exr", "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0], [0.5, 0.5, 0.5, 1])

    def test_scale_level_time_and_pixel_aspect(self):
        r = self.render_json("-e", "out = color(x, y, t, 1);", "--size", "8x4", "--scale-level", "1",
                             "--pixel-aspect", "2/1", "--time", "3", "-o", "o.exr")
        self.assertEqual((r["width"], r["height"]), (4, 2))  # 8 x 4 at half scale
        self.assertEqual(r["pixels"][1][3], [12, 2, 3, 1])
        self.assertLess(r["validity"][1] - r["validity"][0], 1e-7)

    def test_frames_with_hash_and_printf_patterns(self):
        code, out, err = run("render", "-e", "out = color(t, 0, 0, 1);", "--size", "1x1", "--frames", "2-4",
                             "-o", "seq.####.exr", "--json", "--dump", cwd=self.dir)
        self.assertEqual(code, 0, err)
        frames = json.loads(out)["frames"]
        self.assertEqual([f["pixels"][0][0][0] for f in frames], [2, 3, 4])
        for n in (2, 3, 4):
            self.assertTrue(os.path.exists(self.path("seq.%04d.exr" % n)))
        code, out, err = run("render", "-e", "out = s;", "-i", "s=seq.%04d.exr", "--frames", "3-4",
                             "-o", "copy.#.exr", "--json", "--dump", cwd=self.dir)
        self.assertEqual(code, 0, err)
        self.assertEqual([f["pixels"][0][0][0] for f in json.loads(out)["frames"]], [3, 4])
        self.assertTrue(os.path.exists(self.path("copy.3.exr")))

    def test_threads_and_tiles_give_the_pixels_of_one_thread(self):
        script = "float n = noise3D(x * 0.1, y * 0.1, 0.3); out = color(n, sin(x * y), x / (y + 1), 1);"
        one = self.render_json("-e", script, "--size", "37x23", "--threads", "1", "--tile", "64x64", "-o", "a.exr")
        for tile in ("1x1", "7x3", "64x1"):
            many = self.render_json("-e", script, "--size", "37x23", "--threads", "8", "--tile", tile, "-o", "b.exr")
            self.assertEqual(many["pixels"], one["pixels"], tile)

    def test_output_formats_written(self):
        for name in ("o.png", "o.tif", "o.jpg", "o.exr"):
            code, _, err = run("render", "-e", "out = color(0.5, 0.25, 1, 1);", "--size", "2x2", "-o", name, cwd=self.dir)
            self.assertEqual(code, 0, (name, err))
            self.assertTrue(os.path.exists(self.path(name)))

    def test_size_is_ignored_with_an_image_input(self):
        # host.md: the output's rectangle is the first image input's; --size only without one.
        self.make_image("src.exr", "out = color(x, y, 0, 1);", "3x2")
        code, out, err = run("render", "-e", "out = src;", "-i", "src=src.exr", "--size", "9x7", "--json",
                             "-o", "o.exr", cwd=self.dir)
        self.assertEqual(code, 0, err)
        report = json.loads(out)
        self.assertEqual((report["width"], report["height"]), (3, 2))
        self.assertEqual(len(err.strip().splitlines()), 1, err)
        self.assertTrue(err.startswith("kel: --size is ignored: the image input src "), err)

    def test_time_and_frame_limits(self):
        # Times a validity interval can hold: PxValidityInterval::kMinTime, kMaxTime (+-31536000).
        base = ["render", "-e", "out = t;", "--size", "1x1"]
        for extra in (["--time", "nan"], ["--time", "inf"], ["--time", "-inf"], ["--time", "31536000.5"],
                      ["--time", "-31536001"], ["--time", "1e300"], ["--frames", "0-31536001"],
                      ["--frames", "-31536001--31536000"], ["--frames", "99999999"]):
            code, _, err = run(*base, *extra, "-o", self.path("o.#.exr"))
            self.assertEqual(code, 2, (extra, err))
            self.assertEqual(len(err.strip().splitlines()), 1, (extra, err))
        self.assertEqual(os.listdir(self.dir), [])
        r = self.render_json("-e", "out = t;", "--size", "1x1", "--time", "-31536000", "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0][0], -31536000)
        code, out, err = run(*base, "--frames", "31536000", "-o", "o.#.exr", "--json", "--dump", cwd=self.dir)
        self.assertEqual(code, 0, err)
        self.assertEqual(json.loads(out)["frames"][0]["pixels"][0][0][0], 31536000)

    def test_frames_need_a_pattern_and_exclude_time(self):
        base = ["render", "-e", "out = t;", "--size", "1x1"]
        for extra in (["--frames", "1-3", "-o", "one.exr"], ["--frames", "1-3", "--time", "2", "-o", "s.#.exr"],
                      ["--time", "2", "--frames", "1", "-o", "s.#.exr"]):
            code, _, err = run(*base, *extra, cwd=self.dir)
            self.assertEqual(code, 2, (extra, err))
            self.assertEqual(len(err.strip().splitlines()), 1, (extra, err))
        self.assertEqual(os.listdir(self.dir), [])
        # One frame needs no pattern.
        code, _, err = run(*base, "--frames", "5-5", "-o", "one.exr", cwd=self.dir)
        self.assertEqual(code, 0, err)
        self.assertEqual(os.listdir(self.dir), ["one.exr"])

    def test_printf_pattern_in_output(self):
        code, _, err = run("render", "-e", "out = t;", "--size", "1x1", "--frames", "8-10", "-o", "f.%03d.exr",
                           cwd=self.dir)
        self.assertEqual(code, 0, err)
        self.assertEqual(sorted(os.listdir(self.dir)), ["f.008.exr", "f.009.exr", "f.010.exr"])

    def sequence_state(self):
        return {n: self.read_bytes(n) for n in sorted(os.listdir(self.dir))}

    def test_sequence_is_all_or_nothing(self):
        for n in (1, 2, 3):
            self.make_image("in.%d.exr" % n, "out = %d;" % n, "2x2")
        os.remove(self.path("in.2.exr"))
        self.make_image("out.1.exr", "out = 0.5;", "2x2")  # an earlier file at a frame's path
        before = self.sequence_state()
        # A missing input frame: refused before the first frame is rendered.
        code, out, err = run("render", "-e", "out = s;", "-i", "s=in.#.exr", "--frames", "1-3", "-o", "out.#.exr",
                             cwd=self.dir)
        self.assertEqual(code, 2, err)
        self.assertEqual(len(err.strip().splitlines()), 1, err)
        self.assertIn("in.2.exr", err)
        self.assertEqual(self.sequence_state(), before)
        # Cancelled in the last frame: the frames done before are not written either.
        code, _, err = run("render", "-e", "float i = 0; while (t > 2) { i += 1; } out = i;", "--size", "2x2",
                           "--frames", "1-3", "--timeout", "1", "-o", "out.#.exr", cwd=self.dir)
        self.assertEqual(code, 3, err)
        self.assertEqual(len([line for line in err.splitlines() if " rendered in " not in line]), 1, err)
        self.assertEqual(self.sequence_state(), before)
        # An input frame whose header opens but whose pixels can't be decoded (a PNG cut short):
        # frame 1 is rendered, frame 2 fails, and frame 1's file is not written.
        noise = "out = color(rand(), rand(), rand(), 1);"
        for n in (1, 2, 3):
            self.make_image("in.%d.png" % n, noise, "64x64")
        with open(self.path("in.2.png"), "r+b") as f:
            f.truncate(len(self.read_bytes("in.2.png")) * 6 // 10)
        before = self.sequence_state()
        code, _, err = run("render", "-e", "out = s;", "-i", "s=in.#.png", "--frames", "1-3", "-o", "out.#.exr",
                           cwd=self.dir)
        self.assertEqual(code, 2, err)
        failure = [line for line in err.splitlines() if " rendered in " not in line]  # frame 1's progress line
        self.assertEqual(len(failure), 1, err)
        self.assertIn("frame 2", failure[0])
        self.assertIn("in.2.png", failure[0])
        self.assertEqual(self.sequence_state(), before)
        # And when every frame succeeds, all are written.
        self.make_image("in.2.exr", "out = 2;", "2x2")
        code, _, err = run("render", "-e", "out = s;", "-i", "s=in.#.exr", "--frames", "1-3", "-o", "out.#.exr",
                           cwd=self.dir)
        self.assertEqual(code, 0, err)
        self.assertNotEqual(self.read_bytes("out.1.exr"), before["out.1.exr"])
        self.assertTrue(os.path.exists(self.path("out.3.exr")))

    # --- cli.md rows ----------------------------------------------------------------------------
    def test_float_without_value_is_0(self):
        r = self.render_json("-e", "out = color(k + 0.5, 0, 0, 1);", "-f", "k", "--size", "1x1", "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0], [0.5, 0, 0, 1])

    def test_colour_input_accepted_in_render(self):
        r = self.render_json("-e", "out = color(0.25, 0, 0, 1);", "-c", "tint=1,0,0,1", "-c", "grey", "--size", "1x1",
                             "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0], [0.25, 0, 0, 1])
        self.assertTrue(os.path.exists(self.path("o.exr")))

    def test_output_name_in_render(self):
        r = self.render_json("-e", "void main(output color res) { res = color(0.25, 0.5, 0.75, 1); }", "--out", "res",
                             "--size", "1x1", "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0], [0.25, 0.5, 0.75, 1])
        code, out, _ = run("render", "-e", "out = 1;", "--out", "res", "--size", "1x1", "--json", "-o", "o2.exr",
                           cwd=self.dir)
        self.assertEqual(code, 1)  # `out` is no parameter when the output is named res
        self.assertFalse(json.loads(out)["ok"])

    def test_image_file_not_read_by_check_and_print(self):
        for command in ("check", "print"):
            code, _, err = run(command, "-e", "out = src;", "-i", "src=" + self.path("missing.exr"))
            self.assertEqual(code, 0, (command, err))
            self.assertEqual(err, "", command)

    def test_script_and_text_together(self):
        script = self.path("s.kel")
        with open(script, "w") as f:
            f.write("out = 1;\n")
        for command in ("check", "print", "render"):
            code, out, err = run(command, script, "-e", "out = 2;", "--size" if command == "render" else "-f",
                                 "1x1" if command == "render" else "k", *(["-o", "o.exr"] if command == "render" else []),
                                 cwd=self.dir)
            self.assertEqual(code, 2, (command, err))
            self.assertEqual(len(err.strip().splitlines()), 1, (command, err))
            self.assertEqual(out, "", command)
        self.assertFalse(os.path.exists(self.path("o.exr")))

    def oiio_info(self, name):
        try:
            p = subprocess.run(["oiiotool", "--info", "-v", self.path(name)], capture_output=True, text=True)
        except FileNotFoundError:
            self.skipTest("oiiotool not available")
        self.assertEqual(p.returncode, 0, p.stderr)
        return p.stdout

    def test_exr_is_float_rgba(self):
        self.make_image("o.exr", "out = color(0.1, 0.2, 0.3, 0.4);", "3x2")
        info = self.oiio_info("o.exr")
        self.assertRegex(info, r"3 x\s+2, 4 channel, float openexr")
        self.assertIn("channel list: R, G, B, A", info)

    def test_three_channels_get_alpha_1(self):
        try:
            subprocess.run(["oiiotool", "--pattern", "constant:color=0.25,0.5,0.75", "2x2", "3", "-d", "float",
                            "-o", self.path("rgb.exr")], check=True, capture_output=True)
        except (FileNotFoundError, subprocess.CalledProcessError):
            self.skipTest("oiiotool not available")
        self.assertIn("3 channel", self.oiio_info("rgb.exr"))
        r = self.render_json("-e", "out = src;", "-i", "src=rgb.exr", "-o", "o.exr")
        self.assertEqual(r["pixels"][0][0], [0.25, 0.5, 0.75, 1])

    def test_pixel_aspect_read_written_and_overridden(self):
        # A 4x2 input of aspect 2: its nominal rectangle is (0, 8, 0, 2); x of column 1 is 2.
        code, _, err = run("render", "-e", "out = 1;", "--size", "4x2", "--pixel-aspect", "2/1", "-o", "wide.exr",
                           cwd=self.dir)
        self.assertEqual(code, 0, err)
        self.assertIn("PixelAspectRatio: 2", self.oiio_info("wide.exr"))
        r = self.render_json("-e", "out = color(x, getPixelAspectRatio(src), 0, 1);", "-i", "src=wide.exr",
                             "-o", "from.exr")
        self.assertEqual((r["width"], r["height"]), (4, 2))
        self.assertEqual(r["pixels"][0][1][:2], [2, 2])
        self.assertIn("PixelAspectRatio: 2", self.oiio_info("from.exr"))
        # --pixel-aspect overrides the output's, over the same nominal rectangle; the input keeps its own.
        r = self.render_json("-e", "out = color(x, getPixelAspectRatio(src), 0, 1);", "-i", "src=wide.exr",
                             "--pixel-aspect", "1", "-o", "square.exr")
        self.assertEqual((r["width"], r["height"]), (8, 2))
        self.assertEqual(r["pixels"][0][1][:2], [1, 2])
        self.assertNotIn("PixelAspectRatio: 2", self.oiio_info("square.exr"))

    def test_render_warning_exit_0(self):
        code, out, err = run("render", "-e", "void f(output color out) { out = color(0.5, 0, 0, 1); }",
                             "--size", "1x1", "-o", "o.exr", cwd=self.dir)
        self.assertEqual((code, out, err), (0, "", "<script>: warning: Function main is not found\n"))
        self.assertTrue(os.path.exists(self.path("o.exr")))
        code, out, err = run("render", "-e", "void f(output color out) { out = 1; }", "--size", "1x1",
                             "--json", "-o", "o.exr", cwd=self.dir)
        self.assertEqual((code, err), (0, ""))
        self.assertEqual(json.loads(out)["errors"], [{"line": 0, "message": "Function main is not found"}])

    def test_file_script_message_with_its_line(self):
        script = self.path("bad.kel")
        with open(script, "w") as f:
            f.write("float a = 1;\nout = a +;\n")
        code, out, err = run("render", script, "--size", "1x1", "-o", "o.exr", cwd=self.dir)
        self.assertEqual((code, out), (1, ""))
        lines = err.splitlines()
        self.assertRegex(lines[0], "^" + re.escape(script) + r":2:(\d+:)? error: \S")
        self.assertEqual(lines[1], "out = a +;")
        code, out, _ = run("check", script, "--json")
        message = json.loads(out)["errors"][0]["message"]
        # MESSAGE is the PebError's, less the "at line 2" that the prefix says.
        self.assertEqual(lines[0].split(" error: ", 1)[1] + " at line 2", message)

    def test_render_json_of_a_refused_script(self):
        code, out, err = run("render", "-e", "out = ;", "--size", "2x2", "--json", "--dump", "-o", "o.exr",
                             cwd=self.dir)
        self.assertEqual((code, err), (1, ""))
        report = json.loads(out)
        self.assertEqual(set(report), {"ok", "errors"})
        self.assertFalse(report["ok"])
        self.assertEqual(report["errors"][0]["line"], 1)
        self.assertFalse(os.path.exists(self.path("o.exr")))

    def test_json_still_reports_usage_file_errors_and_cancellation_on_stderr(self):
        # No report is printed then, so the one line stays.
        for args, status in ((["-e", "out = s;", "-i", "s=missing.exr"], 2), (["-e", "out = 1;"], 2),
                             (["-e", "float i = 0; while (1) { i += 1; } out = i;", "--size", "4x4",
                               "--timeout", "0.3"], 3)):
            code, out, err = run("render", *args, "--json", "-o", "o.exr", cwd=self.dir)
            self.assertEqual((code, out), (status, ""), (args, err))
            self.assertEqual(len(err.strip().splitlines()), 1, (args, err))
            self.assertTrue(err.startswith("kel: "), (args, err))

    # --- failures -----------------------------------------------------------------------------
    def assertNoTempFiles(self):
        self.assertEqual([n for n in os.listdir(self.dir) if "kel-tmp" in n], [])

    def test_cancelled_render_exits_3_and_leaves_the_earlier_file(self):
        self.make_image("keep.png", "out = 0.5;", "2x2")
        before = self.read_bytes("keep.png")
        code, _, err = run("render", "-e", "float i = 0; while (1) { i += 1; } out = i;", "--size", "16x16",
                           "--timeout", "0.5", "-o", "keep.png", cwd=self.dir)
        self.assertEqual(code, 3, err)
        self.assertIn("cancel", err)
        self.assertEqual(self.read_bytes("keep.png"), before)
        self.assertNoTempFiles()

    def test_refused_script_leaves_no_file(self):
        code, _, _ = run("render", "-e", "out = ;", "--size", "2x2", "-o", "none.png", cwd=self.dir)
        self.assertEqual(code, 1)
        self.assertFalse(os.path.exists(self.path("none.png")))

    def test_unreadable_input_and_script(self):
        code, _, err = run("render", "-e", "out = s;", "-i", "s=missing.png", "-o", "o.png", cwd=self.dir)
        self.assertEqual(code, 2)
        self.assertIn("missing.png", err)
        code, _, _ = run("check", self.path("missing.kel"))
        self.assertEqual(code, 2)
        self.assertFalse(os.path.exists(self.path("o.png")))

    def test_unwritable_output(self):
        code, _, err = run("render", "-e", "out = 1;", "--size", "2x2", "-o", self.path("no/such/dir/o.png"))
        self.assertEqual(code, 2)
        self.assertEqual(len(err.strip().splitlines()), 1)
        code, _, _ = run("render", "-e", "out = 1;", "--size", "2x2", "-o", self.path("o.unknownext"))
        self.assertEqual(code, 2)

    def test_render_over_own_input_refused(self):
        self.make_image("plate.png", "out = 0.5;", "2x2")
        before = self.read_bytes("plate.png")
        code, _, err = run("render", "-e", "out = src;", "-i", "src=plate.png", "-o", "./plate.png", cwd=self.dir)
        self.assertEqual(code, 2)
        self.assertIn("plate.png", err)
        self.assertEqual(self.read_bytes("plate.png"), before)

    def test_bad_option_values_are_one_line_exit_2(self):
        base = ["render", "-e", "out = 1;", "-o", self.path("o.png")]
        cases = [["--size", "4y4"], ["--size", "0x4"], ["--frames", "5-2"], ["--frames", "a-b"],
                 ["--scale-level", "-1"], ["--pixel-aspect", "0/1"], ["--pixel-aspect", "x"], ["--threads", "0"],
                 ["--tile", "0x8"], ["--timeout", "-1"], ["--timeout", "soon"], ["--size", "2x2", "-f", "k=abc"],
                 ["--size", "2x2", "-c", "c=1,2"], ["--size", "2x2", "-f", "9bad=1"], ["--size", "2x2", "--dump"],
                 ["--size", "2x2", "--bogus"]]
        for extra in cases:
            code, out, err = run(*base, *extra)
            self.assertEqual(code, 2, extra)
            self.assertEqual(len(err.strip().splitlines()), 1, (extra, err))
        self.assertFalse(os.path.exists(self.path("o.png")))

    def test_usage_errors(self):
        self.assertEqual(run("render", "-e", "out = 1;", "-o", self.path("o.png"))[0], 2)  # no --size
        self.assertEqual(run("render", "-e", "out = s;", "-i", "s", "--size", "2x2", "-o", self.path("o.png"))[0], 2)
        self.assertEqual(run("check")[0], 2)
        self.assertEqual(run("check", "-e", "out = 1;", "-f", "k", "-f", "k")[0], 2)
        self.assertEqual(run()[0], 2)


if __name__ == "__main__":
    KEL = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=1)
