"""Debian's Chromium without a screen, and the page in it."""

import json
import pathlib
import time

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service


def start(width=1280, height=800, dark=False, arguments=()):
    options = Options()
    options.binary_location = "/usr/bin/chromium"
    for argument in ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--hide-scrollbars",
                     "--disable-gpu", "--force-device-scale-factor=1", *arguments]:
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_script_timeout(60)
    driver.set_page_load_timeout(60)
    size(driver, width, height)
    scheme(driver, dark)
    return driver


def size(driver, width, height, mobile=False):
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                           {"width": width, "height": height, "deviceScaleFactor": 1,
                            "mobile": mobile})


def scheme(driver, dark):
    driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
        {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})


class Page:
    def __init__(self, driver, folder):
        self.driver = driver
        self.address = pathlib.Path(folder).resolve().joinpath("index.html").as_uri()

    def open(self, scene=""):
        """A new page each time, not another hash of the one before."""
        self.driver.get("about:blank")
        self.driver.get(self.address + ("#" + scene if scene else ""))

    def script(self, text, *arguments):
        return self.driver.execute_script(text, *arguments)

    def wait(self, condition, what, seconds=60):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if self.script("return " + condition):
                return
            time.sleep(0.02)
        raise AssertionError(f"{what}: not within {seconds} s")

    def rest(self):
        self.wait("window.velmarPage && velmarPage.screen.atRest()", "the page at rest")

    def number(self, name):
        text = self.text(name).replace("\u202f", "")
        return float(text)

    def text(self, name):
        return self.script("return document.getElementById(arguments[0]).textContent", name)

    def message(self):
        return self.script("const m = document.getElementById('message');"
                           "return m.hidden ? '' : m.textContent")

    def fingerprint(self):
        """Of the mesh that is shown."""
        return self.driver.execute_async_script(
            "velmarPage.screen.fingerprint(arguments[arguments.length - 1])")

    def svg(self):
        return self.driver.execute_async_script(
            "velmarPage.screen.svg(arguments[arguments.length - 1])")

    def press(self, name):
        """As a mouse does; the parts of a fieldset by name=value."""
        self.script("const [name, value] = arguments[0].split('=');"
                    "(value ? document.querySelector(`input[name=${name}][value=${value}]`)"
                    " : document.getElementById(name)).click()", name)

    def slide(self, name, value):
        self.script("const input = document.getElementById(arguments[0]);"
                    "input.value = arguments[1];"
                    "input.dispatchEvent(new Event('input', {bubbles: true}))", name, value)

    def type(self, text):
        self.script("const input = document.getElementById('expression');"
                    "input.value = arguments[0];"
                    "input.dispatchEvent(new Event('input', {bubbles: true}))", text)

    def raw_mouse(self, kind, column, row, button="none", **more):
        self.driver.execute_cdp_cmd("Input.dispatchMouseEvent", {
            "type": kind, "x": column, "y": row, "button": button, **more})

    def mouse(self, kind, x, y, button="none", **more):
        """At a place of the mesh, through the browser's own input."""
        column, row = self.script(
            "const [x, y, scale] = velmarPage.state.view || velmarPage.screen.fitting();"
            "const box = document.getElementById('frame').getBoundingClientRect();"
            "return [box.left + box.width / 2 + (arguments[0] - x) * scale,"
            "        box.top + box.height / 2 - (arguments[1] - y) * scale]", x, y)
        self.raw_mouse(kind, column, row, button, **more)

    def key(self, key):
        self.script("const mesh = document.getElementById('mesh'); mesh.focus();"
                    "mesh.dispatchEvent(new KeyboardEvent('keydown', {key: arguments[0],"
                    " bubbles: true, cancelable: true}))", key)

    def rest_or_stop(self):
        """What moves is stopped first."""
        self.script("velmarPage.state.playing = false")
        self.rest()

    def picture(self):
        """The canvas as a PNG file."""
        import base64
        data = self.script("return document.getElementById('mesh').toDataURL('image/png')")
        return base64.b64decode(data.split(",")[1])

    def fetched(self):
        """Addresses of all that was asked for since the last call."""
        events = [json.loads(line["message"])["message"]
                  for line in self.driver.get_log("performance")]
        return [event["params"]["request"]["url"] for event in events
                if event["method"] == "Network.requestWillBeSent"]

    def faults(self):
        """What the console has that it should not have."""
        return [json.dumps(line) for line in self.driver.get_log("browser")
                if line["level"] in ("SEVERE", "WARNING")]
