#!/usr/bin/env python3
"""Uses the page of veskreport in headless Chromium as a reader would, at two widths, light and dark.

usage: report_page.py VESKREPORT VESKRUN SUBJECT [SCREENSHOTS], in a directory to work in
"""
import json
import os
import pathlib
import subprocess
import sys
import time

from webdriver import Browser

report, veskrun, subject = sys.argv[1:4]
screenshots = sys.argv[4] if len(sys.argv) > 4 else None
ESCAPE, ENTER, DOWN = "\ue00c", "\ue007", "\ue015"
HOSTILE = "</script><script>window.hacked=1</script><b>&amp;"


def check(holds, what):
    if not holds:
        raise AssertionError(what)


def make_pages():
    for name, blocks in (("old", 10), ("new", 25)):
        subprocess.run([veskrun, "-out", f"{name}.xml", "-top", "0", "-timeline", "1", "--", subject, str(blocks)], check=True)
    subprocess.run([report, "old.xml", "--html", "page.html"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run([report, "new.xml", "--diff", "old.xml", "--html", "diff.html"], check=True, stdout=subprocess.DEVNULL)


class Page:
    def __init__(self, browser):
        self.browser = browser

    def text(self, selector):
        return self.browser.run("return document.querySelector(arguments[0]).textContent", selector)

    def count(self, selector):
        return self.browser.run("return document.querySelectorAll(arguments[0]).length", selector)

    def until(self, what, script, *arguments):
        deadline = time.monotonic() + 20
        while not self.browser.run(script, *arguments):
            check(time.monotonic() < deadline, what)
            time.sleep(0.02)

    def until_text(self, selector, part):
        self.until(f"{selector} never showed {part!r} but {self.text(selector)!r}",
                   "return document.querySelector(arguments[0]).textContent.includes(arguments[1])", selector, part)

    def check_fits(self):
        width, room = self.browser.run("return [document.documentElement.scrollWidth, document.documentElement.clientWidth]")
        check(width <= room, f"the page is {width} wide in {room}")
        outside = self.browser.run("""
            return [...document.querySelectorAll("body *")].filter((each) => {
              const box = each.getBoundingClientRect();
              return box.width > 0 && !each.closest("#flame, .uplot, legend") && (box.left < -1 || box.right > innerWidth + 1);
            }).map((each) => each.tagName + "." + each.className)""")
        check(not outside, f"outside of the page: {outside}")

    def check_contrast(self):
        """Texts against what they stand on, as WCAG counts it (AA)."""
        weak = self.browser.run("""
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
        check(not weak, f"hard to read: {weak}")

    def numbers(self, column):
        return self.browser.run("""
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
            self.browser.click(f"#metrics input[value={metric}]")
            self.until_text("#flame-details", words)
        names = self.browser.run("return [...document.querySelectorAll('#flame g')].map((each) => each.getAttribute('name'))")
        check(HOSTILE in names, f"the hostile function is not in {names}")
        leak = "shapes::Store<unsigned long>::leak(unsigned long)"
        self.click_box(leak)
        self.until_text("#flame-details", f"{leak} (report_subject): 9.8 KiB left at the end, ")
        check(self.count("#flame .fade") > 0, "a click does not zoom")
        self.browser.click("#flame-reset")
        self.until("the zoom was not reset", "return document.querySelectorAll('#flame .fade').length === 0")

        self.browser.type("#flame-search", "keepinlined")
        self.until_text("#flame-details", "1 box matches: 9.8 KiB")
        self.browser.type("#flame-search", "</script>")
        self.until_text("#flame-details", "1 box matches: 2.9 KiB")
        self.browser.run("document.querySelector('#flame').focus()")
        self.browser.keys(DOWN + DOWN + DOWN)
        before = self.text("#flame-details")
        self.browser.keys(ENTER)
        check(self.count("#flame .fade") > 0 and self.text("#flame-details") == before, "Enter does not zoom")
        self.browser.keys(ESCAPE)
        check(self.count("#flame .fade") == 0, "Escape does not reset")
        self.browser.run("document.querySelector('#flame-search').value = ''")

    def table(self):
        check(self.count("#stacks tbody tr") > 3, "there are few call stacks")
        for column, key in ((0, "peak"), (3, "bytes"), (4, "calls")):
            self.browser.click(f"#stacks th button[data-key={key}]")
            if column == 0: # which the page begins with
                check(self.numbers(0) == sorted(self.numbers(0)), "not ascending")
                continue
            check(self.numbers(column) == sorted(self.numbers(column), reverse=True), f"not sorted by {key}")
        check(self.browser.run("return document.querySelector('#stacks th[aria-sort]').textContent") == "Calls", "aria-sort")

        rows = self.count("#stacks tbody tr")
        self.browser.click("#leaks")
        check(0 < self.count("#stacks tbody tr") < rows and 0 not in self.numbers(2), "what is left at the end")
        self.browser.click("#leaks")
        self.browser.type("#filter", "keepInlined")
        self.until("the filter for one", "return document.querySelectorAll('#stacks tbody tr').length === 1")
        self.browser.click("#stacks tbody .toggle")
        frames = self.text("#stacks tbody .frames")
        check("keepInlined" in frames and "inlined" in frames and "report_subject.cpp:" in frames and "main" in frames, frames)

    def picture(self, name):
        if screenshots:
            self.browser.screenshot(os.path.join(screenshots, name + ".png"))


def use(browser, width, scheme):
    page = Page(browser)
    browser.look(width, 900, scheme)
    browser.open(pathlib.Path("page.html").absolute().as_uri())
    page.until("the chart was not drawn", "return document.querySelector('#chart canvas') !== null")
    dark = browser.run("return getComputedStyle(document.body).backgroundColor") == "rgb(20, 24, 27)"
    check(dark == (scheme == "dark"), f"{scheme} is not what it is drawn in")
    page.check_fits()
    page.check_contrast()
    page.picture(f"page-{width}-{scheme}")
    page.flame_graph()
    page.table()
    page.check_fits()
    page.picture(f"used-{width}-{scheme}")
    check(browser.run("return window.hacked === undefined && document.querySelector('main b') === null"), "markup got through")

    browser.open(pathlib.Path("diff.html").absolute().as_uri())
    page.until_text("#totals", "+14.6 KiB")
    check(page.count("#stacks tbody tr") == 1, "one call stack differs")
    check("leak" in page.text("#stacks tbody") and "+15" in page.text("#stacks tbody"), page.text("#stacks tbody"))
    page.check_fits()
    page.check_contrast()
    page.picture(f"diff-{width}-{scheme}")


def main():
    make_pages()
    with Browser() as browser:
        for width in (400, 1600):
            for scheme in ("light", "dark"):
                use(browser, width, scheme)
        messages = browser.log("browser")
        check(not messages, f"on the console: {messages}")
        events = (json.loads(line["message"])["message"] for line in browser.log("performance"))
        requests = [event["params"] for event in events if event["method"] == "Network.requestWillBeSent"]
        urls = [each["request"]["url"] for each in requests if each["documentURL"].startswith("file:")]
        check(len(urls) >= 8, "the requests were not seen")
        foreign = [url for url in urls if not url.startswith(("file:", "data:"))]
        check(not foreign, f"the page asks for {foreign}")


main()
