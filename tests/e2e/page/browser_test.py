#!/usr/bin/env python3
"""The receiver's page in a real browser: Debian's chromium, driven by chromium-driver and selenium.

browser_test.py --receiver PROGRAM --data FOLDER --screenshots FOLDER [unittest's own arguments]

FOLDER of the data has payloads of a guest with a real kernel, as the receiver has stored them.
"""

import argparse
import glob
import os
import signal
import socket
import sys
import threading
import time
import unittest
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select, WebDriverWait

from receiver import AGENT, OTHER_AGENT, PATIENCE, STATUS, Receiver, event

MARKUP = "/srv/watched/<img src=x onerror=alert(1)>"
TURNED = "/srv/watched/harmless-\u202egpj.sh"

arguments = argparse.Namespace()


def start_browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for switch in ("--headless=new", "--disable-dev-shm-usage", "--disable-gpu", "--no-first-run"):
        options.add_argument(switch)
    if os.geteuid() == 0:
        options.add_argument("--no-sandbox")  # chromium refuses to run as root with one
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = start_browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    def setUp(self):
        self.may_complain = False
        self.receiver = Receiver(arguments.receiver)
        self.size(1440, 900)
        self.appearance("light")
        self.browser.get_log("browser")  # of the test before
        self.browser.get(self.receiver.page)
        self.await_link("Live")

    def tearDown(self):
        complaints = [entry["message"] for entry in self.browser.get_log("browser")]
        self.browser.get("about:blank")
        self.assertEqual(0, self.receiver.stop())
        if not self.may_complain:
            self.assertEqual([], complaints)

    # ---- what a person does and sees

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def wait_for(self, what, condition):
        WebDriverWait(self.browser, PATIENCE, poll_frequency=0.05).until(lambda _: condition(), f"in vain: {what}")

    def text(self, selector):
        return self.browser.execute_script("return document.querySelector(arguments[0]).textContent", selector)

    def await_link(self, text):
        self.wait_for(text, lambda: self.text("#link-text").startswith(text))

    def await_count(self, text):
        self.wait_for(f"{text} in place of {self.text('#count')}", lambda: self.text("#count") == text)

    def rows(self, part="object"):
        """The texts of a part of all rows that are drawn, from the top."""
        return self.browser.execute_script(
            """return [...document.querySelectorAll('#space .row:not([hidden])')]
                 .sort((a, b) => a.getAttribute('aria-posinset') - b.getAttribute('aria-posinset'))
                 .map((row) => row.querySelector(':scope > .' + arguments[0]).textContent)""",
            part,
        )

    def click_row(self, text):
        click = """const row = [...document.querySelectorAll('#space .row:not([hidden])')]
                     .find((row) => row.textContent.includes(arguments[0]));
                   row?.click();
                   return Boolean(row);"""
        self.wait_for(f"a row with {text}", lambda: self.browser.execute_script(click, text))

    def type_into(self, selector, text):
        self.find(selector).clear()
        self.find(selector).send_keys(text)

    def choose(self, selector, text):
        Select(self.find(selector)).select_by_visible_text(text)

    def appearance(self, scheme):
        features = [{"name": "prefers-color-scheme", "value": scheme}]
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": features})

    def size(self, width, height):
        metrics = {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False}
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", metrics)

    def upload_real_events(self):
        for file in sorted(glob.glob(os.path.join(arguments.data, "payload-*"))):
            self.receiver.upload_file(file)

    def screenshot(self, name):
        os.makedirs(arguments.screenshots, exist_ok=True)
        path = os.path.join(arguments.screenshots, name)
        self.assertTrue(self.browser.save_screenshot(path))
        self.assertGreater(os.path.getsize(path), 30_000, "a picture of a page with something on it")

    # ---- tests

    def test_an_empty_page_says_so_in_words(self):
        self.wait_for("words", lambda: self.text("#empty").startswith("No event yet."))
        self.wait_for("health", lambda: "No agent has told of its health yet." in self.text("#health-body"))
        self.wait_for("books", lambda: "None has sent anything yet." in self.text("#books-body"))

    def test_events_appear_within_a_second(self):
        for number in range(5):
            path = f"/srv/watched/file-{number}"
            before = time.monotonic()
            self.receiver.upload_events([event(path)])
            self.wait_for(path, lambda: self.rows()[:1] == [path])
            self.assertLess(time.monotonic() - before, 1)
        self.await_count("5 shown")

    def test_filters_leave_what_is_asked_for(self):
        self.receiver.upload_events(
            [
                event("/srv/watched/one", "Create", "/usr/bin/touch", "alice"),
                event("/srv/watched/two", "Write", "/usr/bin/vi", "bob"),
                event("/etc/passwd", "Write", "/usr/sbin/useradd", "root"),
            ]
        )
        self.await_count("3 shown")
        self.choose("#filter-action", "Write")
        self.await_count("2 of 3 shown")
        self.type_into("#filter-path", "WATCHED")
        self.await_count("1 of 3 shown")
        self.assertEqual(["/srv/watched/two"], self.rows())
        self.find("#filter-clear").click()
        self.await_count("3 shown")
        self.type_into("#filter-actor", "touch")
        self.await_count("1 of 3 shown")
        self.type_into("#filter-actor", "bob")
        self.wait_for("bob's", lambda: self.rows() == ["/srv/watched/two"])
        self.type_into("#filter-actor", "nobody")
        self.wait_for("words", lambda: self.text("#empty") == "No event passes the filters.")
        self.find("#filter-clear").click()
        self.choose("#filter-kind", "indicators")
        self.await_count("0 of 3 shown")
        self.choose("#filter-kind", "file integrity")
        self.await_count("3 shown")
        self.receiver.upload_events([event("/srv/watched/elsewhere")], agent=OTHER_AGENT)
        self.await_count("4 shown")
        agents = [option.text for option in Select(self.find("#filter-agent")).options]
        self.assertEqual(["all", OTHER_AGENT, AGENT], agents)
        self.choose("#filter-agent", OTHER_AGENT)
        self.await_count("1 of 4 shown")
        self.assertEqual(["/srv/watched/elsewhere"], self.rows())
        self.choose("#filter-agent", AGENT)
        self.await_count("3 of 4 shown")
        # What comes later is filtered as well.
        self.type_into("#filter-path", "later")
        self.receiver.upload_events([event("/srv/watched/later"), event("/srv/watched/other")])
        self.await_count("1 of 6 shown")

    def test_names_are_text_whatever_they_hold(self):
        control = "/srv/watched/line\nend\x1b[31m\x9b\u200b\u034f\ufe0f\\x"
        self.receiver.upload_events([event(MARKUP), event(TURNED), event(control, user="<b>eve</b>")])
        self.await_count("3 shown")
        self.assertEqual(
            [
                r"/srv/watched/line\x0aend\x1b[31m\x9b\u{200b}\u{34f}\u{fe0f}\\x",
                r"/srv/watched/harmless-\u{202e}gpj.sh",
                MARKUP,
            ],
            self.rows(),
        )
        for text in ("<img", "harmless", "line"):
            self.click_row(text)
            self.wait_for(text, lambda text=text: text in self.text("#details-title"))
            self.assertEqual(0, len(self.browser.find_elements(By.CSS_SELECTOR, "img, b:not(#legend b)")))
            self.assertNotIn("\u202e", self.browser.execute_script("return document.body.textContent"))
        self.assertIn("<b>eve</b>", self.text("#details-body"))
        # An escape is marked; letters that look like one are not, and their backslash is doubled.
        marked = self.browser.execute_script(
            "return [...document.querySelectorAll('#details-title .escape')].map((escape) => escape.textContent)"
        )
        self.assertEqual(["\\x0a", "\\x1b", "\\x9b", "\\u{200b}", "\\u{34f}", "\\u{fe0f}", "\\\\"], marked)
        # What one sees is what one can look for.
        self.type_into("#filter-path", r"\u{202e}")
        self.await_count("1 of 3 shown")
        self.type_into("#filter-path", "<img")
        self.wait_for("it", lambda: self.rows() == [MARKUP])

    def test_markup_could_not_run_even_if_it_came_in(self):
        refused = self.browser.execute_script(
            "try { document.body.innerHTML = '<img src=x onerror=alert(1)>'; return ''; } catch (error) { return error.name; }"
        )
        self.assertEqual("TypeError", refused)
        self.may_complain = True

    def test_details_show_the_actor_and_what_was_before_and_after(self):
        settings = {"uid": 0, "gid": 42, "permission": 644, "owner": "root", "group": "shadow"}
        changed = {**settings, "uid": 1000, "permission": 4755, "owner": "alice"}
        self.receiver.upload_events(
            [
                event("/w/script", "Change", securitySettings={"old": settings, "new": changed}),
                event("/w/draft", "Rename", operation={"old": "/w/draft", "new": "/w/final"}),
                event("/w/notes", "Baseline", fileContent="b25lCnR3bwo=", contentStatus="READ_SUCCESSFUL"),
                event("/w/notes", "Write", fileContent="b25lCnRocmVlCg==", contentStatus="READ_SUCCESSFUL"),
            ]
        )
        self.await_count("4 shown")
        self.click_row("/w/script")
        self.wait_for("the change", lambda: "Before and after" in self.text("#details-body"))
        self.assertIn("root (0)alice (1000)", self.text("#details-body .compare"))
        self.assertIn("06444755", self.text("#details-body .compare"))
        self.assertIn("/usr/bin/vi /w/script", self.text("#details-body"))
        self.click_row("/w/draft")
        self.wait_for("the rename", lambda: "/w/draft/w/final" in self.text("#details-body .compare"))
        self.click_row("Write")
        self.wait_for("the content", lambda: "three" in self.text("#details-body"))
        marked = self.browser.execute_script(
            "return [...document.querySelectorAll('.content .changed')].map((line) => line.textContent)"
        )
        self.assertEqual(["two", "three"], marked)

    def test_ten_thousand_events_stay_usable(self):
        for part in range(20):
            self.receiver.upload_events([event(f"/srv/watched/{part}/{number}") for number in range(500)])
        self.await_count("10,000 shown")
        self.receiver.upload_events([event("/srv/watched/newest")])
        self.wait_for("the newest", lambda: self.rows()[:1] == ["/srv/watched/newest"])
        self.assertEqual("10,000 shown", self.text("#count"), "the oldest has gone")
        self.assertLess(len(self.browser.find_elements(By.CSS_SELECTOR, "#space .row")), 100, "rows that are drawn")
        self.find("#list").send_keys(Keys.END)
        self.wait_for("the oldest", lambda: self.rows()[-1:] == ["/srv/watched/0/1"])
        before = time.monotonic()
        self.type_into("#filter-path", "/7/499")
        self.await_count("1 of 10,000 shown")
        self.assertLess(time.monotonic() - before, 3)
        self.find("#filter-clear").click()
        self.await_count("10,000 shown")
        self.assertLess(self.receiver.memory(), 150 * 1024 * 1024)

    def test_two_hundred_events_a_second_keep_it_fluent(self):
        for part in range(20):
            self.receiver.upload_events([event(f"/srv/watched/{part}/{number}") for number in range(500)])
        self.await_count("10,000 shown")
        self.browser.execute_script(
            """window.frames = [];
               const tick = (now) => { window.frames.push(now); requestAnimationFrame(tick); };
               requestAnimationFrame(tick);"""
        )
        agent = threading.Thread(target=self.upload_steadily, args=(5, 200))
        agent.start()
        agent.join()
        self.wait_for("the last", lambda: self.rows()[:1] == ["/srv/watched/steady/999"])
        frames = self.browser.execute_script("return window.frames")
        gaps = sorted(b - a for a, b in zip(frames, frames[1:]))
        # A frame in half a second at the very worst, most of them within a tenth: on a machine that is busy besides.
        self.assertLess(gaps[len(gaps) * 9 // 10], 100, "milliseconds between two frames, nine of ten")
        self.assertLess(gaps[-1], 1000, "milliseconds between two frames, at the most")

    def upload_steadily(self, seconds, per_second):
        started = time.monotonic()
        sent = 0
        while sent < seconds * per_second:
            due = min(seconds * per_second, int((time.monotonic() - started + 0.1) * per_second))
            if due > sent:
                self.receiver.upload_events([event(f"/srv/watched/steady/{number}") for number in range(sent, due)])
                sent = due
            time.sleep(0.02)

    def test_whoever_reads_further_down_keeps_what_he_reads(self):
        self.receiver.upload_events([event(f"/srv/watched/{number}") for number in range(200)])
        self.await_count("200 shown")
        self.browser.execute_script("document.getElementById('list').scrollTop = 1500")
        self.wait_for("the rows", lambda: "/srv/watched/149" in self.rows())
        place = "return document.elementFromPoint(500, 600).closest('.row').querySelector('.object').textContent"
        before = self.browser.execute_script(place)
        self.receiver.upload_events([event(f"/srv/watched/new-{number}") for number in range(7)])
        self.wait_for("the word", lambda: self.find("#newer").text == "7 newer")
        self.assertEqual(before, self.browser.execute_script(place))
        self.find("#newer").click()
        self.wait_for("the newest", lambda: self.rows()[:1] == ["/srv/watched/new-6"])
        self.wait_for("nothing unread", lambda: not self.find("#newer").is_displayed())

    def test_a_reload_keeps_the_list(self):
        self.receiver.upload_events([event("/srv/watched/one"), event("/srv/watched/two")])
        self.await_count("2 shown")
        self.browser.refresh()
        self.await_count("2 shown")
        self.assertEqual(["/srv/watched/two", "/srv/watched/one"], self.rows())

    def test_everything_can_be_done_by_keyboard(self):
        self.receiver.upload_events([event(f"/srv/watched/{number}") for number in range(50)])
        self.await_count("50 shown")
        chain = webdriver.ActionChains(self.browser)
        reached = set()
        for _ in range(12):
            chain.send_keys(Keys.TAB).perform()
            reached.add(self.browser.execute_script("return document.activeElement.id"))
        for name in ("filter-kind", "filter-action", "filter-path", "filter-actor", "filter-agent", "list"):
            self.assertIn(name, reached)
        self.find("#list").send_keys(Keys.ARROW_DOWN, Keys.ARROW_DOWN)
        self.wait_for("the second", lambda: self.text("#details-title") == "Write: /srv/watched/48")
        for keys, number in ((Keys.PAGE_DOWN, 38), (Keys.ARROW_UP, 39), (Keys.PAGE_UP, 49), (Keys.END, 0), (Keys.HOME, 49)):
            self.find("#list").send_keys(keys)
            self.wait_for(number, lambda number=number: self.text("#details-title") == f"Write: /srv/watched/{number}")
        self.find("#list").send_keys(Keys.END)
        self.wait_for("the last", lambda: self.text("#details-title") == "Write: /srv/watched/0")
        active = self.find("#list").get_attribute("aria-activedescendant")
        self.assertEqual("true", self.find(f"#{active}").get_attribute("aria-selected"))
        self.find("#list").send_keys(Keys.ENTER)
        self.assertEqual("details-title", self.browser.switch_to.active_element.get_attribute("id"))
        chain.reset_actions()
        chain.send_keys(Keys.TAB).perform()
        self.assertEqual("details-close", self.browser.switch_to.active_element.get_attribute("id"))
        self.browser.switch_to.active_element.send_keys(Keys.ESCAPE)
        self.wait_for("it to close", lambda: not self.find("#details").is_displayed())
        self.assertEqual("list", self.browser.switch_to.active_element.get_attribute("id"))
        self.find("#list").send_keys("/")
        self.assertEqual("filter-path", self.browser.switch_to.active_element.get_attribute("id"))

    def test_the_books_tell_what_was_refused_and_lost(self):
        losses = b'{"status":[{"dateTime":"2024-05-01T10:20:30Z","contextId":"EDR","statusCode":4004,"state":0,'
        losses += b'"additionalFields":{"kernelLost":17,"unsupportedCall":2}}]}'
        self.assertEqual(200, self.receiver.upload(losses, STATUS))
        self.assertEqual(401, self.receiver.upload(b"{}", break_signature=True))
        self.wait_for("losses", lambda: "records that the kernel dropped17" in self.text("#books-body"))
        self.wait_for("refusals", lambda: "signature does not match1" in self.text("#books-body"))
        self.assertEqual("17", self.text("#tile-lost"))
        self.assertEqual("1 bad", self.text("#tile-health"))
        self.assertIn("17 records that the kernel dropped", self.text("#health-body"))

    def test_an_upload_that_comes_again_is_in_the_list_once(self):
        for _ in range(2):
            self.receiver.upload_events([event("/srv/watched/one")], request_id="7c1f0a52-93be-4d08-a6e4-51b2c8d97f30")
        self.wait_for("the books", lambda: "Uploads accepted1" in self.text("#books-body"))
        self.wait_for("the repeat", lambda: "Came again1" in self.text("#books-body"))
        self.await_count("1 shown")

    def test_what_is_bad_is_said_in_words(self):
        row = b'{"status":[{"dateTime":"2024-05-01T10:20:30Z","contextId":"EDR","statusCode":4004,"state":0,"additionalFields":'
        self.receiver.upload(row + b'{"kernelLost":0,"auditSilent":"audit is switched off"}}]}', STATUS)
        self.wait_for("silence", lambda: "audit is silent: audit is switched off" in self.text("#health-body"))
        self.receiver.upload(row + b'{"kernelLost":0,"intakeEnded":"audit channel: no kernel"}}]}', STATUS)
        self.wait_for("the end", lambda: "the intake has ended: audit channel: no kernel" in self.text("#health-body"))
        self.assertNotIn("nothing lost", self.text("#health-body"))

    def test_the_chart_shows_the_rate_of_each_kind(self):
        self.receiver.upload_events([event(f"/srv/watched/{number}") for number in range(300)])
        label = "return document.querySelector('#chart svg')?.getAttribute('aria-label') ?? ''"
        self.wait_for("the rate", lambda: "File integrity: 5 a second" in self.browser.execute_script(label))
        self.assertIn("Indicators: 0 a second, Health: 0 a second in the last minute", self.browser.execute_script(label))
        self.assertEqual("File integrity 5Indicators 0Health 0in the last minute", self.text("#legend"))
        self.assertEqual("5.0", self.text("#tile-rate"))
        heights = """return ['fim', 'ioc', 'health'].map(
                       (kind) => document.querySelector(`#chart .line.${kind}`).getBBox().height)"""
        of_files, *of_others = self.browser.execute_script(heights)
        self.assertGreater(of_files, 50, "300 in five seconds are a peak of 60 a second")
        self.assertEqual([0, 0], of_others)
        scale = self.browser.execute_script("return [...document.querySelectorAll('#chart text')].map((text) => text.textContent)")
        for text in ("0", "60", "now", "15 min ago"):
            self.assertIn(text, scale)
        chart = self.find("#chart")
        webdriver.ActionChains(self.browser).move_to_element_with_offset(chart, 20 - chart.size["width"] // 2, 0).perform()
        self.wait_for("the time under the pointer", lambda: self.text("#legend").endswith("14.9 min ago"))
        self.assertEqual("File integrity 0", self.text("#legend li"))

    def test_choices_that_have_no_room_are_said_to_be_missing(self):
        self.receiver.upload_events([event("/srv/watched/one", f"Action-{number:03}") for number in range(201)])
        self.await_count("201 shown")
        actions = [option.text for option in Select(self.find("#filter-action")).options]
        self.assertEqual(["all", "Action-000"], actions[:2])
        self.assertEqual(["Action-199", "more are not listed"], actions[-2:])
        self.assertEqual(202, len(actions))

    def test_texts_can_be_read_in_light_and_in_dark(self):
        # Contrast as WCAG reckons it, of each text against the first ground behind it: 4.5 is what small texts need.
        contrasts = """
            const canvas = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
            const rgb = (color) => {
              canvas.fillStyle = color;
              canvas.fillRect(0, 0, 1, 1);
              return [...canvas.getImageData(0, 0, 1, 1).data].slice(0, 3);
            };
            const luminance = (color) => {
              const [r, g, b] = rgb(color).map((x) => x / 255).map((x) => x <= 0.03928 ? x / 12.92 : ((x + 0.055) / 1.055) ** 2.4);
              return 0.2126 * r + 0.7152 * g + 0.0722 * b;
            };
            const ground = (element) => {
              const color = getComputedStyle(element).backgroundColor;
              return color === 'rgba(0, 0, 0, 0)' ? ground(element.parentElement) : color;
            };
            const found = {};
            for (const element of document.querySelectorAll('body *')) {
              const says = [...element.childNodes].some((node) => node.nodeType === Node.TEXT_NODE && node.data.trim());
              if (!says || element.disabled || !element.checkVisibility()) continue;
              const style = getComputedStyle(element);
              const of = [element instanceof SVGElement ? style.fill : style.color, ground(element)].map(luminance);
              found[`${element.tagName} ${element.className} ${element.textContent.slice(0, 20)}`] =
                (Math.max(...of) + 0.05) / (Math.min(...of) + 0.05);
            }
            return [luminance(getComputedStyle(document.body).backgroundColor), found];"""
        losses = b'{"status":[{"contextId":"EDR","statusCode":4004,"state":0,"additionalFields":{"kernelLost":17}}]}'
        self.upload_real_events()
        self.receiver.upload(losses, STATUS)
        self.receiver.upload_events([event(TURNED)])
        self.click_row("harmless")
        self.wait_for("the losses", lambda: self.text("#tile-lost") == "17")
        for scheme in ("light", "dark"):
            self.appearance(scheme)
            ground, found = self.browser.execute_script(contrasts)
            self.assertEqual(scheme, "light" if ground > 0.5 else "dark")
            self.assertGreater(len(found), 50)
            self.assertEqual({}, {text: contrast for text, contrast in found.items() if contrast < 4.5}, scheme)

    def test_a_receiver_that_goes_away_and_comes_back_is_told_in_words(self):
        self.may_complain = True
        self.receiver.upload_events([event("/srv/watched/one")])
        self.await_count("1 shown")
        port = int(self.receiver.page.split(":")[2].split("/")[0])
        self.assertEqual(0, self.receiver.stop())
        self.await_link("The receiver does not answer.")
        self.assertEqual(["/srv/watched/one"], self.rows(), "what was there is still shown")
        self.receiver = Receiver(arguments.receiver, page=port)
        self.await_link("The receiver was started anew: open the address that it prints now.")

    def test_a_receiver_that_says_nothing_any_more_is_told_in_words(self):
        self.receiver.process.send_signal(signal.SIGSTOP)
        self.await_link("No word from the receiver. Trying again…")
        self.receiver.process.send_signal(signal.SIGCONT)
        self.await_link("Live")

    def test_a_receiver_without_room_for_one_more_page_is_told_in_words(self):
        self.may_complain = True
        page = urllib.parse.urlsplit(self.receiver.page)
        request = f"GET {page.path}events HTTP/1.1\r\nHost: {page.netloc}\r\n\r\n".encode()
        self.browser.get("about:blank")
        others = []

        def others_after_one_more():
            other = socket.create_connection((page.hostname, page.port))
            other.sendall(request)
            if other.recv(15) == b"HTTP/1.1 200 OK":
                others.append(other)
            else:
                other.close()
            return len(others)

        self.wait_for("no more room", lambda: others_after_one_more() == 32)
        self.browser.get(self.receiver.page)
        self.await_link("The receiver has no room for one more page. Trying again…")
        for other in others:
            other.close()
        self.await_link("Live")

    def test_real_file_events_look_like_this(self):
        self.upload_real_events()
        self.wait_for("events", lambda: self.text("#tile-events") not in ("–", "0"))
        self.choose("#filter-kind", "file integrity")
        self.choose("#filter-action", "Change")
        self.click_row("/srv/watched/owned.txt")
        self.wait_for("details", lambda: "Before and after" in self.text("#details-body"))
        self.assertIn("root (0)alice (1000)", self.text("#details-body .compare"))
        self.choose("#filter-action", "all")
        self.wait_for("all", lambda: len(self.rows()) > 10)
        self.assertTrue(any(text.startswith("/srv/watched/draft.txt→") for text in self.rows()), self.rows())
        self.wait_for("health", lambda: self.text("#tile-health") == "Good")
        self.screenshot("page-fim.png")

    def test_real_indicators_show_the_ancestry_and_look_like_this(self):
        self.appearance("dark")
        self.upload_real_events()
        self.choose("#filter-kind", "indicators")
        self.type_into("#filter-path", "10.1.2.3:4444")
        self.wait_for("the connection", lambda: "Connect" in self.rows("action"))
        self.click_row("Connect")
        self.wait_for("details", lambda: "Who: the process and its ancestors" in self.text("#details-body"))
        chain = self.browser.execute_script(
            "return [...document.querySelectorAll('.ancestry li .name')].map((name) => name.textContent)"
        )
        self.assertEqual(["busybox", ".update", "nc"], [chain[0], *chain[-2:]], chain)
        self.assertGreaterEqual(len(chain), 4)
        self.find("#filter-clear").click()
        self.choose("#filter-kind", "indicators")
        self.wait_for("what was before and behind it", lambda: "/tmp/.later" in self.rows() and "Connect" in self.rows("action"))
        self.wait_for("the books", lambda: self.text("#tile-health") == "Good")
        self.screenshot("page-ioc.png")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--receiver", required=True)
    parser.add_argument("--data", required=True)
    parser.add_argument("--screenshots", required=True)
    _, rest = parser.parse_known_args(namespace=arguments)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main()
