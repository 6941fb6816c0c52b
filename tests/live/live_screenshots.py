#!/usr/bin/env python3
"""Screenshots of the live page for docs/live.md and the README, taken in headless Chromium over
the gallery's plate: docs/live/page.png (the grade with its sliders and the probe) and
docs/live/error.png (a mistake marked at its line, the last good picture kept).
Usage: tests/live/live_screenshots.py BUILD_DIR"""
import os
import shutil
import sys
import tempfile
import time

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, here)
from live_support import LiveServer, chrome, status, type_script, wait  # noqa: E402

root = os.path.join(here, "..", "..")
kel = os.path.abspath(os.path.join(sys.argv[1], "bin", "kel"))
out = os.path.join(root, "docs", "live")
GRADE = """// Grade: gain, then offset, then a gamma per channel; alpha kept from the plate.
// @param gain 1.2 [0, 3] "Gain"
// @param offset 0.02 [-0.2, 0.2] "Offset"
// @param gamma 1.4 [0.2, 3] "Gamma"
color c = src * gain + offset;
out = color(pow(max(r(c), 0), 1 / gamma), pow(max(g(c), 0), 1 / gamma),
            pow(max(b(c), 0), 1 / gamma), a(src));
"""

os.makedirs(out, exist_ok=True)
with tempfile.TemporaryDirectory() as folder:
    shutil.copy(os.path.join(root, "docs", "gallery", "inputs", "plate.png"), folder)
    with open(os.path.join(folder, "grade.kel"), "w") as f:
        f.write(GRADE)
    server = LiveServer(kel, ["grade.kel", "-i", "src=plate.png"], folder)
    driver = chrome(1280, 640)
    try:
        driver.get(server.url)
        wait(driver, lambda: status(driver).startswith("full resolution"))
        slider = driver.find_element(By.CSS_SELECTOR, ".slider[data-name=gamma] input")
        ActionChains(driver).click_and_hold(slider).move_by_offset(60, 0).release().perform()
        wait(driver, lambda: status(driver).startswith("full resolution"))
        ActionChains(driver).move_to_element_with_offset(driver.find_element(By.ID, "picture"), 40, -20).perform()
        driver.save_screenshot(os.path.join(out, "page.png"))
        type_script(driver, GRADE.replace("src * gain", "src * gian"))
        wait(driver, lambda: driver.find_elements(By.CSS_SELECTOR, "#messages li.error"))
        time.sleep(0.3)  # the marker's underline is drawn on the next frame
        driver.save_screenshot(os.path.join(out, "error.png"))
    finally:
        driver.quit()
        server.stop()
print("wrote", os.path.join(out, "page.png"), "and error.png")
