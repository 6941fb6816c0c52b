#!/usr/bin/env python3
"""The live page's latency, measured in the browser: from the last keystroke to the new proxy
picture on the screen, over a 2048x1556 plate and the E2 grade (bench/effects/E2_grade.kel), in
headless Chromium (selenium, as the page's tests drive it). Each keystroke changes a number of
the script (types a digit, then deletes it), from a quiet page: the full-resolution render that
follows the previous one has finished. Prints the median and the 90th percentile of the whole
and of its parts: keystroke to request, request to response (of which the server's compiling and
rendering; the rest is the transfer of the float pixels and the hand-overs between threads and
processes), response to picture on screen (conversion to 8 bits and drawing).
Usage: bench/live_latency.py [BUILD_DIR] [KEYSTROKES]   (default: build, 30)"""
import os
import statistics
import subprocess
import sys
import tempfile

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "..", "tests", "live"))
from live_support import LiveServer, chrome, status, wait  # noqa: E402
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402

build = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "build")
keystrokes = int(sys.argv[2]) if len(sys.argv) > 2 else 30
kel = os.path.abspath(os.path.join(build, "bin", "kel"))

# The keystroke's time is taken by the page itself, as it sees the key.
MARK_KEYSTROKES = """
window.lastKey = 0;
document.addEventListener('keydown', () => { window.lastKey = performance.now(); }, true);"""


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(p / 100 * (len(ordered) - 1))))]


with tempfile.TemporaryDirectory() as folder:
    subprocess.run([kel, "render", "-e", "out = color(x / 2048, y / 1556, noise3D(x / 64, y / 64, 0), 1);",
                    "--size", "2048x1556", "-o", "plate.exr"], cwd=folder, check=True)
    with open(os.path.join(here, "effects", "E2_grade.kel")) as f, open(os.path.join(folder, "grade.kel"), "w") as g:
        g.write(f.read())
    server = LiveServer(kel, ["grade.kel", "-i", "src=plate.exr"], folder)
    driver = chrome()
    try:
        driver.get(server.url)
        wait(driver, lambda: status(driver).startswith("full resolution"))
        driver.execute_script(MARK_KEYSTROKES)
        # The cursor after the first number of the grade, "1.1".
        driver.execute_script("""
            const view = window.kelLive.editor;
            view.focus();
            view.dispatch({selection: {anchor: view.state.doc.toString().indexOf('1.1') + 3}});""")
        rows = []
        for i in range(keystrokes):
            ActionChains(driver).send_keys("5" if i % 2 == 0 else Keys.BACKSPACE).perform()
            shown = wait(driver, lambda: driver.execute_script(
                "const s = window.kelLive.shown; return s && s.started >= window.lastKey && s.scaleLevel > 0 ? "
                "[window.lastKey, s.started, s.received, s.at, s.scaleLevel, s.server] : null;"))
            key, started, received, at, level, rendering = shown
            rows.append((at - key, started - key, received - started, rendering, at - received))
            wait(driver, lambda: status(driver).startswith("full resolution"))
    finally:
        driver.quit()
        server.stop()

names = ["keystroke to picture", "keystroke to request", "request to response",
         "of which compiling and rendering", "response to picture"]
print(f"kel live, 2048x1556 plate, E2 grade, proxy at scale level {level}, {keystrokes} keystrokes, "
      f"{os.cpu_count()} cores, load average {os.getloadavg()[0]:.1f}")
print("| | median ms | p90 ms |\n|---|---|---|")
for column, name in enumerate(names):
    values = [row[column] for row in rows]
    print(f"| {name} | {statistics.median(values):.1f} | {percentile(values, 90):.1f} |")
