"""A headless Chromium, driven through chromedriver with the W3C WebDriver protocol."""
import base64
import http.client
import json
import re
import subprocess
import tempfile

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
ARGUMENTS = [
    "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync", "--disable-default-apps", "--disable-dev-shm-usage",
]


class Browser:
    def __init__(self, driver="chromedriver"):
        self.profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        self.driver = subprocess.Popen([driver, "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        port = None
        for line in self.driver.stdout:
            if found := re.search(r"started successfully on port (\d+)", line):
                port = int(found[1])
                break
        if port is None:
            raise RuntimeError("chromedriver did not start")
        self.connection = http.client.HTTPConnection("127.0.0.1", port, timeout=120)
        self.session = ""
        options = {"args": ARGUMENTS + ["--user-data-dir=" + self.profile.name]}
        opened = self.call("POST", "/session", {"capabilities": {"alwaysMatch": {
            "browserName": "chrome", "goog:chromeOptions": options,
            "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"}}}})
        self.session = "/session/" + opened["sessionId"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.call("DELETE", "")
        finally:
            self.driver.terminate()
            self.driver.wait()
            self.driver.stdout.close()
            self.profile.cleanup()

    def call(self, method, path, body=None):
        target = path if path == "/session" else self.session + path
        self.connection.request(method, target, None if body is None else json.dumps(body),
                                {"Content-Type": "application/json"})
        value = json.loads(self.connection.getresponse().read())["value"]
        if isinstance(value, dict) and "error" in value:
            raise RuntimeError(f"{method} {path}: {value['error']}: {value['message']}")
        return value

    def devtools(self, command, **parameters):
        return self.call("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def look(self, width, height, scheme):
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.devtools("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme},
                                                              {"name": "prefers-reduced-motion", "value": "reduce"}])

    def open(self, url):
        self.call("POST", "/url", {"url": url})

    def run(self, script, *arguments):
        return self.call("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def find(self, selector):
        return self.call("POST", "/element", {"using": "css selector", "value": selector})[ELEMENT]

    def click(self, selector):
        self.call("POST", f"/element/{self.find(selector)}/click", {})

    def type(self, selector, text):
        element = self.find(selector)
        self.call("POST", f"/element/{element}/clear", {})
        self.call("POST", f"/element/{element}/value", {"text": text})

    def keys(self, text):
        actions = [{"type": kind, "value": key} for key in text for kind in ("keyDown", "keyUp")]
        self.call("POST", "/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def log(self, kind):
        return self.call("POST", "/se/log", {"type": kind})

    def screenshot(self, path):
        size = self.devtools("Page.getLayoutMetrics")["cssContentSize"]
        clip = {"x": 0, "y": 0, "width": self.run("return innerWidth"), "height": size["height"], "scale": 1}
        shot = self.devtools("Page.captureScreenshot", format="png", captureBeyondViewport=True, clip=clip)
        with open(path, "wb") as file:
            file.write(base64.b64decode(shot["data"]))
