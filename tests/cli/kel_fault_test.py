#!/usr/bin/env python3
"""`kel render` cancelled at random moments, by --timeout and by SIGINT: each attempt exits 3
with one line, leaves no temporary file and no partial output, and leaves an earlier output at
the same path byte for byte. Usage: kel_fault_test.py KEL_BINARY."""
import os
import random
import signal
import subprocess
import sys
import tempfile
import time

# Tiles left of x = 40 finish, the others loop for ever: a cancellation finds some tiles done,
# some in flight and some not started. A timeout of a millisecond stops it before any tile.
SCRIPT = "float i = 0; while (x > 40 || i < 30) { i += 1; } out = color(i / 30, x / 64, y / 64, 1);"


def handles_sigint(pid):
    """True once the process has installed its SIGINT handler (SigCgt holds signal 2)."""
    try:
        with open("/proc/%d/status" % pid) as f:
            line = next(line for line in f if line.startswith("SigCgt:"))
            return int(line.split()[1], 16) & (1 << (signal.SIGINT - 1)) != 0
    except FileNotFoundError:
        return False


def main(kel):
    rng = random.Random(int(os.environ.get("KEL_FAULT_SEED", "20261122")))
    failures = 0
    with tempfile.TemporaryDirectory() as d:
        kept = {}
        for name in ("keep.exr", "keep.png"):
            subprocess.run([kel, "render", "-e", "out = color(x / 4, 0.5, 0.25, 1);", "--size", "4x4", "-o",
                            os.path.join(d, name)], check=True, capture_output=True)
            with open(os.path.join(d, name), "rb") as f:
                kept[name] = f.read()
        for attempt in range(8):
            output = rng.choice(sorted(kept))
            command = [kel, "render", "-e", SCRIPT, "--size", "64x32", "--threads", str(rng.choice([1, 2, 3, 8])),
                       "--tile", rng.choice(["4x4", "8x2", "64x1", "16x16"]), "-o", os.path.join(d, output)]
            moment = rng.uniform(0.001, 0.4)
            if attempt % 2 == 0:
                p = subprocess.run(command + ["--timeout", "%.3f" % moment], capture_output=True, text=True, timeout=60)
                code, err, reason = p.returncode, p.stderr, "time limit"
            else:
                # From the moment kel handles SIGINT (before it loads plug-ins): during loading,
                # compiling, and the render.
                proc = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                deadline = time.monotonic() + 30
                while not handles_sigint(proc.pid) and proc.poll() is None and time.monotonic() < deadline:
                    time.sleep(0.001)
                time.sleep(moment)
                proc.send_signal(signal.SIGINT)
                err, reason = proc.communicate(timeout=60)[1], "interrupt"
                code = proc.returncode
            same = sorted(os.listdir(d)) == sorted(kept)
            for name, data in kept.items():
                with open(os.path.join(d, name), "rb") as f:
                    same = same and f.read() == data
            if not (code == 3 and len(err.strip().splitlines()) == 1 and "cancelled" in err and reason in err and same):
                print("FAILED attempt %d (%s, %s after %.3f s): status %s, %s, files %s" %
                      (attempt, output, reason, moment, code, err.strip(), sorted(os.listdir(d))))
                failures += 1
    print("%d attempts, %d failed" % (8, failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(os.path.abspath(sys.argv[1])))
