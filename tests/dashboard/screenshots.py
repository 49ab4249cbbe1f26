"""Takes the pictures of docs/images from the page and a made-up bus. By hand, where the page has changed:

    BORVEN_BIN=build/bin /usr/bin/python3 -B tests/dashboard/screenshots.py    takes two minutes

They are small enough behind `pngquant --ext .png --force --speed 1 --strip 128 docs/images/*.png`.
"""

import os
import sys
import unittest

from browser import PageTest
from fake_monitor import example_bus

IMAGES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/images")
MINUTE = 61_000  # milliseconds: then the sparklines are full


class Screenshots(PageTest):
    def take(self, name, width, height, scheme, is_phone=False, place="header"):
        self.set_screen(width, height, is_phone, scheme)
        self.driver.set_script_timeout(90)
        self.open_page(self.bus())
        self.driver.execute_async_script("setTimeout(arguments[1], arguments[0])", MINUTE)
        self.script("document.querySelector(arguments[0]).scrollIntoView()", place)
        self.driver.execute_async_script("setTimeout(arguments[0], 200)")
        path = os.path.join(IMAGES, name)
        self.assertTrue(self.driver.save_screenshot(path))
        print(name, os.path.getsize(path), "bytes", file=sys.stderr)

    def bus(self):
        bus = example_bus(0)
        del bus.publishers["<script>alert(1)</script>"]
        for subscriber in bus.subscribers.values():
            subscriber["topics"] = [topic for topic in subscriber["topics"] if topic in bus.publishers]
        bus.events = [event for event in bus.events if "script" not in event["name"]]
        return bus

    def test_dark(self):
        self.take("dashboard-dark.png", 1440, 900, "dark")

    def test_light(self):
        self.take("dashboard-light.png", 1440, 980, "light", place="#subscribers")


if __name__ == "__main__":
    unittest.main()
