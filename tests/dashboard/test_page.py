"""Defends the live page in a real browser: it shows the bus as it is, a second later at most, goes on behind a restarted
server, and is usable by keyboard, on a phone and with thousands of topics. Nothing from the bus is ever taken as markup.
"""

import signal
import subprocess

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

from browser import PageTest
from fake_monitor import FakeBus, example_bus
from harness import BIN, main, wait_until

HOSTILE = "<script>window.isHarmed = true</script>"
HOSTILE_TOO = "<img src=x onerror='window.isHarmed = true'>&amp;"


class Contents(PageTest):
    """What is shown."""

    def test_page_shows_the_bus(self):
        self.open_page(example_bus(0))
        self.assertIn("motor/1/speed", self.texts("#topics-table tbody .name"))
        self.assertEqual(self.texts("#topics-count"), ["18"])
        self.assertIn("slow-reader", self.texts("#subscribers-table tbody .name"))
        self.assertEqual(self.texts("#subscribers-count"), ["6, 2 in trouble"])
        self.assertIn("18.2k oldest", self.texts("#subscribers-table .column-drops"))
        self.assertEqual(sorted(set(self.texts("#subscribers-table .mark"))), ["cut", "slow", "waiting"])
        self.assertIn("subscriber died", self.texts("#events-list .kind"))
        self.assertIn("adds up", self.texts("#overview strong"))
        self.assertGreater(len(self.texts("#latency-body tbody tr")), 5)
        self.assertIn("--slow-subscriber *=drop-oldest:4096", self.texts("#server-body dd"))
        self.assertGreater(self.script("return document.querySelectorAll('#map-body path').length"), 18)

    def test_value_is_shown_by_its_description(self):
        bus = FakeBus()
        bus.add_publisher("volts", value=-12_345)
        bus.describe("volts", "fixed;step=1/1000;unit=V", lambda value: f"{value / 1000} V")
        bus.add_publisher("large", value=-(2**63))
        self.open_page(bus)
        self.assertEqual(self.texts("#topics-table .column-last .value"), ["-9223372036854775808", "-12.345 V"])

    def test_push_is_shown(self):
        bus = FakeBus()
        bus.add_publisher("counter", value=1)
        self.open_page(bus)
        for value in (4711, 4712):
            bus.push("counter", value)
            self.await_text("#topics-table .column-last", str(value))

    def test_killed_client_vanishes(self):
        bus = FakeBus()
        bus.add_publisher("counter", value=1)
        identity = bus.add_subscriber("doomed", ["counter"])
        self.open_page(bus)
        self.await_text("#subscribers-table .name", "doomed")
        bus.remove_subscriber(identity)
        self.await_no_text("#subscribers-table .name", "doomed")
        self.await_no_text("#map-body", "doomed")
        self.await_text("#events-list li", "subscriber died doomed")

    def test_names_are_text(self):
        bus = FakeBus()
        bus.add_publisher(HOSTILE, program=HOSTILE_TOO, value=1)
        bus.add_subscriber(HOSTILE_TOO, [HOSTILE], program=HOSTILE)
        self.open_page(bus)
        self.assertEqual(self.texts("#topics-table tbody .name"), [HOSTILE])
        self.assertEqual(self.texts("#subscribers-table tbody .name"), [HOSTILE_TOO])
        self.assertIn(HOSTILE, self.texts("#map-body .what"))
        self.assertIn(HOSTILE, self.texts("#events-list .what"))
        self.driver.find_element("css selector", "#topics-table tbody .name").click()
        self.assertEqual(self.texts("#details-title"), [HOSTILE])
        self.assertEqual(self.script("return document.querySelectorAll('script').length"), 1)
        self.assertEqual(self.script("return document.querySelectorAll('img').length"), 0)
        self.assertIsNone(self.script("return window.isHarmed"))

    def test_browser_runs_no_script_from_elsewhere(self):
        self.expects_complaints = True
        self.open_page(FakeBus())
        self.driver.get_log("browser")
        self.script("const made = document.createElement('script'); made.textContent = 'window.isHarmed = true';"
                    "document.body.append(made)")
        self.assertIsNone(self.script("return window.isHarmed"))
        self.assertIn("Content Security Policy", " ".join(entry["message"] for entry in self.driver.get_log("browser")))

    def test_details_follow_the_bus(self):
        bus = example_bus(0)
        self.open_page(bus)
        row = self.script("return [...document.querySelectorAll('#subscribers-table .name')]"
                          ".find((each) => each.textContent === 'slow-reader')")
        row.send_keys(Keys.ENTER)
        self.assertIn("18,233: 18.2k oldest", self.texts("#details dd"))
        self.assertIn("plant/north/vibration", self.texts("#details .names li"))
        identity = next(each["id"] for each in bus.subscribers.values() if each["name"] == "slow-reader")
        bus.remove_subscriber(identity)
        self.await_text("#details dd", "gone")
        ActionChains(self.driver).send_keys(Keys.ESCAPE).perform()
        self.await_true("!document.querySelector('dialog[open]')", "the details to close")


class Feeding(PageTest):
    """Where the numbers come from."""

    def test_page_goes_on_behind_a_restarted_server(self):
        monitor = self.open_page(example_bus(0))
        monitor.close()
        self.await_text("#notice", "there is no server")
        self.assertTrue(self.script("return !document.getElementById('notice').hidden"))
        self.assertEqual(self.texts("#server-state"), ["away"])
        self.assertIn("motor/1/speed", self.texts("#topics-table tbody .name"))
        bus = FakeBus()
        bus.server_pid = 4001
        bus.server_started += 1_000_000_000
        bus.add_publisher("after", value=1)
        self.start_monitor(bus)
        self.await_text("#server-state", "serving")
        self.await_true("document.getElementById('notice').hidden", "the notice to go")
        self.assertEqual(self.texts("#topics-table tbody .name"), ["after"])
        self.await_text("#events-list li", "another server has taken over")
        self.await_text("#events-list li", "publisher registered after")
        bus.add_publisher("later")  # its number is lower than that of the old server's last event
        self.await_text("#events-list li", "publisher registered later")

    def test_page_opened_without_a_server_waits_for_one(self):
        self.open_page()
        self.await_text("#notice", "No server")
        self.start_monitor(FakeBus(topics=3))
        self.await_text("#topics-count", "3")

    def test_page_says_when_the_command_has_ended(self):
        self.start_monitor(FakeBus())
        process = self.start_dashboard()
        self.driver.get(self.address)
        self.await_text("#server-state", "serving")
        process.signal(signal.SIGINT)
        self.await_text("#notice", "has ended")

    def test_events_come_with_the_state_when_there_are_too_many_streams(self):
        bus = FakeBus()
        self.start_dashboard()
        monitor = self.start_monitor(bus)
        monitor.refuses_streams = True
        self.driver.get(self.address)
        self.await_text("#server-state", "serving")
        bus.add_publisher("quiet")
        self.await_text("#events-list li", "publisher registered quiet")

    def test_each_event_is_shown_once(self):
        bus = FakeBus()
        self.open_page(bus)
        for number in range(20):
            bus.add_publisher(f"topic-{number}")
        self.await_text("#events-list li", "topic-19")
        bus.add_publisher("last")
        self.await_text("#events-list li", "registered last")
        self.await_text("#topics-count", "21")
        self.assertEqual(len(self.texts("#events-list li")), 21)

    def test_hidden_page_asks_for_nothing(self):
        monitor = self.open_page(FakeBus())
        wait_until(self, lambda: any("/v1/events" in path for _, path, _ in monitor.seen), "the stream of events")
        self.script("Object.defineProperty(document, 'hidden', {value: true, configurable: true});"
                    "document.dispatchEvent(new Event('visibilitychange'))")
        wait_until(self, lambda: monitor.ended_streams == 1, "the end of the stream")
        asked = len(monitor.seen)
        self.driver.execute_async_script("setTimeout(arguments[0], 2500)")
        self.assertLessEqual(len(monitor.seen), asked + 1)  # one may have been on its way
        self.script("delete document.hidden; document.dispatchEvent(new Event('visibilitychange'))")
        wait_until(self, lambda: len(monitor.seen) > asked + 2, "the page to go on")

    def test_paused_page_stands_still(self):
        bus = FakeBus()
        bus.add_publisher("counter", value=1)
        monitor = self.open_page(bus)
        wait_until(self, lambda: any("/v1/events" in path for _, path, _ in monitor.seen), "the stream of events")
        self.driver.find_element("id", "pause").click()
        wait_until(self, lambda: monitor.ended_streams == 1, "the end of the stream")
        self.assertEqual(self.texts("#server-state"), ["paused"])
        bus.push("counter", 55)
        self.driver.find_element("id", "pause").click()
        self.await_text("#topics-table .column-last", "55")
        self.await_text("#server-state", "serving")


class LiveServers(PageTest):
    """Real servers and clients."""

    def start_bus(self):
        if "--no-monitor" not in subprocess.run([f"{BIN}/msgbusd", "--help"], capture_output=True, text=True).stdout:
            self.skipTest("this server has no monitor")
        return self.server()

    def open_live_page(self):
        self.start_dashboard()
        self.driver.get(self.address)
        self.await_text("#server-state", "serving")

    def test_push_is_shown(self):
        self.start_bus()
        self.open_live_page()
        publisher = self.pub("live/counter")
        for value in (5, -7):
            publisher.write(f"{value}\n")
            self.await_text("#topics-table .column-last", str(value))
        self.assertEqual(self.texts("#topics-table tbody .column-program"), ["msgbus"])
        self.assertIn("adds up", self.texts("#overview strong"))

    def test_killed_client_vanishes(self):
        self.start_bus()
        self.open_live_page()
        doomed = self.sub("live/counter", "<script>alert(1)</script>", name="doomed")
        self.await_text("#subscribers-table .name", "doomed")
        self.await_text("#map-body .what", "<script>alert(1)</script>")
        doomed.kill()
        self.await_no_text("#subscribers-table .name", "doomed")
        self.await_text("#events-list li", "subscriber died doomed")

    def test_page_goes_on_behind_a_killed_server(self):
        server = self.start_bus()
        self.open_live_page()
        self.sub("live/counter", name="reader")
        self.await_text("#subscribers-table .name", "reader")
        server.kill()
        self.await_text("#server-state", "away")
        self.start_bus()
        self.await_text("#server-state", "serving")
        self.await_text("#events-list li", "another server has taken over")
        self.publish("after", 42)
        self.await_text("#topics-table .column-last", "42")


class LargeBuses(PageTest):
    """A thousand topics and as many subscribers."""

    def test_thousand_topics(self):
        self.open_page(example_bus(1000))
        self.assertEqual(self.texts("#topics-count"), ["1,018"])
        self.assertLess(self.script("return document.querySelectorAll('tbody tr').length"), 150)
        rows = self.script("return document.querySelector('#topics-table table').getAttribute('aria-rowcount')")
        self.assertEqual(rows, "1019")
        self.script("const box = document.getElementById('topics-table'); box.scrollTop = box.scrollHeight")
        self.await_text("#topics-table .name", "plant/yard/vibration")
        self.await_text("#map-count", "the busiest: 24 of 1,018 topics")
        print("an update took", self.script("return performance.getEntriesByName('update').map((each) => each.duration)"), "ms")

    def test_search_finds_one_of_a_thousand(self):
        self.open_page(example_bus(1000))
        search = self.driver.find_element("id", "topics-search")
        search.send_keys("BULK/0815")
        self.await_text("#topics-count", "1 of 1,018")
        self.assertEqual(self.texts("#topics-table tbody .name"), ["bulk/0815"])
        search.clear()
        search.send_keys("sensor-north")  # a program
        self.await_text("#topics-count", "5 of 1,018")

    def test_rows_are_sorted_by_the_chosen_column(self):
        bus = FakeBus()
        for name, rate in (("a", 5.0), ("b", 500.0), ("c", 50.0)):
            bus.add_publisher(name, rate=rate)
        self.open_page(bus)
        self.assertEqual(self.texts("#topics-table tbody .name"), ["a", "b", "c"])
        header = self.driver.find_element("css selector", "#topics-table th.column-rate")
        for order, names in (("descending", ["b", "c", "a"]), ("ascending", ["a", "c", "b"])):
            header.find_element("tag name", "button").click()
            self.assertEqual(self.texts("#topics-table tbody .name"), names)
            self.assertEqual(header.get_attribute("aria-sort"), order)

    def test_focus_stays_on_its_row_while_the_table_scrolls(self):
        self.open_page(example_bus(1000))
        focused = self.script("const name = document.querySelectorAll('#topics-table tbody .name')[12]; name.focus();"
                              "document.getElementById('topics-table').scrollTop = 100; return name.textContent")
        self.driver.execute_async_script("requestAnimationFrame(() => requestAnimationFrame(arguments[0]))")
        self.assertEqual(self.script("return document.activeElement.textContent"), focused)

    def test_trouble_can_be_picked_out(self):
        self.open_page(example_bus(1000))
        self.driver.find_element("id", "subscribers-trouble").click()
        self.assertEqual(self.texts("#subscribers-table tbody .name"), ["old-display", "slow-reader"])


class Usability(PageTest):
    """For everybody."""

    def test_phone_needs_no_scrolling_sideways(self):
        bus = example_bus(30)
        bus.add_publisher("a-long-name-without-any-place-to-break-" * 6, value=-(2**63), program="program-" * 8)
        bus.add_subscriber("another-long-name-" * 10, ["motor/1/speed"], queued=123456789, age=10**15, dropped={"oldest": 10**12})
        for width in (320, 390):
            self.set_screen(width, 800, is_phone=True)
            monitor = self.open_page(bus)
            self.assertEqual(self.script("return document.documentElement.scrollWidth"), width)
            self.assertEqual(self.script("return window.innerWidth"), width)
            wide = self.script("return [...document.querySelectorAll('.panel, .tile, header, .scroller > table, .map')]"
                               ".filter((each) => each.getBoundingClientRect().right > innerWidth).map((each) => each.id)")
            self.assertEqual(wide, [])
            monitor.close()

    def test_keyboard_reaches_everything(self):
        self.open_page(example_bus(0))
        keys = ActionChains(self.driver)
        keys.send_keys(Keys.TAB).perform()
        self.assertEqual(self.script("return document.activeElement.className"), "skip")
        self.assertGreaterEqual(self.script("return document.activeElement.getBoundingClientRect().top"), 0)
        reached = set()
        for _ in range(40):
            keys.send_keys(Keys.TAB).perform()
            reached.add(self.script("const at = document.activeElement;"
                                    "return at.id || at.closest('nav, [id]').id"))
            self.assertNotEqual(self.script("return getComputedStyle(document.activeElement).outlineStyle"), "none")
        self.assertGreaterEqual(reached, {"pause", "theme", "help", "topics-search", "topics-table"})

    def test_shortcuts_work_and_can_be_turned_off(self):
        self.open_page(example_bus(0))
        keys = ActionChains(self.driver)
        keys.send_keys("/").perform()
        self.assertEqual(self.script("return document.activeElement.id"), "topics-search")
        keys.send_keys("ts").perform()  # they are text there
        self.assertEqual(self.script("return document.activeElement.value"), "ts")
        keys.send_keys(Keys.ESCAPE).send_keys("e").perform()
        self.assertEqual(self.script("return document.activeElement.id"), "events-scroller")
        keys.send_keys("?").perform()
        self.assertTrue(self.script("return document.getElementById('keys').open"))
        self.driver.find_element("id", "keys-on").click()
        keys.send_keys(Keys.ESCAPE).send_keys("/").perform()
        self.assertNotEqual(self.script("return document.activeElement.id"), "topics-search")

    def test_structure_is_announced(self):
        bus = FakeBus(topics=4)
        self.open_page(bus)
        self.assertEqual(self.script("return [...document.querySelectorAll('main, header, nav[aria-label]')].length"), 3)
        unnamed = self.script(
            "return [...document.querySelectorAll('section, table, dialog, [role=region], input, button')].filter((each) =>"
            " !each.getAttribute('aria-label') && !each.getAttribute('aria-labelledby') && !each.caption &&"
            " !(each.labels && each.labels.length) && !each.textContent.trim()).map((each) => each.outerHTML)")
        self.assertEqual(unnamed, [])
        live = self.script("return [...document.querySelectorAll('[aria-live]')].map((each) => each.id)")
        self.assertEqual(live, ["announcer"])
        bus.add_publisher("new")
        self.await_text("#announcer", "publisher registered: new")

    def test_theme_follows_the_system_until_one_is_chosen(self):
        ground = "return getComputedStyle(document.body).backgroundColor"
        self.open_page(FakeBus())
        light = self.script(ground)
        self.set_screen(1400, 1000, scheme="dark")
        dark = self.script(ground)
        self.assertNotEqual(light, dark)
        theme = self.driver.find_element("id", "theme")
        for name, expected in (("dark", dark), ("light", light)):
            theme.click()
            self.assertEqual((theme.text, self.script(ground)), (f"Theme: {name}", expected))
        self.driver.refresh()
        self.await_text("#theme", "Theme: light")
        self.assertEqual(self.script(ground), light)

    def test_text_has_enough_contrast(self):
        self.open_page(FakeBus())
        code = """
            const shown = (name) => {
              const probe = document.createElement('p');
              probe.style.color = `var(--${name})`;
              document.body.append(probe);
              const parts = getComputedStyle(probe).color.match(/[\\d.]+/g).slice(0, 3).map(Number);
              probe.remove();
              const [r, g, b] = parts.map((part) => part / 255)
                .map((part) => part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4);
              return 0.2126 * r + 0.7152 * g + 0.0722 * b;
            };
            const ratio = (a, b) => (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
            return ['ink', 'muted', 'faint', 'accent', 'good', 'warn', 'bad'].flatMap((text) =>
              ['ground', 'surface', 'raised'].map((ground) => [text, ground, ratio(shown(text), shown(ground))]));
        """
        for scheme in ("light", "dark"):
            self.set_screen(1400, 1000, scheme=scheme)
            poor = [each for each in self.script(code) if each[2] < 4.5]
            self.assertEqual(poor, [], scheme)


if __name__ == "__main__":
    main()
