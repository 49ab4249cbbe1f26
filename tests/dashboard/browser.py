"""Headless Chromium, and what it has to complain about."""

import os
import unittest

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from dashboard import DashboardTest, harness


def start_chromium():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run"):
        options.add_argument(argument)
    if os.geteuid() == 0:
        options.add_argument("--no-sandbox")  # which root cannot have
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
    driver.set_page_load_timeout(harness.PATIENCE)
    driver.set_script_timeout(harness.PATIENCE)
    return driver


class PageTest(DashboardTest):
    """A test of the page in a browser. It fails if the browser has complained about anything but an absent server."""

    @classmethod
    def setUpClass(cls):
        cls.driver = start_chromium()
        unittest.addModuleCleanup(lambda driver=cls.driver: driver.quit())

    def setUp(self):
        super().setUp()
        self.expects_complaints = False
        self.addCleanup(self._look_for_complaints)
        self.set_screen(1400, 1000)

    def _look_for_complaints(self):
        # A response with status 503 is logged too, though the page expects it.
        complaints = [entry for entry in self.driver.get_log("browser") if entry["source"] != "network"]
        self.driver.get("about:blank")
        if not self.expects_complaints:
            self.assertEqual(complaints, [])

    def set_screen(self, width, height, is_phone=False, scheme="light"):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": is_phone})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                    {"features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def open_page(self, bus=None):
        """Starts a dashboard, opens its page and waits for the first numbers. Returns: the made-up server for `bus`."""
        self.start_dashboard()
        monitor = self.start_monitor(bus) if bus else None
        self.driver.get(self.address)
        if monitor:
            self.await_text("#server-state", "serving")
        return monitor

    def script(self, code, *arguments):
        return self.driver.execute_script(code, *arguments)

    def texts(self, selector):
        """Returns: the text of each element, as it is and not as it is drawn."""
        return self.script("return [...document.querySelectorAll(arguments[0])].map((each) => each.textContent)", selector)

    def await_true(self, code, what):
        harness.wait_until(self, lambda: self.script(f"return Boolean({code})"), what)

    def await_text(self, selector, part):
        try:
            harness.wait_until(self, lambda: any(part in text for text in self.texts(selector)), f"'{part}' in {selector}")
        except AssertionError as error:
            raise AssertionError(f"{error}; there is {self.texts(selector)[:20]}") from None

    def await_no_text(self, selector, part):
        harness.wait_until(self, lambda: not any(part in text for text in self.texts(selector)), f"no '{part}' in {selector}")
