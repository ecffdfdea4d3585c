#!/usr/bin/env python3
"""Uses the page of veskreport in headless Chromium as a reader would, at two widths, light and dark."""
import json
import os
import pathlib
import subprocess
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

import common
from common import build, need, veskreport, veskrun

HOSTILE = '"</script><script>window.hacked=1</script><b>&amp;"'


def make_pages():
    for name, blocks in (("old", "10"), ("new", "25")):
        program = [os.path.join(build, "report_subject"), blocks]
        subprocess.run([veskrun, "-out", f"{name}.xml", "-top", "0", "-timeline", "1", "--", *program], check=True)
    for page in (["old.xml", "--html", "page.html"], ["new.xml", "--diff", "old.xml", "--html", "diff.html"]):
        subprocess.run([veskreport, *page], check=True, stdout=subprocess.DEVNULL)


class Page:
    def __init__(self, browser):
        self.browser = browser
        self.run = browser.execute_script

    def open(self, name):
        self.browser.get(pathlib.Path(name).absolute().as_uri())

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def click(self, selector):
        self.find(selector).click()

    def type(self, selector, text):
        self.find(selector).clear()
        self.find(selector).send_keys(text)

    def keys(self, *keys):
        webdriver.ActionChains(self.browser).send_keys(*keys).perform()

    def look(self, width, scheme):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                     {"width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False})
        features = {"prefers-color-scheme": scheme, "prefers-reduced-motion": "reduce"}
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                     {"features": [{"name": name, "value": value} for name, value in features.items()]})

    def text(self, selector):
        return self.run("return document.querySelector(arguments[0]).textContent", selector)

    def count(self, selector):
        return self.run("return document.querySelectorAll(arguments[0]).length", selector)

    def until(self, what, script, *arguments):
        deadline = time.monotonic() + 20
        while not self.run(script, *arguments):
            need(time.monotonic() < deadline, what)
            time.sleep(0.02)

    def until_text(self, selector, part):
        self.until(f"{selector} never showed {part!r} but {self.text(selector)!r}",
                   "return document.querySelector(arguments[0]).textContent.includes(arguments[1])", selector, part)

    def check_fits(self):
        width, room = self.run("return [document.documentElement.scrollWidth, document.documentElement.clientWidth]")
        need(width <= room, f"the page is {width} wide in {room}")
        outside = self.run("""
            return [...document.querySelectorAll("body *")].filter((each) => {
              const box = each.getBoundingClientRect();
              return box.width > 0 && !each.closest("#flame, .uplot, legend") && (box.left < -1 || box.right > innerWidth + 1);
            }).map((each) => each.tagName + "." + each.className)""")
        need(not outside, f"outside of the page: {outside}")

    def check_contrast(self):
        """Texts against what they stand on, as WCAG counts it (AA)."""
        weak = self.run("""
            const parse = (colour) => colour.match(/[\\d.]+/g).map(Number);
            const light = (colour) => {
              const [r, g, b] = colour.slice(0, 3).map((c) => (c /= 255) <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4);
              return 0.2126 * r + 0.7152 * g + 0.0722 * b;
            };
            const ground = (each) => {
              for (; each; each = each.parentElement) {
                const colour = parse(getComputedStyle(each).backgroundColor);
                if (colour.length === 3 || colour[3] === 1) return colour;
              }
              return [255, 255, 255];
            };
            return [...document.querySelectorAll("h1, h2, p, dt, dd, small, td, button, .choice span, .quiet, .callers")]
              .filter((each) => each.textContent.trim() && each.getBoundingClientRect().width > 0)
              .map((each) => {
                const [a, b] = [light(parse(getComputedStyle(each).color)), light(ground(each))];
                return [each.tagName + " " + each.textContent.slice(0, 30), (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05)];
              }).filter(([, contrast]) => contrast < 4.5)""")
        need(not weak, f"hard to read: {weak}")

    def numbers(self, column):
        return self.run("""
            const units = {B: 1, KiB: 1024, MiB: 1024 ** 2};
            return [...document.querySelectorAll("#stacks tbody tr")].map((row) => {
              const [value, unit] = row.cells[arguments[0]].textContent.replaceAll(",", "").split(" ");
              return Number(value) * (units[unit] ?? 1);
            })""", column)

    def click_box(self, name):
        """A box of the flame graph, where it is."""
        self.until(f"no box {name!r}", """
            const box = [...document.querySelectorAll("#flame g")].find((each) => each.getAttribute("name") === arguments[0]);
            if (!box || box.querySelector("rect").getBoundingClientRect().width < 1) return false;
            box.dispatchEvent(new MouseEvent("click", {bubbles: true}));
            return true;""", name)

    def flame_graph(self):
        self.until_text("#flame-details", "at peak, 100.0 %")
        for metric, words in (("bytes", "in all, 100.0 %"), ("calls", "calls, 100.0 %"), ("live", "left at the end, 100.0 %")):
            self.click(f"#metrics input[value={metric}]")
            self.until_text("#flame-details", words)
        names = self.run("return [...document.querySelectorAll('#flame g')].map((each) => each.getAttribute('name'))")
        need(HOSTILE in names, f"the hostile function is not in {names}")
        leak = "shapes::Store<unsigned long>::leak(unsigned long)"
        self.click_box(leak)
        self.until_text("#flame-details", f"{leak} (report_subject): 9.8 KiB left at the end, ")
        need(self.count("#flame .fade") > 0, "a click does not zoom")
        self.click("#flame-reset")
        self.until("the zoom was not reset", "return document.querySelectorAll('#flame .fade').length === 0")

        self.type("#flame-search", "keepinlined")
        self.until_text("#flame-details", "1 box matches: 9.8 KiB")
        self.type("#flame-search", "</script>")
        self.until_text("#flame-details", "1 box matches: 2.9 KiB")
        self.run("document.querySelector('#flame').focus()")
        self.keys(*[Keys.DOWN] * 3)
        before = self.text("#flame-details")
        self.keys(Keys.ENTER)
        need(self.count("#flame .fade") > 0 and self.text("#flame-details") == before, "Enter does not zoom")
        self.keys(Keys.ESCAPE)
        need(self.count("#flame .fade") == 0, "Escape does not reset")
        self.run("document.querySelector('#flame-search').value = ''")

    def table(self):
        need(self.count("#stacks tbody tr") > 3, "there are few call stacks")
        for column, key in ((0, "peak"), (3, "bytes"), (4, "calls")):
            self.click(f"#stacks th button[data-key={key}]")
            if column == 0: # which the page begins with
                need(self.numbers(0) == sorted(self.numbers(0)), "not ascending")
                continue
            need(self.numbers(column) == sorted(self.numbers(column), reverse=True), f"not sorted by {key}")
        need(self.run("return document.querySelector('#stacks th[aria-sort]').textContent") == "Calls", "aria-sort")

        rows = self.count("#stacks tbody tr")
        self.click("#leaks")
        need(0 < self.count("#stacks tbody tr") < rows and 0 not in self.numbers(2), "what is left at the end")
        self.click("#leaks")
        self.type("#filter", "keepInlined")
        self.until("the filter for one", "return document.querySelectorAll('#stacks tbody tr').length === 1")
        self.click("#stacks tbody .toggle")
        frames = self.text("#stacks tbody .frames")
        need("keepInlined" in frames and "inlined" in frames and "report_subject.cpp:" in frames and "main" in frames, frames)


def use(page, width, scheme):
    page.look(width, scheme)
    page.open("page.html")
    page.until("the chart was not drawn", "return document.querySelector('#chart canvas') !== null")
    dark = page.run("return getComputedStyle(document.body).backgroundColor") == "rgb(20, 24, 27)"
    need(dark == (scheme == "dark"), f"{scheme} is not what it is drawn in")
    page.check_fits()
    page.check_contrast()
    page.flame_graph()
    page.table()
    page.check_fits()
    need(page.run("return window.hacked === undefined && document.querySelector('main b') === null"), "markup got through")

    page.open("diff.html")
    page.until_text("#totals", "+14.6 KiB")
    need(page.count("#stacks tbody tr") == 1, "one call stack differs")
    need("leak" in page.text("#stacks tbody") and "+15" in page.text("#stacks tbody"), page.text("#stacks tbody"))
    page.check_fits()
    page.check_contrast()


def main():
    make_pages()
    options = webdriver.ChromeOptions()
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage"):
        options.add_argument(argument)
    with webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options) as browser:
        for width in (400, 1600):
            for scheme in ("light", "dark"):
                use(Page(browser), width, scheme)
        messages = browser.get_log("browser")
        need(not messages, f"on the console: {messages}")
        events = (json.loads(line["message"])["message"] for line in browser.get_log("performance"))
        requests = [event["params"] for event in events if event["method"] == "Network.requestWillBeSent"]
        urls = [each["request"]["url"] for each in requests if each["documentURL"].startswith("file:")]
        need(len(urls) >= 8, "the requests were not seen")
        foreign = [url for url in urls if not url.startswith(("file:", "data:"))]
        need(not foreign, f"the page asks for {foreign}")


common.main("page", main)
