"""The module `kel` against the command: same pixels, same messages; bad arguments refused with
the right exception; renders from two threads at once; an interrupt cancels an endless render.
The command is KEL_COMMAND, else bin/kel of the build tree that holds the module."""
import json
import os
import re
import signal
import subprocess
import threading
import time

import numpy as np
import pytest

import kel

KEL = os.environ.get("KEL_COMMAND") or os.path.join(os.path.dirname(kel.__file__), "..", "bin", "kel")
ENDLESS = "while (1) { }\nout = color(1, 1, 1, 1);"
HEAVY = "float i = 0; while (i < n) { i = i + 1; }\nout = color(x / i, y, t, 1);"


def command(*args):
    return subprocess.run([KEL, *args], capture_output=True, text=True, timeout=60)


def command_pixels(*args):
    p = command("render", *args, "--json", "--dump")
    assert p.returncode == 0, p.stderr
    rows = json.loads(p.stdout)["pixels"]  # bottom row first; "nan", "inf" as strings
    return np.array([[[float(c) for c in px] for px in row] for row in rows], dtype=np.float32)[::-1]


def random_image(height, width, seed=1):
    image = np.random.default_rng(seed).uniform(-1, 2, (height, width, 4)).astype(np.float32)
    image[0, 0] = [np.nan, np.inf, -np.inf, 0.5]
    return image


# script, floats, render options, the same options for the command
SAME_AS_COMMAND = [
    ("out = src * gain;", {"gain": 1.5}, {}, []),
    ("out = sample(src, x + 0.5 * sin(y), y + 0.25) + color(x, y, t, 1);", {}, {"time": 2}, ["--time", "2"]),
    ("out = src + color(x, y, 0, 1);", {}, {"tile": (2, 2)}, ["--tile", "2x2"]),
    ("out = src + color(x, y, 0, 1);", {}, {"tile": (1, 1)}, ["--tile", "1x1"]),
    ("out = sample(src, x, y) + color(x, y, 0, 1);", {}, {"scale_level": 1, "pixel_aspect": 2},
     ["--scale-level", "1", "--pixel-aspect", "2/1"]),
]


@pytest.mark.parametrize("script, floats, options, flags", SAME_AS_COMMAND)
def test_pixels_are_the_commands(tmp_path, script, floats, options, flags):
    src = str(tmp_path / "src.exr")
    kel.write(src, random_image(5, 7))
    out = kel.compile(script, inputs=["src"], floats=floats).render(src=kel.read(src), **floats, **options)
    values = [arg for name, value in floats.items() for arg in ("-f", f"{name}={value}")]
    expected = command_pixels("-e", script, "-i", "src=" + src, *values, *flags, "-o", str(tmp_path / "out.exr"))
    np.testing.assert_array_equal(out, expected)
    assert out.dtype == np.float32 and out.flags.c_contiguous


def test_without_inputs_the_size_is_given(tmp_path):
    script = "out = color(x, y, t, 1);"
    out = kel.compile(script, inputs=[], floats={}).render(size=(4, 3), time=0.5)
    np.testing.assert_array_equal(out, command_pixels("-e", script, "--size", "4x3", "--time", "0.5",
                                                      "-o", str(tmp_path / "o.exr")))


@pytest.mark.parametrize("script", ["out = foo;", "float = ;\nout = 1;", "out = src;\nfloat a = b;"])
def test_errors_are_those_of_check(script):
    with pytest.raises(kel.ScriptError) as refused:
        kel.compile(script, inputs=[], floats={})
    report = json.loads(command("check", "-e", script, "--json").stdout)
    assert refused.value.errors == [(e["line"], e["message"]) for e in report["errors"]]


def test_the_guides_example_runs(tmp_path, monkeypatch, capsys):
    with open(os.path.join(os.path.dirname(__file__), "..", "..", "docs", "python.md")) as f:
        example = re.search(r"```python\n(.*?)```", f.read(), re.S).group(1)
    monkeypatch.chdir(tmp_path)
    kel.write("plate.exr", random_image(6, 8))
    exec(example, {})
    assert sorted(os.listdir()) == ["graded.0000.exr", "graded.0001.exr", "graded.0002.exr", "plate.exr"]
    assert "gian" in capsys.readouterr().out


def test_declared_parameters_are_the_defaults():
    script = kel.compile('// @input plate\n// @param gain 2 [0, 4]\nout = plate * gain;')
    assert (script.inputs, script.floats) == (["plate"], {"gain": 2.0})
    np.testing.assert_array_equal(script.render(plate=np.ones((2, 3, 4), np.float32))[0, 0], [2, 2, 2, 2])


GAIN = kel.compile("out = src * gain;", inputs=["src"], floats={"gain": 1.0})
RGBA = np.ones((2, 3, 4), np.float32)


@pytest.mark.parametrize("call, error, words", [
    (lambda: GAIN.render(), TypeError, "missing the image input 'src'"),
    (lambda: GAIN.render(src=RGBA, bias=1), TypeError, "unexpected keyword argument 'bias'"),
    (lambda: GAIN.render(src=RGBA.astype(np.uint8)), TypeError, "a / 255.0"),
    (lambda: GAIN.render(src="plate.exr"), TypeError, "floating-point pixels"),
    (lambda: GAIN.render(src=np.ones((2, 3, 5), np.float32)), ValueError, "5 channels"),
    (lambda: GAIN.render(src=np.ones((0, 3, 4), np.float32)), ValueError, "empty"),
    (lambda: GAIN.render(src=np.ones(4, np.float32)), ValueError, "shape"),
    (lambda: GAIN.render(src=RGBA, gain="2"), TypeError, "gain must be a number"),
    (lambda: GAIN.render(src=RGBA, tile=(0, 16)), ValueError, "positive W and H"),
    (lambda: GAIN.render(src=RGBA, tile=16), TypeError, "pair"),
    (lambda: GAIN.render(src=RGBA, scale_level=17), ValueError, "from 0 to 16"),
    (lambda: GAIN.render(src=RGBA, threads=1.5), TypeError, "integer"),
    (lambda: GAIN.render(src=RGBA, time=float("nan")), ValueError, "time"),
    (lambda: GAIN.render(src=RGBA, pixel_aspect=0), ValueError, "pixel aspect"),
    (lambda: GAIN.render(src=RGBA, size=(4, 4)), ValueError, "image input 'src'"),
    (lambda: kel.compile("out = 1;", inputs=[], floats={}).render(), ValueError, "size=(width, height)"),
    (lambda: kel.compile("out = 1;", inputs=["time"], floats={}), ValueError, "option of render"),
    (lambda: kel.compile("out = 1;", inputs=["src"], floats={"src": 1}), ValueError, "named once"),
    (lambda: kel.compile("out = 1;", inputs="src"), TypeError, "incompatible"),
    (lambda: kel.read("/nonexistent/plate.exr"), OSError, "/nonexistent/plate.exr"),
    (lambda: kel.write("/nonexistent/out.exr", RGBA), OSError, "no directory"),
    (lambda: kel.write("out.unknownformat", RGBA), OSError, "out.unknownformat"),
])
def test_bad_arguments_are_refused(call, error, words):
    with pytest.raises(error) as refused:
        call()
    assert words in str(refused.value)


grey = np.arange(6, dtype=np.float32).reshape(2, 3)
planes = np.arange(24, dtype=np.float64).reshape(2, 3, 4)


@pytest.mark.parametrize("src, expected", [
    (grey, np.stack([grey, grey, grey, np.ones_like(grey)], -1)),
    (grey[..., None], np.stack([grey, grey, grey, np.ones_like(grey)], -1)),
    (np.stack([grey, grey + 1], -1), np.stack([grey, grey, grey, grey + 1], -1)),
    (planes[..., :3], np.concatenate([planes[..., :3], np.ones((2, 3, 1))], -1)),
    (planes, planes),
    (planes.astype(np.float16), planes),
    (np.asfortranarray(planes), planes),
    (np.repeat(planes.astype(np.float32), 2, axis=1)[:, ::2], planes),
])
def test_other_arrays_are_converted(src, expected):
    out = kel.compile("out = src;", inputs=["src"], floats={}).render(src=src)
    np.testing.assert_array_equal(out, np.asarray(expected, np.float32))


@pytest.mark.parametrize("keep", [lambda out: out, lambda out: out[1:, ::2]], ids=["result", "view"])
def test_a_result_keeps_its_pixels_through_later_renders(keep):
    script = kel.compile("out = src * gain;", inputs=["src"], floats={"gain": 1})
    src = random_image(6, 9)
    kept = keep(script.render(src=src, gain=2))
    expected = kept.copy()
    for gain in (3, 4):  # frames of the same size, each dropped at once
        script.render(src=src, gain=gain)
    np.testing.assert_array_equal(kept, expected)


def test_two_threads_render_at_once_and_release_the_gil():
    script = kel.compile(HEAVY, inputs=[], floats={"n": 100000})  # some tenths of a second a render
    alone = script.render(size=(96, 64), threads=1)
    results, ticks = [], 0
    threads = [threading.Thread(target=lambda: results.append(script.render(size=(96, 64), threads=1)))
               for _ in range(2)]
    for t in threads:
        t.start()
    while any(t.is_alive() for t in threads):
        ticks += 1  # Python runs while both render
        time.sleep(0.001)
    assert len(results) == 2 and ticks > 10
    for out in results:
        np.testing.assert_array_equal(out, alone)


def test_an_interrupt_cancels_only_the_main_threads_render():
    endless = kel.compile(ENDLESS, inputs=[], floats={})
    heavy = kel.compile(HEAVY, inputs=[], floats={"n": 200000})  # still rendering when the interrupt comes
    other = []
    worker = threading.Thread(target=lambda: other.append(heavy.render(size=(96, 64), threads=1)))
    worker.start()
    threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()
    start = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        endless.render(size=(64, 64))
    assert time.monotonic() - start < 1.3
    worker.join()
    np.testing.assert_array_equal(other[0], heavy.render(size=(96, 64), threads=1))
