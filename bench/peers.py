#!/usr/bin/env python3
"""Times the reference effects E1-E7 in the tools a user would pick instead of KEL (issue 8):
numpy (every effect, vectorised whole-frame arrays), ImageMagick -fx (E1), G'MIC -fill (E1,
E3, E5) and KSeExpr (E1-E5, E7: bench/peers/kseexpr_bench.cpp, built here against the installed
library with the project's flags), on the same 2048x1556 RGBA float frame. Prints a Markdown
table; a peer that is not installed (or whose harness does not build) is reported as such. The
timings include what each tool needs to run the effect: for the command-line tools that is the
whole command (with reading and writing a float file), which is noted in the table."""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

W, H = 2048, 1556
MPIX = W * H / 1e6


def best(fn, repeat=3):
    t = 1e30
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        t = min(t, time.perf_counter() - t0)
    return t


def numpy_rows():
    try:
        import numpy as np
    except ImportError:
        return [("numpy", "all", "not installed", "")]
    y, x = np.mgrid[0:H, 0:W].astype(np.float32)
    src = np.stack([0.5 + 0.5 * np.sin(x * 0.01), y / H, 0.5 + 0.5 * np.cos((x + y) * 0.003), np.ones_like(x)], -1).astype(np.float32)

    def e1():
        return src * np.float32(1.5)

    def e2():
        return src * np.array([1.1, 0.9, 0.8, 1], np.float32) + np.array([0.05, 0.02, 0, 0], np.float32)

    def e3():
        return np.stack([np.sin(x * 0.01) * np.cos(y * 0.013), np.sqrt(np.abs(np.sin(x * 0.002 + y * 0.003))),
                         np.arctan2(y - 700, x - 1000) / 6.2832 + 0.5, np.ones_like(x)], -1)

    def e4():
        # Improved Perlin noise over arrays, the same tables' shape as KEL's (the permutation
        # differs, which does not change the cost).
        perm = np.tile(np.random.default_rng(1).permutation(256), 2)
        grads = np.array([[1, 1, 0], [-1, 1, 0], [1, -1, 0], [-1, -1, 0], [1, 0, 1], [-1, 0, 1], [1, 0, -1], [-1, 0, -1],
                          [0, 1, 1], [0, -1, 1], [0, 1, -1], [0, -1, -1], [1, 1, 0], [0, -1, 1], [-1, 1, 0], [0, -1, -1]], np.float32)
        px, py, pz = x * 0.01, y * 0.01, np.full_like(x, 0.5)
        fx, fy, fz = np.floor(px), np.floor(py), np.floor(pz)
        X, Y, Z = fx.astype(int) & 255, fy.astype(int) & 255, fz.astype(int) & 255
        u0, v0, w0 = px - fx, py - fy, pz - fz
        fade = lambda t: t * t * t * ((6 * t - 15) * t + 10)
        u, v, w = fade(u0), fade(v0), fade(w0)
        A, B = perm[X] + Y, perm[X + 1] + Y
        AA, AB, BA, BB = perm[A] + Z, perm[A + 1] + Z, perm[B] + Z, perm[B + 1] + Z

        def g(h, ox, oy, oz):
            gr = grads[perm[h] & 15]
            return (u0 - ox) * gr[..., 0] + (v0 - oy) * gr[..., 1] + (w0 - oz) * gr[..., 2]
        lerp = lambda s, p, q: p + (q - p) * s
        f0 = lerp(v, lerp(u, g(AA, 0, 0, 0), g(BA, 1, 0, 0)), lerp(u, g(AB, 0, 1, 0), g(BB, 1, 1, 0)))
        f1 = lerp(v, lerp(u, g(AA + 1, 0, 0, 1), g(BA + 1, 1, 0, 1)), lerp(u, g(AB + 1, 0, 1, 1), g(BB + 1, 1, 1, 1)))
        n = lerp(w, f0, f1)
        return np.stack([n, n, n, np.ones_like(n)], -1)

    def e5():
        return np.where((src[..., 0] > 0.5)[..., None], src, src * np.float32(0.25))

    def e6():
        cr, ci = (x - 1400) / 600, (y - 778) / 600
        zr, zi, i = np.zeros_like(x), np.zeros_like(x), np.zeros_like(x)
        active = np.ones(x.shape, bool)
        while active.any():
            active &= (zr * zr + zi * zi < 4) & (i < 32)
            t2 = zr * zr - zi * zi + cr
            zi = np.where(active, 2 * zr * zi + ci, zi)
            zr = np.where(active, t2, zr)
            i = np.where(active, i + 1, i)
        return np.stack([i / 32] * 3 + [np.ones_like(i)], -1)

    def e7():
        sx = x + 10 * np.sin(y * 0.05) - 0.5
        sy = y - 0.5
        x0, y0 = np.floor(sx).astype(int), np.floor(sy).astype(int)
        ax, ay = (sx - x0)[..., None], (sy - y0)[..., None]

        def px(xx, yy):
            ok = (xx >= 0) & (yy >= 0) & (xx < W) & (yy < H)
            return np.where(ok[..., None], src[np.clip(yy, 0, H - 1), np.clip(xx, 0, W - 1)], 0)
        top = px(x0, y0) * (1 - ax) + px(x0 + 1, y0) * ax
        bot = px(x0, y0 + 1) * (1 - ax) + px(x0 + 1, y0 + 1) * ax
        return top * (1 - ay) + bot * ay

    rows = []
    for name, fn in [("E1 gain", e1), ("E2 grade", e2), ("E3 math", e3), ("E4 noise", e4), ("E5 key", e5),
                     ("E6 loop", e6), ("E7 warp", e7)]:
        t = best(fn, 2 if name in ("E4 noise", "E6 loop") else 3)
        rows.append(("numpy " + np.__version__, name, "%.1f" % (MPIX / t), "in memory, 1 thread"))
    return rows


def command_rows():
    rows = []
    tmp = tempfile.mkdtemp()
    try:
        src = os.path.join(tmp, "src.miff")
        # /usr/local/bin/convert may be a stand-in; ImageMagick's own is in /usr/bin.
        convert = "/usr/bin/convert" if os.path.exists("/usr/bin/convert") else shutil.which("convert")
        if convert:
            try:
                subprocess.run([convert, "-size", "%dx%d" % (W, H), "gradient:", "-depth", "32", "-define",
                                "quantum:format=floating-point", src], check=True, capture_output=True)
                out = os.path.join(tmp, "out.miff")
                t = best(lambda: subprocess.run([convert, src, "-fx", "u*1.5", out], check=True, capture_output=True), 1)
                rows.append(("ImageMagick -fx", "E1 gain", "%.1f" % (MPIX / t), "whole command, with file I/O"))
            except subprocess.CalledProcessError:
                # e.g. only the stand-in is there, which does not do -fx
                rows.append(("ImageMagick -fx", "E1", "not installed", "%s failed" % convert))
        else:
            rows.append(("ImageMagick -fx", "E1", "not installed", ""))
        if shutil.which("gmic"):
            cmds = {"E1 gain": "i*1.5",
                    "E3 math": "c==0?sin(x*0.01)*cos(y*0.013):c==1?sqrt(abs(sin(x*0.002+y*0.003))):c==2?atan2(y-700,x-1000)/6.2832+0.5:1",
                    "E5 key": "i(x,y,0,0)>0.5?i:i*0.25"}
            for name, expr in cmds.items():
                try:
                    t = best(lambda: subprocess.run(["gmic", "-v", "-", "%d,%d,1,4" % (W, H), "-fill", expr], check=True,
                                                    capture_output=True), 1)
                    rows.append(("G'MIC -fill", name, "%.1f" % (MPIX / t), "whole command, in memory, all cores"))
                except subprocess.CalledProcessError:
                    rows.append(("G'MIC -fill", name, "failed", "gmic exited with an error"))
        else:
            rows.append(("G'MIC -fill", "E1, E3, E5", "not installed", ""))
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    return rows


def kseexpr_rows():
    """Builds bench/peers/kseexpr_bench.cpp against KSeExpr (Debian: libkseexpr-dev) with the
    project's Release flags (-O2, no -ffast-math) and returns the rows it prints."""
    here = os.path.dirname(os.path.abspath(__file__))
    source = os.path.join(here, "peers", "kseexpr_bench.cpp")
    cxx = os.environ.get("CXX") or shutil.which("g++")
    flags, version = None, ""
    if shutil.which("pkg-config") and subprocess.run(["pkg-config", "--exists", "kseexpr"]).returncode == 0:
        pc = lambda *a: subprocess.run(["pkg-config"] + list(a) + ["kseexpr"], capture_output=True, text=True).stdout.split()
        # The .pc's Libs names no library: -lKSeExpr is added.
        flags = pc("--cflags") + pc("--libs") + ["-lKSeExpr"]
        version = ".".join(((pc("--modversion") or [""])[0].split(".") + ["0"] * 3)[:3])  # 4.0.4.0 -> 4.0.4
    elif os.path.exists("/usr/include/KSeExpr/Expression.h"):
        flags = ["-lKSeExpr"]
    if flags is None:
        return [("KSeExpr", "E1-E7", "not installed", "libkseexpr-dev")]
    if not cxx:
        return [("KSeExpr", "E1-E7", "not measured", "no C++ compiler")]
    tmp = tempfile.mkdtemp()
    try:
        exe = os.path.join(tmp, "kseexpr_bench")
        cmd = [cxx, "-std=c++20", "-O2", "-DNDEBUG"] + (['-DKSEEXPR_VERSION="%s"' % version] if version else []) + \
            [source, "-o", exe] + flags
        build = subprocess.run(cmd, capture_output=True, text=True)
        if build.returncode != 0:
            first = next((l for l in build.stderr.splitlines() if "error" in l), build.stderr.strip()[:200])
            return [("KSeExpr", "E1-E7", "harness does not build", first.replace("|", " ").strip())]
        run = subprocess.run([exe], capture_output=True, text=True, timeout=1800)
        rows = []
        for line in run.stdout.splitlines():
            cells = [c.strip() for c in line.strip().strip("|").split("|")]
            if len(cells) == 4:
                rows.append(tuple(cells))
        if run.returncode != 0 and not rows:
            rows.append(("KSeExpr", "E1-E7", "harness failed", re.sub(r"\s+", " ", run.stderr)[:200].replace("|", " ")))
        return rows
    except subprocess.TimeoutExpired:
        return [("KSeExpr", "E1-E7", "harness timed out", "")]
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def main():
    rows = numpy_rows() + command_rows() + kseexpr_rows()
    print("| peer | effect | Mpix/s | how |\n|---|---|---|---|")
    for r in rows:
        print("| %s | %s | %s | %s |" % r)


if __name__ == "__main__":
    sys.exit(main())
