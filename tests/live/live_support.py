"""What the live page's tests and its benchmark share: a `kel live` server started on a free
port, headless Chromium driven by selenium (Debian's chromium-driver), and the few page actions
they take: typing a script, waiting for a state, reading the picture."""
import re
import subprocess

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait


class LiveServer:
    """`kel live ARGS --no-browser` in `cwd`; `url` is the address it printed."""

    def __init__(self, kel, args, cwd):
        self.process = subprocess.Popen([kel, "live", *args, "--no-browser"], cwd=cwd, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.search(r"http://127\.0\.0\.1:\d+/", line)
        if not match:
            self.process.kill()
            raise RuntimeError("kel live did not start: " + line + self.process.stderr.read())
        self.url = match.group(0)

    def stop(self):
        self.process.terminate()
        try:
            return self.process.wait(timeout=30)
        finally:
            self.process.stdout.close()
            self.process.stderr.close()


def chrome(width=1400, height=900):
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", f"--window-size={width},{height}"):
        options.add_argument(argument)
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def wait(driver, condition, timeout=30):
    return WebDriverWait(driver, timeout, poll_frequency=0.02).until(lambda d: condition())


def status(driver):
    return driver.find_element(By.ID, "status").text


def type_script(driver, text):
    """Replaces the editor's text by typing it, as a person would."""
    editor = driver.find_element(By.CSS_SELECTOR, ".cm-content")
    editor.click()
    editor.send_keys(Keys.CONTROL, "a")
    editor.send_keys(text)


def picture_signature(driver):
    """The canvas's size and a hash of its pixels: it changes when the picture does."""
    return driver.execute_script("""
        const c = document.getElementById('picture');
        const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
        let h = 0;
        for (let i = 0; i < d.length; i += 7) h = (h * 31 + d[i]) | 0;
        return [c.width, c.height, h];""")
