#!/usr/bin/env python3
"""`kel --help` and each command's help against docs/cli.md (the command's contract): every
command is listed with its synopsis, every option that cli.md names for a command is in that
command's help, every default that cli.md states is shown beside its option, and every exit
status is explained. Usage: kel_help_test.py KEL_BINARY CLI_MD KEL_COMMANDS_CPP"""
import re
import subprocess
import sys
import unittest

KEL = CLI_MD = COMMANDS_CPP = None


def help_text(*command):
    p = subprocess.run([KEL, *command, "--help"], capture_output=True, text=True, timeout=60)
    return p.returncode, p.stdout


def section(text, title):
    """The text of the cli.md section `## title`."""
    match = re.search(r"^## " + re.escape(title) + r"\n(.*?)(?=^## |\Z)", text, re.S | re.M)
    assert match, f"cli.md has no section {title}"
    return match.group(1)


def table_rows(text):
    """(first cell, second cell) of each row of the markdown tables in `text`."""
    rows = []
    for line in text.splitlines():
        cells = [c.strip() for c in line.strip().strip("|").split("|")]
        if line.startswith("|") and len(cells) >= 2 and not set(cells[0]) <= set("-: "):
            rows.append((cells[0], cells[1]))
    return rows[1:] if rows and rows[0][0] in ("option", "status") else rows


def option_name(cell):
    """`-i NAME[=FILE]` -> -i"""
    return re.match(r"`(-{1,2}[a-z][a-z-]*)", cell).group(1)


class Contract:
    """What cli.md says: the commands' synopses, the options of each, their defaults, the statuses."""

    def __init__(self, text):
        commands = section(text, "Commands")
        self.synopses = {m.group(1): " ".join(m.group(0).split()) for m in re.finditer(r"^ {4}kel (\w+).*$", commands, re.M)}
        self.parameters = [option_name(c) for c, _ in table_rows(section(text, "Parameters: the node's parameter list"))]
        render_rows = table_rows(section(text, "Render options"))
        self.render_options = [option_name(c) for c, _ in render_rows]
        self.defaults = {}
        for cell, meaning in table_rows(section(text, "Parameters: the node's parameter list")) + render_rows:
            match = re.search(r"defaults?(?: to)?:?\s*`?([^`;.)]+)`?", meaning)
            if match:
                self.defaults[option_name(cell)] = match.group(1).strip()
        self.statuses = [int(c) for c, _ in table_rows(section(text, "Errors and exit status"))]

    def options(self, command):
        synopsis = self.synopses[command]
        names = re.findall(r"(?<![\w-])(-{1,2}[a-z][a-z-]*)", synopsis)
        if "[PARAMETERS]" in synopsis:
            names += self.parameters
        if "[OPTIONS]" in synopsis:
            names += self.render_options
        return list(dict.fromkeys(names))


def option_line(help_output, name):
    """The help line that lists option `name`, or None."""
    for line in help_output.splitlines():
        if re.match(r"^\s+(?:-\w,)?" + re.escape(name) + r"(?![\w-])", line):
            return line
    return None


class KelHelp(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(CLI_MD, encoding="utf-8") as f:
            cls.contract = Contract(f.read())

    def test_contract_read(self):
        # The parsing of cli.md itself: a failure here means cli.md changed shape.
        self.assertEqual(sorted(self.contract.synopses), ["check", "help", "params", "print", "render", "submit", "tools", "version"])
        self.assertIn("--dump", self.contract.render_options)
        self.assertIn("--out", self.contract.parameters)
        self.assertEqual(self.contract.statuses, [0, 1, 2, 3, 4])
        self.assertIn("--time", self.contract.defaults)

    def test_main_help_lists_every_command_with_its_synopsis(self):
        code, out = help_text()
        self.assertEqual(code, 0)
        for command, synopsis in self.contract.synopses.items():
            self.assertRegex(out, r"(?m)^\s+" + command + r"\s", command)
            self.assertIn(synopsis, out, command)

    def test_main_help_explains_every_exit_status(self):
        _, out = help_text()
        for status in self.contract.statuses:
            self.assertRegex(out, r"(?m)^\s+" + str(status) + r"\s+\w", f"exit status {status}")

    def test_each_command_help_lists_its_options(self):
        for command in self.contract.synopses:
            with self.subTest(command=command):
                code, out = help_text(command)
                self.assertEqual(code, 0)
                self.assertIn(self.contract.synopses[command], out)
                for name in self.contract.options(command):
                    line = option_line(out, name)
                    self.assertIsNotNone(line, f"kel {command} --help does not list {name}")
                    self.assertGreater(len(line.split(None, 2)), 2, f"{name} has no description")

    def test_defaults_are_shown(self):
        for name, default in self.contract.defaults.items():
            command = "render" if name in self.contract.options("render") else "check"
            with self.subTest(option=name):
                line = option_line(help_text(command)[1], name)
                self.assertIsNotNone(line)
                self.assertIn("default", line)
                self.assertIn(default, line)

    def test_tile_default_is_the_one_used(self):
        # cli.md leaves the tile size to the host: the help must tell the one kelFrame.h uses.
        with open(COMMANDS_CPP, encoding="utf-8") as f:
            source = f.read()
        width = re.search(r"kDefaultTileWidth = (\d+)", source).group(1)
        height = re.search(r"kDefaultTileHeight = (\d+)", source).group(1)
        line = option_line(help_text("render")[1], "--tile")
        self.assertIn(f"default {width}x{height}", line)

    def test_render_marks_output_required(self):
        line = option_line(help_text("render")[1], "-o")
        self.assertIn("REQUIRED", line)


if __name__ == "__main__":
    KEL, CLI_MD, COMMANDS_CPP = sys.argv[1:4]
    unittest.main(argv=[sys.argv[0], "-v"])
