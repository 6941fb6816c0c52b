#!/usr/bin/env python3
"""`kel` end to end, one table of cases per group, run a few at a time (each kel process spends
most of its time loading OpenImageIO's libraries, so the cases share their input images and
every process checks as much as it can).
  commands:  commands, parameters, render options, JSON, frames, atomic output, help against
             docs/cli.md;
  bad-input: broken and hostile image files, scripts at the parser's limits, NaN everywhere, bad
             option values, unwritable outputs and a full disk.
Every refusal is its exit status, one line on standard error and no file written.
Usage: kel_cli_test.py KEL CLI_MD GROUP"""
import concurrent.futures
import json
import os
import random
import re
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time
import zlib

KEL = CLI_MD = None
HERE = None  # the shared directory of input images


def run(*args, cwd=None, preexec_fn=None):
    p = subprocess.run([KEL, *args], capture_output=True, cwd=cwd, timeout=120, preexec_fn=preexec_fn)
    return p.returncode, p.stdout.decode("utf-8", "replace"), p.stderr.decode("utf-8", "replace")


def check(condition, *what):
    if not condition:
        raise AssertionError(" ".join(str(w) for w in what))


def refused(result, status, d=None, names=(), start="kel: ", mentions=None):
    """`status`, one line on standard error starting with `start`, no file `names` in d, no temporary."""
    code, out, err = result
    check(code == status, "status", code, "expected", status, err)
    check(len(err.strip().splitlines()) == 1 and err.startswith(start), "not one line:", err)
    check(mentions is None or mentions in err, mentions, "not in", err)
    if d:
        check(not [n for n in os.listdir(d) if n in names or "kel-tmp" in n], "files left:", os.listdir(d))


def image(name, script, size):
    """An image made by kel itself in the shared directory."""
    code, _, err = run("render", "-e", script, "--size", size, "-o", os.path.join(HERE, name))
    check(code == 0, err)
    return os.path.join(HERE, name)


def dump(*args, cwd=None):
    output = os.path.join(cwd, "dump.exr") if cwd else os.path.join(HERE, "dump-%d.exr" % threading.get_ident())
    code, out, err = run("render", *args, "--json", "--dump", "-o", output, cwd=cwd)
    check(code == 0, args, err)
    return json.loads(out)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def write(d, name, data):
    with open(os.path.join(d, name), "wb") as f:
        f.write(data.encode() if isinstance(data, str) else data)
    return os.path.join(d, name)


# ---- commands ------------------------------------------------------------------------------

def tools_and_version(d):
    code, out, _ = run("tools")
    check(code == 0 and "KEL\tKel Expressions\tKEL language scripting tool for creating effects." in out.splitlines(), out)
    # kel's own version, then the package's build record, its eleven fields in order, labelled.
    code, out, err = run("version")
    lines = out.splitlines()
    check((code, err) == (0, "") and re.match(r"^kel: \d+\.\d+", lines[0]), out)
    check([line.split(": ", 1)[1] if ": " in line else "" for line in lines[1:]] ==
          ["libZtkelZttool", "Varnic Sorell Library", "2013", "8.0", "", "8", "0", "42", "2600", "Jun 12 2012",
           "opt.x86_64.intel"], out)


def check_messages(d):
    check(json.loads(run("check", "-e", "out = x;", "--json")[1]) == {"ok": True, "errors": []})
    code, _, err = run("check", "-e", "float a = 1;\nout = ;")
    check(code == 1 and re.match(r"<script>:2:7: error: ", err) and err.splitlines()[1] == "out = ;", err)
    script = write(d, "bad.kel", "float a = 1;\nout = a +;\n")
    code, out, err = run("check", script, "--json")
    report = json.loads(out)
    check(code == 1 and not report["ok"] and report["errors"][0]["line"] == 2 and err == "", out, err)
    code, out, err = run("render", script, "--size", "1x1", "-o", os.path.join(d, "o.exr"))
    message = re.sub(r" at line \d+$", "", report["errors"][0]["message"])
    check((code, out) == (1, "") and re.fullmatch(re.escape(script) + r":2:10: error: " + re.escape(message),
                                                   err.splitlines()[0]), err)
    check(err.splitlines()[1] == "out = a +;" and not os.path.exists(os.path.join(d, "o.exr")), err)
    warning = "void f(output color out) { out = color(0.5, 0, 0, 1); }"
    code, out, err = run("check", "-e", warning)
    check((code, out) == (0, "") and re.match(r"<script>:1:6: warning: Function main is not found\n", err), err)
    code, out, err = run("render", "-e", warning, "--size", "1x1", "--json", "-o", os.path.join(d, "w.exr"))
    check((code, err) == (0, "") and json.loads(out)["errors"] == [{"line": 0, "message": "Function main is not found"}])
    check(os.path.exists(os.path.join(d, "w.exr")))


def print_command(d):
    code, out, _ = run("print", "-e", "out = x * 2;")
    check(code == 0 and "x * 2" in out, out)
    check(run("print", "-e", "out = ;")[:2] == (1, ""))
    script = "float i = 0; for (; i < 1; ) { i += 1; } out = i;"
    check(run("check", "-e", script)[0] == 0)
    check(run("print", "-e", script) == (1, "", "kel: the tree cannot be printed: a 'for' loop without its first or "
                                                "third clause has no printed form\n"))


def parameters(d):
    # params[0] is the first -f, whatever image inputs stand between; -f without a value is 0.
    r = dump("-e", "out = color(a1, a2, r(src), k);", "-f", "a1=0.25", "-i", "src=" + SRC, "-f", "a2=0.75", "-f", "k",
             "-c", "tint=1,0,0,1")
    check(r["pixels"][0][1] == [0.25, 0.75, 1, 0], r["pixels"][0])
    check(run("check", "-e", "out = 1;", "-i", "src", "-c", "tint=1,0,0,1", "-f", "k") == (0, "", ""))
    check(run("check", "-e", "out = src;", "-i", "src=" + os.path.join(d, "missing.exr"))[::2] == (0, ""))  # not read
    r = dump("-e", "void main(output color res) { res = color(0.25, 0.5, 0.75, 1); }", "--out", "res", "--size", "1x1")
    check(r["pixels"][0][0] == [0.25, 0.5, 0.75, 1])
    code, out, _ = run("render", "-e", "out = 1;", "--out", "res", "--size", "1x1", "--json", "-o", os.path.join(d, "o.exr"))
    check(code == 1 and not json.loads(out)["ok"] and not os.path.exists(os.path.join(d, "o.exr")))


def json_report(d):
    r = dump("-e", "out = color(x, y, 0.1, 1); if (x > 1) out = color(0/0, 1/0, -1/0, 1);", "--size", "3x2")
    check(set(r) == {"ok", "errors", "width", "height", "validity", "pixels"}, r)
    check((r["width"], r["height"], r["validity"]) == (3, 2, [-31536000, 31536000]), r)
    check(r["pixels"][1][:2] == [[0, 1, 0.100000001, 1], [1, 1, 0.100000001, 1]], r["pixels"])
    check(r["pixels"][0][2] == ["nan", "inf", "-inf", 1], r["pixels"])


def rows_bottom_up(d):
    # Row 0 is the bottom row: first in --dump, last in the file.
    rows = image("rows.exr", "out = color(y / 2, 0, 0, 1);", "1x3")
    check([row[0][0] for row in dump("-e", "out = src;", "-i", "src=" + rows)["pixels"]] == [0, 0.5, 1])
    top = subprocess.run(["oiiotool", rows, "--cut", "1x1+0+0", "--printstats"], capture_output=True, text=True).stdout
    check("Max: 1.0" in top.replace("1.000000", "1.0"), top)


def scale_aspect_time(d):
    r = dump("-e", "out = color(x, y, t, 1);", "--size", "8x4", "--scale-level", "1", "--pixel-aspect", "2/1", "--time", "3")
    check((r["width"], r["height"]) == (4, 2) and r["pixels"][1][3] == [12, 2, 3, 1], r)
    check(0 < r["validity"][1] - r["validity"][0] < 1e-7, r["validity"])


def pixel_aspect_files(d):
    # A 4x2 input of aspect 2: its nominal rectangle is (0, 8, 0, 2), x of column 1 is 2.
    check(run("render", "-e", "out = 1;", "--size", "4x2", "--pixel-aspect", "2/1", "-o", os.path.join(d, "wide.exr"))[0] == 0)
    info = lambda name: subprocess.run(["oiiotool", "--info", "-v", os.path.join(d, name)], capture_output=True, text=True).stdout
    check("PixelAspectRatio: 2" in info("wide.exr") and re.search(r"4 x\s+2, 4 channel, float openexr", info("wide.exr")))
    script = "out = color(x, getPixelAspectRatio(src), 0, 1);"
    r = dump("-e", script, "-i", "src=wide.exr", cwd=d)
    check((r["width"], r["height"]) == (4, 2) and r["pixels"][0][1][:2] == [2, 2], r)
    check("PixelAspectRatio: 2" in info("dump.exr"))
    r = dump("-e", script, "-i", "src=wide.exr", "--pixel-aspect", "1", cwd=d)  # the input keeps its own
    check((r["width"], r["height"]) == (8, 2) and r["pixels"][0][1][:2] == [1, 2], r)
    check("PixelAspectRatio: 2" not in info("dump.exr"))


def size_ignored_with_an_input(d):
    code, out, err = run("render", "-e", "out = src;", "-i", "src=" + SRC, "--size", "9x7", "--json", "-o",
                         os.path.join(d, "o.exr"))
    check(code == 0 and (json.loads(out)["width"], json.loads(out)["height"]) == (4, 3), out)
    refused((1, "", err), 1, start="kel: --size is ignored: the image input src ")


def frames(d):
    code, out, err = run("render", "-e", "out = color(t, 0, 0, 1);", "--size", "1x1", "--frames", "2-4",
                         "-o", "seq.####.exr", "--json", "--dump", cwd=d)
    check(code == 0 and [f["pixels"][0][0][0] for f in json.loads(out)["frames"]] == [2, 3, 4], out, err)
    code, out, err = run("render", "-e", "out = s;", "-i", "s=seq.%04d.exr", "--frames", "3-4", "-o", "copy.#.exr",
                         "--json", "--dump", cwd=d)
    check(code == 0 and [f["pixels"][0][0][0] for f in json.loads(out)["frames"]] == [3, 4], out, err)
    check(run("render", "-e", "out = t;", "--size", "1x1", "--frames", "8-10", "-o", "f.%03d.exr", cwd=d)[0] == 0)
    check(run("render", "-e", "out = t;", "--size", "1x1", "--frames", "5-5", "-o", "one.exr", cwd=d)[0] == 0)
    check(sorted(n for n in os.listdir(d) if not n.startswith("seq")) == ["copy.3.exr", "copy.4.exr", "f.008.exr",
                                                                           "f.009.exr", "f.010.exr", "one.exr"], os.listdir(d))


def threads_and_tiles(d):
    script = "float n = noise3D(x * 0.1, y * 0.1, 0.3); out = color(n, sin(x * y), x / (y + 1), 1);"
    one = dump("-e", script, "--size", "37x23", "--threads", "1", "--tile", "64x64", cwd=d)
    for tile in ("1x1", "7x3"):
        check(dump("-e", script, "--size", "37x23", "--threads", "8", "--tile", tile, cwd=d)["pixels"] == one["pixels"], tile)


def formats_and_channels(d):
    for name in ("o.tif", "o.jpg"):
        check(run("render", "-e", "out = color(0.5, 0.25, 1, 1);", "--size", "2x2", "-o", name, cwd=d)[0] == 0, name)
    subprocess.run(["oiiotool", "--pattern", "constant:color=0.25,0.5,0.75", "2x2", "3", "-d", "float",
                    "-o", os.path.join(d, "rgb.exr")], check=True, capture_output=True)
    check(dump("-e", "out = src;", "-i", "src=rgb.exr", cwd=d)["pixels"][0][0] == [0.25, 0.5, 0.75, 1])
    # Grey+alpha: grey to r, g, b. Five channels: the first four. Two: grey and alpha.
    write(d, "ga.png", png(2, 1, 4, rows=[[255, 255, 0, 0]]))
    for name, color, channels in (("five.tif", "1,0,1,1,0.5", "5"), ("two.tif", "1,0", "2")):
        subprocess.run(["oiiotool", "--pattern", "constant:color=" + color, "1x2", channels, "-d", "uint8", "-o",
                        os.path.join(d, name)], check=True, capture_output=True)
    for name, pixels in (("ga.png", [[[1, 1, 1, 1], [0, 0, 0, 0]]]), ("five.tif", [[[1, 0, 1, 1]], [[1, 0, 1, 1]]]),
                         ("two.tif", [[[1, 1, 1, 0]], [[1, 1, 1, 0]]])):
        check(dump("-e", "out = src;", "-i", "src=" + name, cwd=d)["pixels"] == pixels, name)


def sequence_all_or_nothing(d):
    # A missing frame, a frame whose header opens but whose pixels don't (a PNG cut short), a
    # cancellation in the last frame: no frame is written, the earlier files stay.
    one = image("one.exr", "out = 1;", "2x2")
    noise = read(image("noise.png", "out = color(rand(), rand(), rand(), 1);", "64x64"))
    write(d, "in.1.exr", read(one))
    write(d, "in.3.exr", read(one))
    write(d, "out.1.exr", read(SRC))
    write(d, "in.1.png", noise)
    write(d, "in.2.png", noise[:len(noise) * 6 // 10])
    before = {n: read(os.path.join(d, n)) for n in os.listdir(d)}
    for args, mentions in ((["out = s;", "-i", "s=in.#.exr", "--frames", "1-3"], "in.2.exr"),
                           (["out = s;", "-i", "s=in.#.png", "--frames", "1-2"], "in.2.png"),
                           (["float i = 0; while (t > 2) i += 1; out = i;", "--timeout", "0.5", "--size", "2x2",
                             "--frames", "1-3"], "cancelled")):
        refused(run("render", "-e", *args, "-o", "out.#.exr", "--quiet", cwd=d), 3 if mentions == "cancelled" else 2, mentions=mentions)
        check({n: read(os.path.join(d, n)) for n in os.listdir(d)} == before, args)
    write(d, "in.2.exr", read(one))
    check(run("render", "-e", "out = s;", "-i", "s=in.#.exr", "--frames", "1-3", "-o", "out.#.exr", cwd=d)[0] == 0)
    check(read(os.path.join(d, "out.1.exr")) != before["out.1.exr"] and os.path.exists(os.path.join(d, "out.3.exr")))


def refusals_keep_the_earlier_file(d):
    # With --json no report is printed for a usage or file error or a cancellation: one line.
    keep = write(d, "keep.png", read(image("keep.png", "out = 0.5;", "2x2")))
    endless = "float i = 0; while (1) { i += 1; } out = i;"
    for args, status in (([endless, "--size", "16x16", "--timeout", "0.3"], 3), (["out = s;", "-i", "s=missing.exr"], 2),
                         (["out = ;", "--size", "2x2"], 1), (["out = src;", "-i", "src=" + keep], 2)):
        code, out, err = run("render", "-e", *args, "--json", "-o", keep, cwd=d)
        if status == 1:
            check(code == 1 and err == "" and set(json.loads(out)) == {"ok", "errors"}, out, err)
        else:
            refused((code, out, err), status, mentions=None if status == 3 else args[-1][args[-1].index("=") + 1:])
            check(out == "", out)
        check(read(keep) == read(os.path.join(HERE, "keep.png")) and os.listdir(d) == ["keep.png"], args, os.listdir(d))


def usage_errors(d):
    o = ["-o", os.path.join(d, "o.png")]
    script = write(d, "s.kel", "out = 1;\n")
    cases = [["render", "-e", "out = 1;", *o], ["render", "-e", "out = s;", "-i", "s", "--size", "2x2", *o], ["check"],
             ["check", "-e", "out = 1;", "-f", "k", "-f", "k"], ["frob"], ["render", "-e"], ["print", "--bogus"],
             ["render", script, "-e", "out = 2;", "--size", "1x1", *o], ["check", os.path.join(d, "missing.kel")]]
    for args in cases:
        refused(run(*args), 2, d, ("o.png",), start="")


def bad_option_values(d):
    base = ["render", "-e", "out = 1;", "-o", os.path.join(d, "o.exr")]
    cases = [["--size", "4y4"], ["--size", "0x4"], ["--size", "2x2", "--tile", "0x8"], ["--size", "2x2", "--frames", "5-2"],
             ["--size", "2x2", "--scale-level", "99"],
             ["--size", "2x2", "--pixel-aspect", "0/1"], ["--size", "2x2", "--threads", "0"], ["--size", "2x2", "--timeout", "nan"],
             ["--size", "2x2", "-f", "k=abc"], ["--size", "2x2", "-c", "c=1,2"], 
             ["--size", "2x2", "--dump"], ["--size", "1x1", "--time", "31536000.5"], ["--size", "1x1", "--frames", "1-3"], ["--size", "1x1", "--frames", "1-3", "--time", "2"]]
    for extra in cases:
        refused(run(*base, *extra), 2, d, ("o.exr",), start="")


def help_against_the_guide(d):
    """Every command of docs/cli.md with its synopsis, every option that cli.md names for a
    command in that command's help with a description, its stated default, every exit status."""
    text = read(CLI_MD).decode()
    section = lambda title: re.search(r"^## " + re.escape(title) + r"\n(.*?)(?=^## |\Z)", text, re.S | re.M).group(1)
    rows = lambda title: [(c[0], c[1]) for c in (
        [x.strip() for x in line.strip().strip("|").split("|")] for line in section(title).splitlines()
        if line.startswith("|")) if len(c) > 1 and not set(c[0]) <= set("-: ") and c[0] not in ("option", "status")]
    name = lambda cell: re.match(r"`(-{1,2}[a-z][a-z-]*)", cell).group(1)
    synopses = {m.group(1): " ".join(m.group(0).split()) for m in re.finditer(r"^ {4}kel (\w+).*$", section("Commands"), re.M)}
    params = rows("Parameters: the node's parameter list")
    render = rows("Render options")
    statuses = [c for c, _ in rows("Errors and exit status")]
    check(len(synopses) >= 5 and len(params) >= 4 and len(render) >= 10 and statuses == ["0", "1", "2", "3", "4"],
          "cli.md changed shape")
    code, main_help, _ = run("--help")
    check(code == 0, "kel --help")
    for status in statuses:
        check(re.search(r"(?m)^\s+" + status + r"\s+\w", main_help), "exit status", status)
    line = lambda out, option: next((l for l in out.splitlines() if re.match(r"^\s+(?:-\w,)?" + re.escape(option) + r"(?![\w-])", l)), None)
    for command, synopsis in synopses.items():
        check(synopsis in main_help, synopsis)
        code, out, _ = run(command, "--help")
        check(code == 0 and synopsis in out, command)
        names = re.findall(r"(?<![\w-])(-{1,2}[a-z][a-z-]*)", synopsis)
        names += [name(c) for c, _ in params] if "[PARAMETERS]" in synopsis else []
        names += [name(c) for c, _ in render] if command == "render" else []
        for option in names:
            found = line(out, option)
            check(found and len(found.split(None, 2)) > 2, "kel", command, "--help: no description of", option)
        if command == "render":
            for cell, meaning in params + render:
                default = re.search(r"defaults?(?: to)?:?\s*`?([^`;.)]+)`?", meaning)
                check(not default or ("default" in line(out, name(cell)) and default.group(1).strip() in line(out, name(cell))), cell)
            check(re.search(r"default \d+x\d+", line(out, "--tile")) and "REQUIRED" in line(out, "-o"), "--tile and -o")


# ---- bad input -----------------------------------------------------------------------------

def png(width, height, color_type=6, rows=None):
    """A PNG of 8-bit samples; color_type 0 grey, 2 RGB, 4 grey+alpha, 6 RGBA."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    raw = b"".join(b"\0" + bytes(r) for r in rows) if rows is not None else b""
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, color_type, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(raw)) + chunk(b"IEND", b""))


def render_input(d, name):
    return run("render", "-e", "out = src;", "-i", "src=" + os.path.join(d, name), "-o", os.path.join(d, "o.exr"))


def broken_files(d):
    rng = random.Random(7)
    for ext in ("png", "tif", "exr"):
        whole = read(image("whole." + ext, "out = color(x / 16, y / 16, 0.5, 1);", "16x16"))
        cases = {"half": whole[:len(whole) // 2]}
        if ext == "png":
            cases.update({"header only": whole[:16], "empty": b"", "bad IHDR crc": whole[:29] + bytes([whole[29] ^ 0xFF]) + whole[30:]})
        if ext == "tif":
            cases["IFD past the end"] = whole[:4] + struct.pack("<I", len(whole) + 1000) + whole[8:]
        if ext == "exr":
            cases["bad version"] = whole[:4] + b"\xff\xff\xff\xff" + whole[8:]
        for case, data in cases.items():
            write(d, "bad." + ext, data)
            refused(render_input(d, "bad." + ext), 2, d, ("o.exr",), mentions="bad." + ext)
        for attempt in range(1):  # damage anywhere: refused or read, never a crash
            data = bytearray(whole)
            for _ in range(rng.randint(1, 8)):
                data[rng.randrange(len(data))] = rng.randrange(256)
            write(d, "bad." + ext, bytes(data))
            result = render_input(d, "bad." + ext)
            check(result[0] in (0, 2), ext, attempt, result)
            if result[0] == 2:
                refused(result, 2, d, ("o.exr",))
            else:
                os.remove(os.path.join(d, "o.exr"))


def not_images(d):
    write(d, "text.png", "out = 1;\n" * 10)
    os.mkdir(os.path.join(d, "folder.png"))
    write(d, "w0.png", png(0, 4, rows=[]))
    write(d, "h0.png", png(4, 0, rows=[]))
    for name in ("text.png", "folder.png", "w0.png", "h0.png"):
        refused(render_input(d, name), 2, d, ("o.exr",), mentions=name)
    refused(run("check", os.path.join(d, "folder.png")), 2)


def huge_sizes(d):
    # Headers that promise billions of pixels over a few bytes: refused before allocating.
    small = read(image("small.exr", "out = 1;", "4x3"))
    exr = bytearray(small)
    for field in (b"dataWindow\0box2i\0", b"displayWindow\0box2i\0"):
        at = exr.index(field) + len(field) + 4
        exr[at:at + 16] = struct.pack("<iiii", 0, 0, 299999, 299999)
    write(d, "huge.png", png(60000, 60000, rows=[]))
    write(d, "huge.exr", bytes(exr))
    refused(render_input(d, "huge.png"), 2, d, ("o.exr",), mentions="more than the machine's memory")
    refused(render_input(d, "huge.exr"), 2, d, ("o.exr",))
    for extra in (["--size", "999999x999999"], ["--size", "999999x9999", "--pixel-aspect", "999999/1"]):
        refused(run("render", "-e", "out = 1;", *extra, "-o", os.path.join(d, "o.exr")), 2, d, ("o.exr",))


def nan_everywhere(d):
    # NaN, infinities, -0 and FLT_MAX through every operator and built-in, on two threads.
    nan = os.path.join(d, "nan.exr")
    check(run("render", "-e", "float v = sqrt(-1); if (x > 1) v = exp(1000); if (x > 2) v = -exp(1000);"
              "if (x > 3) v = -0.0; if (x > 4) v = FLT_MAX; if (x > 5) v = 1; float w = v; if (y > 1) w = sqrt(-1);"
              "if (y > 2) w = exp(1000); out = color(v, w, -v, w);", "--size", "7x4", "-o", nan)[0] == 0)
    unary = ["sin", "cos", "tan", "asin", "acos", "atan", "sinh", "cosh", "tanh", "degrees", "radians", "exp", "log",
             "log10", "pow10", "floor", "ceil", "round", "abs", "sqrt"]
    lines = ["color c = src;", "float v = r(c);", "float w = g(c);", "float s = 0;", "color k = c;", "image i = src;"]
    lines += ["s += %s(v) + %s(w);" % (f, f) for f in unary]
    lines += ["s += %s(v, w) + %s(w, v) + %s(v, 0);" % (f, f, f) for f in ("atan2", "pow", "mod", "min", "max", "hypot")]
    lines += ["s += r(c) + g(c) + b(c) + a(c) + x(c) + y(c) + z(c) + w(c) + dot(c, k);",
              "setR(k, v); setG(k, w); setB(k, v); setA(k, w); setX(k, w); setY(k, v); setZ(k, w); setW(k, v);",
              "s += noise3D(v, w, v * 1000) + noise3D(w * FLT_MAX, v, 1) + rand();",
              "k += sample(src, v, w) + sample(src, w, v * FLT_MAX) + sample(i);",
              "s += width(src) + height(src) + xmin(i) + xmax(i) + ymin(i) + ymax(i);",
              "s += getPixelAspectRatio(src) + isSame(src, i) + width(getOutputImage());"]
    lines += ["s += (v %s w) + (w %s v) + (v %s 0);" % (op, op, op) for op in "+ - * / == != || && < > <= >= ,".split()]
    lines += ["k = k + (c %s k) + (c %s v) + (v %s c);" % (op, op, op) for op in "+-*/"]
    lines += ["s += (c == k) + (c != k);",
              "float q = v; q += w; q -= v; q *= w; q /= v; s += q + !v + -w + +v + (q++) + (q--) + (++q) + (--q);",
              "k += w; k -= c; k *= v; k /= c; k += -c;", "if (v) { s += 1; } else if (w) { s += 2; } else { s -= 1; }",
              "float n = 0; while (v > n && n < 3) { n++; }", "for (float j = v; j < 2 && j > -2; j += 1) { s += j; }",
              "out = k + color(s, s, s, s);"]
    code, out, err = run("render", write(d, "all.kel", "\n".join(lines) + "\n"), "-i", "src=" + nan, "--threads", "2",
                         "--tile", "3x2", "--json", "-o", os.path.join(d, "all.exr"))
    check(code == 0 and (json.loads(out)["width"], json.loads(out)["height"]) == (7, 4), err)


def scripts_at_the_limits(d):
    # A flat sum of a megabyte is past the tree's height limit: refused, not a stack overflow.
    script = write(d, "sum.kel", "out = 1" + " + 1" * 250000 + ";\n")
    code, out, err = run("render", script, "--size", "4x4", "-o", os.path.join(d, "o.exr"))
    check((code, out) == (1, "") and re.match(re.escape(script) + r":1:\d+: error: Error: Script too long\n", err), err)
    big = "float v = 1;\n" + ("// " + "c" * 1000 + "\n") * 1100 + "v = v + 1;\n" * 900 + "out = v;\n"
    check(dump(write(d, "big.kel", big), "--size", "4x4", cwd=d)["pixels"][0][0] == [901, 901, 901, 901])
    # The deepest nesting the parser's 1000-entry stack takes, and one more (an else if costs two).
    deepest = {"parentheses": (994, lambda n: "out = " + "(" * n + "x" + ")" * n + ";"),
               "blocks": (994, lambda n: "float v = 0;\n" + "{" * n + "v += 1;" + "}" * n + "\nout = v;"),
               "if-else": (495, lambda n: "float v = 0;\n" + "".join("if (x < %d) { v += 1; } else " % i for i in range(n))
                           + "{ v -= 1; }\nout = v;"),
               "calls": (994, lambda n: "out = " + "abs(" * n + "x" + ")" * n + ";")}
    for case, (low, make) in deepest.items():
        code, out, err = run("check", "-e", make(low + 1))
        check((code, out) == (1, "") and re.match(r"<script>:\d+:\d+: error: Error: Script too long\n", err), case, err)
        if case in ("blocks", "calls"):
            continue
        script = write(d, case + ".kel", make(low))
        code, out, err = run("print", script)
        check(code == 0 and out.startswith("main("), case, err)
        # Many small tiles on more threads than cores: most run on the pool's workers.
        check(run("render", script, "--size", "16x4", "--tile", "2x2", "--threads", "4", "-o",
                  os.path.join(d, case + ".exr"))[0] == 0, case)
    for data in (b"out = 1; // \xe9\xff\xfe\n", b"out = 1\0;\n"):
        script = write(d, "s.kel", data)
        code, _, err = run("render", script, "--size", "2x2", "-o", os.path.join(d, "o.png"))
        check(code in (0, 1), data, err)
        if code == 1:
            check(err.startswith(script + ":") and not os.path.exists(os.path.join(d, "o.png")), err)
        else:
            os.remove(os.path.join(d, "o.png"))


def unwritable_outputs(d):
    write(d, "file", "x")
    os.mkdir(os.path.join(d, "folder.exr"))
    for output in ("missing/o.exr", "file/o.exr", "folder.exr", "o.unknownext"):
        output = os.path.join(d, output)
        refused(run("render", "-e", "out = 1;", "--size", "2x2", "-o", output), 2, d, ("o.unknownext",), mentions=output)


def full_disk(d):
    # A file-size limit as a full disk: writes past it fail with EFBIG (SIGXFSZ ignored).
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))
    keep = write(d, "keep.exr", read(SRC))
    before = read(keep)
    for name in ("keep.exr", "new.tif"):
        refused(run("render", "-e", "out = color(rand(), rand(), rand(), 1);", "--size", "256x256", "-o",
                    os.path.join(d, name), preexec_fn=limit), 2, d, ("new.png", "new.tif"))
    check(read(keep) == before)


GROUPS = {
    "commands": [tools_and_version, check_messages, print_command, parameters, json_report, rows_bottom_up,
                 scale_aspect_time, pixel_aspect_files, size_ignored_with_an_input, frames, threads_and_tiles,
                 sequence_all_or_nothing, refusals_keep_the_earlier_file, usage_errors, help_against_the_guide],
    "bad-input": [formats_and_channels, bad_option_values, broken_files, not_images, huge_sizes, nan_everywhere,
                  scripts_at_the_limits, unwritable_outputs, full_disk],
}


def run_case(case):
    start = time.monotonic()
    with tempfile.TemporaryDirectory() as d:
        try:
            case(d)
            failure = None
        except Exception as e:  # noqa: BLE001 - every failure is reported with its case
            failure = "%s: %s: %s" % (case.__name__, type(e).__name__, e)
    print("%-32s %5.1f s %s" % (case.__name__, time.monotonic() - start, "FAILED" if failure else "ok"), flush=True)
    return failure


if __name__ == "__main__":
    KEL, CLI_MD, group = os.path.abspath(sys.argv[1]), sys.argv[2], sys.argv[3]
    with tempfile.TemporaryDirectory() as shared:
        HERE = shared
        SRC = image("src.exr", "out = color(x, y, 0.5, 1);", "4x3")
        with concurrent.futures.ThreadPoolExecutor(max_workers=3) as pool:
            failures = [f for f in pool.map(run_case, GROUPS[group]) if f]
    for failure in failures:
        print("FAILED", failure[:3000])
    print("%d cases, %d failed" % (len(GROUPS[group]), len(failures)))
    sys.exit(1 if failures else 0)
