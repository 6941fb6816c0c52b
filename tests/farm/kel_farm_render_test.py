#!/usr/bin/env python3
"""`kel render` as a farm task: --each-frame writes the frames it can and names each one that
failed (exit status 4), --skip-existing leaves written frames alone, and a frame's pixels do not
depend on the thread count or the tile size. And `kel submit status` read from accounting (sacct)
once the queue has forgotten the job, through stand-in Slurm commands.
Usage: kel_farm_render_test.py KEL_BINARY."""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

KEL = None
SCRIPT = "out = color(x / 16 + t * 0.1, y / 12, sin(x * y + t), 1) * src;"


class FarmTask(unittest.TestCase):
    """Each test in a directory of its own, which kel runs in."""

    def setUp(self):
        self.dir = self.enterContext(tempfile.TemporaryDirectory())

    def path(self, name):
        return os.path.join(self.dir, name)

    def kel(self, *args):
        return subprocess.run([KEL, *args], cwd=self.dir, capture_output=True, text=True, timeout=120)

    def render(self, output, *options):
        return self.kel("render", "-e", SCRIPT, "-i", "src=in.####.exr", "-o", output, "--frames", "1-5", *options)

    def make_inputs(self, frames):
        for frame in frames:
            made = self.kel("render", "-e", "out = color(1, 0.5, 0.25, 1);", "--size", "16x12",
                            "-o", "in.%04d.exr" % frame)
            self.assertEqual(made.returncode, 0, made.stderr)

    def test_failed_frames_are_named_and_the_others_written(self):
        self.make_inputs([1, 2, 4, 5])  # no input for frame 3
        # Frame 4's output exists: skipped, even though rendering it would have worked.
        with open(self.path("out.0004.exr"), "wb") as f:
            f.write(b"kept")
        rows = [  # options, exit status, frames written, frame named as failed
            ((), 2, [], None),
            (("--each-frame",), 4, [1, 2, 4, 5], 3),
            (("--each-frame", "--skip-existing"), 4, [1, 2, 5], 3),
            (("--skip-existing",), 2, [], None),
        ]
        for options, status, written, failed in rows:
            with self.subTest(options=options):
                for frame in (1, 2, 3, 5):
                    if os.path.exists(self.path("out.%04d.exr" % frame)):
                        os.remove(self.path("out.%04d.exr" % frame))
                before = os.stat(self.path("out.0004.exr"))
                run = self.render("out.####.exr", *options)
                self.assertEqual(run.returncode, status, run.stderr)
                for frame in (1, 2, 3, 5):
                    self.assertEqual(os.path.exists(self.path("out.%04d.exr" % frame)), frame in written, frame)
                # Every frame written says so, though the next frame's input was being read.
                said = [int(n) for n in re.findall(r"(?m)^kel: frame (\d+) \(\d+ of \d+\) rendered", run.stderr)]
                self.assertEqual(said, written, run.stderr)
                rewritten = os.stat(self.path("out.0004.exr")).st_ino != before.st_ino
                self.assertEqual(rewritten, 4 in written, "frame 4")
                if failed:
                    lines = [l for l in run.stderr.splitlines() if "frame %d " % failed in l and "in.0003.exr" in l]
                    self.assertEqual(len(lines), 1, run.stderr)
                with open(self.path("out.0004.exr"), "wb") as f:
                    f.write(b"kept")
                self.assertFalse([n for n in os.listdir(self.dir) if n.startswith(".")], "temporaries left")

    def test_pixels_do_not_depend_on_threads_or_tiles(self):
        self.make_inputs(range(1, 6))
        settings = [("--threads", "1"), ("--threads", "2", "--tile", "5x3"), ("--tile", "16x1", "--each-frame")]
        pixels = []
        for i, options in enumerate(settings):
            run = self.render("r%d.####.exr" % i, "--json", "--dump", *options)
            self.assertEqual(run.returncode, 0, run.stderr)
            pixels.append([frame["pixels"] for frame in json.loads(run.stdout)["frames"]])
        for i in range(1, len(settings)):
            self.assertEqual(pixels[i], pixels[0], settings[i])

    def test_status_from_accounting(self):
        # squeue no longer knows the job; sacct gives a task per line, pending ones as a range.
        record = "kel frames=1-6 chunk=2 output=" + self.path("o%20u.##.exr")
        bin_dir = self.path("bin")
        os.mkdir(bin_dir)
        commands = {"squeue": "echo 'slurm_load_jobs error: Invalid job id specified' >&2; exit 1",
                    "sacct": "printf '%s\\n' '7_0|COMPLETED|{0}' '7_1|CANCELLED by 0|{0}' '7_[2]|PENDING|{0}'"
                             .format(record)}
        for name, body in commands.items():
            with open(os.path.join(bin_dir, name), "w") as f:
                f.write("#!/bin/sh\n" + body + "\n")
            os.chmod(os.path.join(bin_dir, name), 0o755)
        for frame in (1, 2, 5):
            open(self.path("o u.%02d.exr" % frame), "w").close()
        env = dict(os.environ, PATH=bin_dir + ":" + os.environ["PATH"])
        run = subprocess.run([KEL, "submit", "status", "7"], capture_output=True, text=True, env=env, timeout=60)
        self.assertEqual(run.returncode, 4, run.stderr)
        self.assertEqual(run.stdout.splitlines(), [
            "job 7: frames 1-6 of %s: 3 done, 2 failed, 1 pending" % self.path("o u.##.exr"),
            "failed 3-4: task 1 CANCELLED",
            "pending 6: task 2 PENDING"])


if __name__ == "__main__":
    KEL = sys.argv.pop(1)
    unittest.main()
