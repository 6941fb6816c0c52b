#!/usr/bin/env python3
"""`kel render` cancelled at random moments: by --timeout and by SIGINT, each
attempt exits 3 with one line, leaves no temporary file and no partial output, and leaves an
earlier output at the same path byte for byte. Usage: kel_fault_test.py KEL_BINARY."""
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
import unittest

KEL = None
# Tiles left of x = 40 finish, the others loop for ever: a cancellation finds some tiles done,
# some in flight and some not started. A timeout of a millisecond stops it before any tile.
SCRIPT = "float i = 0; while (x > 40 || i < 30) { i += 1; } out = color(i / 30, x / 64, y / 64, 1);"
ATTEMPTS = 4


def handles_sigint(pid):
    """True once the process has installed its SIGINT handler (SigCgt holds signal 2)."""
    try:
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("SigCgt:"):
                    return int(line.split()[1], 16) & (1 << (signal.SIGINT - 1)) != 0
    except FileNotFoundError:
        pass
    return False


class KelFaults(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name
        self.rng = random.Random(int(os.environ.get("KEL_FAULT_SEED", "20261122")))

    def tearDown(self):
        self.tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def earlier_outputs(self):
        """An earlier output in each format, and their bytes."""
        kept = {}
        for name in ("keep.exr", "keep.png"):
            p = subprocess.run([KEL, "render", "-e", "out = color(x / 4, 0.5, 0.25, 1);", "--size", "4x4",
                                "-o", self.path(name)], capture_output=True, text=True)
            self.assertEqual(p.returncode, 0, p.stderr)
            with open(self.path(name), "rb") as f:
                kept[name] = f.read()
        return kept

    def assertCancelled(self, code, err, kept, case):
        self.assertEqual(code, 3, (case, err))
        self.assertEqual(len(err.strip().splitlines()), 1, (case, err))
        self.assertIn("cancelled", err, case)
        self.assertEqual(sorted(os.listdir(self.dir)), sorted(kept), case)  # no temporary, no new file
        for name, data in kept.items():
            with open(self.path(name), "rb") as f:
                self.assertEqual(f.read(), data, (case, name))

    def command(self, output):
        threads = str(self.rng.choice([1, 2, 3, 8]))
        tile = self.rng.choice(["4x4", "8x2", "64x1", "16x16"])
        return [KEL, "render", "-e", SCRIPT, "--size", "64x32", "--threads", threads, "--tile", tile, "-o", output]

    def test_timeout_at_random_moments(self):
        kept = self.earlier_outputs()
        for attempt in range(ATTEMPTS):
            output = self.rng.choice(sorted(kept))
            timeout = "%.3f" % self.rng.uniform(0.001, 0.4)
            p = subprocess.run(self.command(self.path(output)) + ["--timeout", timeout], capture_output=True,
                               text=True, timeout=60)
            self.assertCancelled(p.returncode, p.stderr, kept, (attempt, output, timeout))
            self.assertIn("time limit", p.stderr)

    def test_sigint_at_random_moments(self):
        kept = self.earlier_outputs()
        for attempt in range(ATTEMPTS):
            output = self.rng.choice(sorted(kept))
            delay = self.rng.uniform(0.0, 0.4)
            proc = subprocess.Popen(self.command(self.path(output)), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                    text=True)
            # From the moment kel handles SIGINT (before it loads plug-ins): during loading,
            # compiling, and the render.
            deadline = time.monotonic() + 30
            while not handles_sigint(proc.pid) and proc.poll() is None and time.monotonic() < deadline:
                time.sleep(0.001)
            time.sleep(delay)
            proc.send_signal(signal.SIGINT)
            out, err = proc.communicate(timeout=60)
            self.assertCancelled(proc.returncode, err, kept, (attempt, output, delay))
            self.assertIn("interrupt", err)


if __name__ == "__main__":
    KEL = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=1)
