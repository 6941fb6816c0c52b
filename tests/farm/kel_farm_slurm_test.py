#!/usr/bin/env python3
"""A sequence rendered on a one-node Slurm cluster started for the test: 24 frames in chunks of 4,
one task cancelled half way through its chunk, the job's status, the same submission again, and
every frame compared with a local render of the same frames on other threads and tiles.
Usage: kel_farm_slurm_test.py KEL_BINARY. Exits 77 (skipped) when no cluster can run here."""
import json
import os
import re
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from slurm_cluster import SlurmCluster, why_not_here  # noqa: E402

# Frames 9 to 12 (task 2) take long enough to be cancelled half done; the rest are quick.
SCRIPT = """\
float n = 20 + 3000 * (t >= 9 && t <= 12);
float s = 0;
for (float i = 0; i < n; i = i + 1) s = s + sin(x * 0.05 + y * 0.03 + i * 0.001 + t);
out = color(s / n, y / 48, t / 24, 1);
"""
FRAMES = range(1, 25)


def wait_for(what, ready, timeout=90):
    deadline = time.monotonic() + timeout
    while not ready():
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.05)


def main(kel):
    reason = why_not_here()
    if reason:
        print("skipped: no Slurm cluster can run on this machine: " + reason)
        return 77
    with tempfile.TemporaryDirectory() as work, SlurmCluster() as cluster:
        def kel_run(*args):
            return subprocess.run([kel, *args], cwd=work, env=cluster.env, capture_output=True, text=True, timeout=60)

        def frame(directory, number):
            return os.path.join(work, directory, "out.%04d.exr" % number)

        def job_unfinished(job):
            return cluster.run("squeue", "-h", "-j", job, "-t", "PENDING,CONFIGURING,RUNNING,COMPLETING").stdout.strip()

        def check(condition, message):
            if not condition:
                raise AssertionError(message + "\nslurmctld log:\n" + cluster.log("slurmctld")[-3000:])

        with open(os.path.join(work, "fx.kel"), "w") as f:
            f.write(SCRIPT)
        os.mkdir(os.path.join(work, "farm"))
        submit = ("submit", "slurm", "fx.kel", "--size", "64x48", "-o", "farm/out.####.exr", "--frames", "1-24",
                  "--chunk", "4")
        first = kel_run(*submit)
        check(first.returncode == 0 and re.fullmatch(r"\d+\n", first.stdout), "submit: %r" % (first,))
        job = first.stdout.strip()

        # Cancelled once its first frame is written: the frames done stay, the rest are missing.
        wait_for("task 2's first frame", lambda: os.path.exists(frame("farm", 9)))
        cluster.run("scancel", job + "_2")
        check(not os.path.exists(frame("farm", 12)), "task 2 finished before it could be cancelled")
        wait_for("job " + job + " to end", lambda: not job_unfinished(job))

        status = kel_run("submit", "status", job)
        failed = [n for n in FRAMES if not os.path.exists(frame("farm", n))]
        check(status.returncode == 4 and failed and set(failed) <= set(range(10, 13)), "status: %r" % (status,))
        lines = status.stdout.splitlines()
        check(lines[0].endswith(": %d done, %d failed, 0 pending" % (24 - len(failed), len(failed))), status.stdout)
        check(lines[1] == "failed %s: task 2 CANCELLED" % (
            str(failed[0]) if len(failed) == 1 else "%d-%d" % (failed[0], failed[-1])), status.stdout)

        # The same command again submits the missing chunk only, and its task keeps the frames done.
        kept = os.stat(frame("farm", 9)).st_ino
        again = kel_run(*submit)
        check(again.returncode == 0 and "tasks 2 of 6" in again.stderr, "resubmit: %r" % (again,))
        retry = again.stdout.strip()
        wait_for("job " + retry + " to end", lambda: not job_unfinished(retry))
        status = kel_run("submit", "status", retry)
        check(status.returncode == 0 and status.stdout.endswith(": 24 done, 0 failed, 0 pending\n"),
              "status after the retry: %r" % (status,))
        check(os.stat(frame("farm", 9)).st_ino == kept, "the retry rendered frame 9 again")

        # The farm's frames are the local render's, whatever the threads and tiles (files carry
        # the time they were written: their pixels are compared, read back by kel).
        def pixels(*args):
            run = kel_run("render", *args, "--frames", "1-24", "--json", "--dump", "--quiet")
            check(run.returncode == 0, "render: %r" % (run,))
            return [f["pixels"] for f in json.loads(run.stdout)["frames"]]

        os.mkdir(os.path.join(work, "scratch"))
        farm = pixels("-e", "out = a;", "-i", "a=farm/out.####.exr", "-o", "scratch/copy.####.exr")
        local = pixels("fx.kel", "--size", "64x48", "-o", "scratch/local.####.exr", "--threads", "2", "--tile", "24x5")
        check(farm == local, "frames differing from the local render: %r" %
              [n for n, a, b in zip(FRAMES, farm, local) if a != b])

        unknown = kel_run("submit", "status", "999999")
        check(unknown.returncode == 2 and unknown.stderr.startswith("kel: Slurm knows no job 999999"),
              "status of an unknown job: %r" % (unknown,))
    print("ok")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
