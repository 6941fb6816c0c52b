#!/usr/bin/env python3
"""The Python module's overhead: E1 (bench/effects/E1_gain.kel) rendered over a 2048x1556 float32
array through `kel.Script.render`, against the engine's in-memory time for the same effect that
kelEffects measures (eval per tile into a frame already in memory). The module's time includes
what a pipeline pays: the input taken from the array, the render, the output handed back as an
array. Prints a Markdown table; best of --repeat runs each.

Usage: PYTHONPATH=build/python python3 bench/python_overhead.py [--kel-effects build/bin/kelEffects]
       [--repeat 5] [--tile 2048x32]"""
import argparse
import os
import re
import subprocess
import sys
import time

import numpy as np

import kel

WIDTH, HEIGHT = 2048, 1556
HERE = os.path.dirname(os.path.abspath(__file__))


def source_frame():
    """kelEffects' source image, top row first."""
    y, x = np.mgrid[0:HEIGHT, 0:WIDTH].astype(np.float32)
    frame = np.stack([0.5 + 0.5 * np.sin(x * 0.01), y / HEIGHT, 0.5 + 0.5 * np.cos((x + y) * 0.003),
                      np.ones_like(x)], axis=-1).astype(np.float32)
    return np.ascontiguousarray(frame[::-1])


def best_seconds(repeat, run):
    best = float("inf")
    for _ in range(repeat):
        start = time.perf_counter()
        run()
        best = min(best, time.perf_counter() - start)
    return best


def engine_seconds(kel_effects, repeat, tile):
    """kelEffects' E1 rows: {threads: seconds} from its Mpix/s."""
    out = subprocess.run([kel_effects, os.path.join(HERE, "effects"), "--only", "E1", "--repeat", str(repeat),
                          "--tile", tile], capture_output=True, text=True, check=True).stdout
    seconds = {}
    for row in re.finditer(r"^\| E1 gain \| (\d+) \| ([0-9.]+) \|", out, re.M):
        seconds[int(row.group(1))] = WIDTH * HEIGHT / 1e6 / float(row.group(2))
    return seconds


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--kel-effects", default=os.path.join(HERE, "..", "build", "bin", "kelEffects"))
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--tile", default="2048x32", help="WxH, as kelEffects' --tile")
    args = parser.parse_args()
    tile = tuple(int(n) for n in args.tile.split("x"))

    with open(os.path.join(HERE, "effects", "E1_gain.kel")) as f:
        script = kel.compile(f.read(), inputs=["src"], floats={})
    src = source_frame()
    expected = src * np.float32(1.5)
    engine = engine_seconds(args.kel_effects, args.repeat, args.tile)

    print("| threads | engine (kelEffects) ms | module ms | module / engine |\n|---|---|---|---|")
    for threads in sorted(engine):
        out = script.render(src=src, threads=threads, tile=tile)
        if not np.array_equal(out, expected):
            sys.exit("E1 through the module differs from src * 1.5")
        module = best_seconds(args.repeat, lambda: script.render(src=src, threads=threads, tile=tile))
        print(f"| {threads} | {engine[threads] * 1e3:.1f} | {module * 1e3:.1f} | {module / engine[threads]:.2f} |")


if __name__ == "__main__":
    main()
