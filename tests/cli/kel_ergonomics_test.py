#!/usr/bin/env python3
"""`kel` as an artist meets it: parameters declared in the script, messages that point at the
fault with a caret and a hint, help and version, scripts from standard input, frame lists, pixel
aspect decimals, plug-ins beside a linked executable, and progress lines in a log.
Usage: kel_ergonomics_test.py KEL_BINARY"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

KEL = None
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def run(*args, stdin=None, cwd=None, kel=None, env=None):
    p = subprocess.run([kel or KEL, *args], input=stdin, capture_output=True, text=True, cwd=cwd, env=env, timeout=120)
    return p.returncode, p.stdout, p.stderr


class KelErgonomics(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name

    def tearDown(self):
        self.tmp.cleanup()

    def write(self, name, text):
        with open(os.path.join(self.dir, name), "w") as f:
            f.write(text)
        return os.path.join(self.dir, name)

    def pixel(self, *args):
        code, out, err = run("render", *args, "--json", "--dump", "-o", "o.exr", cwd=self.dir)
        self.assertEqual(code, 0, err)
        return json.loads(out)["pixels"][0][0], err

    # --- declarations -----------------------------------------------------------------------
    def test_declarations_read_or_reported_with_line_and_column(self):
        good = [  # declaration -> (kind, label, default, range)
            ('// @input src "Plate"', ("image", "Plate", None, None)),
            ("//@param gain", ("float", None, None, None)),
            ('\t// @param gain -0.5 [-1, 1.5] "Gain, linear"\r', ("float", "Gain, linear", -0.5, [-1, 1.5])),
            ('// @param gain [0, 4] "G"', ("float", "G", None, [0, 4])),
            ("// @output res", ("output", None, None, None)),
        ]
        for line, (kind, label, default, range_) in good:
            code, out, err = run("params", "-e", "out = 1;\n" + line + "\n")
            self.assertEqual((code, err), (0, ""), line)
            p = json.loads(out)["parameters"][0]
            self.assertEqual((p["kind"], p["label"], p["default"], p["range"], p["line"]), (kind, label, default, range_, 2))
        code, out, _ = run("params", "-e", "// @todo later\n// @author me\nout = 1;")  # the script's own notes
        self.assertEqual((code, json.loads(out)), (0, {"parameters": [], "problems": []}))
        bad = [  # script -> (line, column, message)
            ("// @param gain 1.5 [4, 0]", (1, 20, "the range [4, 0] is empty")),
            ("// @param gain 5 [0, 1]", (1, 16, "the default 5 is outside the range [0, 1]")),
            ("// @parm gain", (1, 4, "unknown declaration @parm")),
            ("// @param gain x", (1, 16, "@param reads NAME")),
            ("// @param 9lives", (1, 11, "@param reads NAME")),
            ('// @input src "Plate', (1, 15, "@input reads NAME")),
            ("// @output out 1", (1, 16, "@output reads NAME")),
            ("// @input a\n// @param a", (2, 4, "a is already declared at line 1")),
            ("// @output o\n// @output p", (2, 4, "the output is already declared at line 1")),
        ]
        for script, (line, column, message) in bad:
            code, out, err = run("params", "-e", script)
            self.assertEqual(code, 2, script)
            problem = json.loads(out)["problems"][0]
            self.assertEqual((problem["line"], problem["column"]), (line, column), script)
            self.assertTrue(problem["message"].startswith(message), problem)
            self.assertTrue(err.startswith(f"<script>:{line}:{column}: error: {message}"), err)
            code, _, err = run("check", "-e", script + "\nout = 1;")
            self.assertEqual(code, 2, script)  # the command refuses before compiling

    def test_declared_parameters_make_the_parameter_list(self):
        self.pixel("-e", "out = color(0.25, 0.5, 0.75, 1);", "--size", "1x1")  # o.exr, an image input below
        script = ('// @input src "Plate"\n// @param gain 1.5 [0, 4]\n// @param lift\n// @output res\n'
                  "res = color(r(src) * gain + lift, lift, 0, 1);\n")
        grade = self.write("grade.kel", script)
        os.rename(os.path.join(self.dir, "o.exr"), os.path.join(self.dir, "plate.exr"))
        rows = [  # flags -> (red, green, stderr must hold)
            ([], (0.375, 0, "lift has no value and its declaration (line 3) no default: 0 is used; write -f lift=VALUE")),
            (["-f", "lift=0.5"], (0.875, 0.5, None)),
            (["-f", "gain=2", "-f", "lift=0"], (0.5, 0, None)),
            (["-f", "gain", "-f", "lift=0"], (0.375, 0, None)),  # no value: the declared default, silently
            (["-f", "gain=8", "-f", "lift=0"], (2, 0, "gain = 8 is outside the range [0, 4] declared at line 2")),
            (["--quiet"], (0.375, 0, None)),
        ]
        for flags, (red, green, warning) in rows:
            px, err = self.pixel(grade, "-i", "src=plate.exr", *flags)
            self.assertEqual(px[:2], [red, green], flags)
            self.assertEqual(err, f"kel: warning: {warning}\n" if warning else "", flags)
        # An undeclared flag works as always; --out overrides the declared output.
        self.assertEqual(self.pixel("-e", "// @param k 2\nout = color(k, j, 0, 1);", "-f", "j=3", "--size", "1x1")[0][:2], [2, 3])
        self.assertEqual(run("check", "-e", "// @output res\nout = 1;", "--out", "out")[0], 0)
        self.assertEqual(run("check", grade)[0], 0)  # no flag needed to check
        for flags, hint in ([[], "add -i src=FILE"], [["-i", "src=plate.exr", "-f", "src=1"], "give it with -i src=FILE"],
                            [["-i", "src=plate.exr", "-i", "gain=plate.exr"], "give it with -f gain=VALUE"]):
            code, _, err = run("render", grade, *flags, "-o", "x.exr", cwd=self.dir)
            self.assertEqual(code, 2, flags)
            self.assertIn(hint, err)
        self.assertFalse(os.path.exists(os.path.join(self.dir, "x.exr")))

    # --- messages ---------------------------------------------------------------------------
    def test_messages_point_at_the_token_with_a_hint(self):
        rows = [  # script, flags -> line, message, the text the caret must stand in, notes
            ("out = colr(1, 1, 1, 1);", [], 1, "Function undefined : colr", "colr", ["did you mean `color`?"]),
            ("out = color(1, 1, 1);", [], 1, "No overloaded function for 'color' match the argument list", "color",
             ["`color` takes four arguments: color(float, float, float, float)"]),
            ("out = color(hypot(1), 0, 0, 1);", [], 1, "No overloaded function for 'hypot' match the argument list",
             "hypot", ["`hypot` takes two arguments: hypot(float, float)"]),
            ("float t = 2;\nout = color(t, t, t, 1);", [], 1, "Variable already defined: t", "t",
             ["`t` is the time; choose another name"]),
            ("out = color(gian, 0, 0, 1);", ["-f", "gain"], 1, "Variable not defined: gian", "gian", ["did you mean `gain`?"]),
            ("float k = 1;\nout = color(offset, k, 0, 1);", [], 2, "Variable not defined: offset", "offset",
             ["a parameter is given with -f offset=VALUE (-i offset=FILE for an image), or declared in the script: "
              "// @param offset 0"]),
            ("float a = 1e-3;\nout = color(a, a, a, 1);", [], 1, "Syntax Error: Invalid statement, expected ;", "1e-3",
             ["numbers have no exponent: write 0.001"]),
            ("float a = 2.5E+2 ;", [], 1, "Syntax Error: Invalid statement, expected ;", "2.5E+2",
             ["numbers have no exponent: write 250"]),
            ("float a = x % 2;", [], 1, "Syntax Error: Invalid statement, expected ;", "%", ["KEL has no `%`: use mod(a, b)"]),
            ("float a = x > 1 ? 1 : 0; // why?", [], 1, "Syntax Error: Invalid statement, expected ;", "?",
             ["KEL has no `?:`: use if/else"]),
            ("if (x > 1) {\n\tout = color(1, 1, 1, 1); // done\n\n", [], 2, "Syntax Error: Invalid statement block", None,
             ["the script ends here: a `;` or a `}` may be missing"]),
        ]
        for script, flags, line, message, token, notes in rows:
            code, _, err = run("check", "-e", script, *flags)
            self.assertEqual(code, 1, script)
            lines = err.splitlines()
            m = re.match(r"^<script>:(\d+):(\d+): error: (.*)$", lines[0])
            self.assertTrue(m, err)
            self.assertEqual((int(m.group(1)), m.group(3)), (line, message), script)
            column = int(m.group(2)) - 1
            source = script.split("\n")[line - 1]
            self.assertEqual(lines[1], source)
            self.assertEqual(lines[2].index("^"), column, err)  # tabs are kept, so index == column
            if token:
                start = re.search(r"(?<!\w)" + re.escape(token) + r"(?!\w)", source).start()
                self.assertTrue(start <= column < start + len(token), (script, err))
            else:
                self.assertEqual(column, len(source.split("//")[0].rstrip()), err)  # just after the last word
            self.assertEqual(lines[3:], ["note: " + n for n in notes], script)
        # A missing `;` seen at the next statement: the hint names the line that lacks it.
        err = run("check", "-e", "float a = 1\n\n// a remark\nout = a;")[2]
        self.assertIn("note: a `;` may be missing at the end of line 1", err.splitlines())
        # Warnings, and messages about no line.
        self.assertEqual(run("check", "-e", "void f(output color out) { out = 1; }")[2].splitlines()[::2],
                         ["<script>:1:6: warning: Function main is not found", "     ^"])
        self.assertEqual(run("check", "-e", "")[2], "<script>: error: Error: The script is empty\n")

    # --- the command ------------------------------------------------------------------------
    def test_help_and_version(self):
        with open(os.path.join(SOURCE, "CMakeLists.txt")) as f:
            version = re.search(r"project\(KEL VERSION ([\d.]+)", f.read()).group(1)
        rows = [  # args -> exit status, the stream that speaks, a text it holds
            ([], 2, "err", "usage: kel COMMAND"),
            (["--help"], 0, "out", "Subcommands:"),
            (["help"], 0, "out", "Subcommands:"),
            (["help", "render"], 0, "out", "--pixel-aspect"),
            (["render", "--help"], 0, "out", "--pixel-aspect"),
            (["help", "nothing"], 2, "err", "no command 'nothing'"),
            (["foo"], 2, "err", "unknown command 'foo'"),
            (["--version"], 0, "out", "kel " + version),
            (["version"], 0, "out", "kel: " + version + "\nlibrary: libZtkelZttool\n"),
        ]
        for args, status, stream, text in rows:
            code, out, err = run(*args)
            self.assertEqual(code, status, args)
            self.assertIn(text, out if stream == "out" else err, args)
            self.assertEqual(out if stream == "err" else err, "", args)

    def test_script_from_standard_input_and_print_ends_its_line(self):
        code, out, err = run("print", "-", stdin="out = x;\n")
        self.assertEqual(code, 0, err)
        self.assertTrue(out.endswith("}\n"), out)
        self.assertEqual(run("print", "-e", "out = x;")[1], out)
        code, _, err = run("check", "-", stdin="out = ;\n")
        self.assertEqual(code, 1)
        self.assertTrue(err.startswith("<stdin>:1:"), err)

    def test_option_values(self):
        base = ["-e", "out = color(x, t, 0, 1);", "--size", "2x1", "--json", "--dump"]
        def pixels(*extra):
            code, out, err = run("render", *base, *extra, cwd=self.dir)
            self.assertEqual(code, 0, (extra, err))
            report = json.loads(out)
            return [f["pixels"][0][1][:2] for f in report.get("frames", [report])]
        self.assertEqual(pixels("--pixel-aspect", "1.5", "-o", "a.exr"), pixels("--pixel-aspect", "3/2", "-o", "a.exr"))
        self.assertEqual(pixels("--pixel-aspect", "0.25", "-o", "a.exr"), [[0.25, 0]])
        for frames, times in (("1-10x4", [1, 5, 9]), ("3,1,7", [3, 1, 7]), ("-2--1,4-6x2", [-2, -1, 4, 6])):
            self.assertEqual(pixels("--frames", frames, "-o", "s.#.exr"), [[1, t] for t in times], frames)
        bad = [["--pixel-aspect", "1."], ["--pixel-aspect", "0.0"], ["--pixel-aspect", "0.0000001"],
               ["--frames", "1,1"], ["--frames", "1-5x0"], ["--frames", "1,,2"], ["--frames", "1-3x"],
               ["--seed", "-1"], ["--seed", "x"], ["-o", "s.####.exr"], ["-o", "s.%04d.exr", "--time", "3"]]
        for extra in bad:
            code, _, err = run("render", *base, "-o", "s.#.exr", *extra, cwd=self.dir)
            self.assertEqual((code, len(err.splitlines())), (2, 1), (extra, err))
        self.assertIn("add --frames", run("render", *base, "-o", "s.####.exr", cwd=self.dir)[2])
        self.assertEqual(sorted(os.listdir(self.dir)), ["a.exr"] + ["s.%d.exr" % n for n in (-1, -2, 1, 3, 4, 5, 6, 7, 9)])

    def test_plugins_beside_the_real_executable(self):
        env = {k: v for k, v in os.environ.items() if k != "KEL_PLUGIN_PATH"}
        link = os.path.join(self.dir, "kel")
        os.symlink(os.path.abspath(KEL), link)
        code, out, err = run("tools", kel=link, env=env)
        self.assertEqual(code, 0, err)
        self.assertIn("KEL\t", out)
        copy = os.path.join(self.dir, "copy", "kel")
        os.makedirs(os.path.dirname(copy))
        shutil.copy(KEL, copy)
        code, _, err = run("tools", kel=copy, env=env)
        self.assertEqual(code, 2)
        self.assertIn("KEL_PLUGIN_PATH", err)

    def test_progress_lines_when_standard_error_is_not_a_terminal(self):
        code, _, err = run("render", "-e", "out = t;", "--size", "4x4", "--frames", "2-4", "-o", "f.#.exr", cwd=self.dir)
        self.assertEqual(code, 0, err)
        lines = err.splitlines()
        self.assertEqual(len(lines), 3, err)
        for n, line in enumerate(lines):
            self.assertRegex(line, rf"^kel: frame {n + 2} \({n + 1} of 3\) rendered in \d+\.\d\d s: f\.{n + 2}\.exr$")
        for quiet in ([], ["--quiet"]):
            code, _, err = run("render", "-e", "out = t;", "--size", "4x4", "-o", "one.exr", *quiet, cwd=self.dir)
            self.assertEqual((code, err), (0, ""))
        self.assertEqual(run("render", "-e", "out = t;", "--size", "4x4", "--frames", "1-2", "--quiet", "-o", "q.#.exr",
                             cwd=self.dir)[2], "")

    def test_progress_bar_on_a_terminal(self):
        import pty
        leader, follower = pty.openpty()
        script = "float s = 0; for (float i = 0; i < 200; i++) { s += sin(x * i + y); } out = color(s, 0, 0, 1);"
        p = subprocess.Popen([KEL, "render", "-e", script, "--size", "800x800", "--frames", "1-3", "-o", "p.#.exr"],
                             stderr=follower, stdout=subprocess.DEVNULL, cwd=self.dir)
        os.close(follower)
        data = b""
        while True:
            try:
                chunk = os.read(leader, 4096)
            except OSError:  # the render ended and closed the terminal
                break
            if not chunk:
                break
            data += chunk
        os.close(leader)
        self.assertEqual(p.wait(timeout=120), 0)
        bars = [b for b in data.decode().replace("\x1b[K", "").split("\r") if b]
        self.assertTrue(bars, data)
        self.assertTrue(all(a != b for a, b in zip(bars, bars[1:])), bars)  # drawn only when it changes
        self.assertRegex(bars[-1], r"^frame [123]/3 \[[# ]{30}\] +\d+%  [\d.]+ [kMG]?px/s  \d+:\d\d left$")
        self.assertNotIn("kel: frame", data.decode())  # the lines are for logs, the bar for people


if __name__ == "__main__":
    KEL = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=1)
