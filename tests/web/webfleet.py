"""A console and a real agent on loopback, and a headless chromium to look at
the web view; shared by the browser test and `make demo`."""

import json
import os
import random
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.request

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"


def missing_browser():
    """What is missing to drive chromium, or None."""
    for path in (CHROMIUM, CHROMEDRIVER):
        if not os.access(path, os.X_OK):
            return path
    try:
        import selenium  # noqa: F401
    except ImportError:
        return "python3-selenium"
    return None


def start_browser(width=1280, height=900):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--no-first-run", "--disable-extensions", f"--window-size={width},{height}"):
        options.add_argument(arg)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)


class Fleet:
    """Console on free ports, one agent under a scratch prefix. The agent runs
    in a mount namespace of its own with a scratch /home, so start-up entries
    can be planted without touching this machine."""

    def __init__(self, build, startup_entries=None):
        self.build = os.path.abspath(build)
        self.work = tempfile.mkdtemp(prefix="edr-web.")
        self.prefix = os.path.join(self.work, "prefix")
        self.home = os.path.join(self.work, "home")
        self.autostart = os.path.join(self.home, "webuser", ".config", "autostart")
        os.makedirs(os.path.join(self.prefix, "etc", "edr-agent"))
        os.makedirs(self.autostart)
        for file_name, name in (startup_entries or {}).items():
            self.add_startup_entry(file_name, name)
        self.console = self.agent = None

    def add_startup_entry(self, file_name, name):
        with open(os.path.join(self.autostart, file_name), "w", encoding="utf-8") as f:
            f.write(f"[Desktop Entry]\nType=Application\nName={name}\nExec=/bin/true\n")

    def start_console(self, extra_args=()):
        """Only the console; its admin API and pages at self.base."""
        schedule = os.path.join(self.work, "schedule.db")
        with open(schedule, "w") as f:
            f.write("<AgentInfo><Enabled>1</Enabled><Run_on_Start>1</Run_on_Start><Interval>15</Interval>"
                    "<Retry_Interval>15</Retry_Interval></AgentInfo>\n")
        ports_file = os.path.join(self.work, "ports.json")
        self.console_out = open(os.path.join(self.work, "console.out"), "w")
        self.console = subprocess.Popen(
            [os.path.join(self.build, "edr-console"), "--http-port", "0", "--socket-port", "0", "--admin-port", "0",
             "--data", os.path.join(self.work, "console"), "--schedule", schedule, "--port-file", ports_file,
             *extra_args],
            stdout=self.console_out, stderr=subprocess.STDOUT)
        self._until(lambda: os.path.exists(ports_file) and os.path.getsize(ports_file) > 0, 20, "console ports")
        self._until(lambda: self._json_file(ports_file) is not None, 5, "console ports")
        ports = self._json_file(ports_file)
        self.http_port, self.socket_port, self.admin_port = ports["http"], ports["socket"], ports["admin"]
        self.base = f"http://127.0.0.1:{self.admin_port}"
        return self

    def start(self, timeout=120):
        self.start_console()
        with open(os.path.join(self.prefix, "etc", "edr-agent", "serverip.ini"), "w") as f:
            f.write(f"[server]\nEDRIP=127.0.0.1\n\n[Server]\nEDRPORT={self.http_port}\nEDRSAPIVER=v1\n"
                    f"EDRSPORT={self.socket_port}\nEDRSLPORT={random.randint(20000, 39999)}\n")
        self.agent_out = open(os.path.join(self.work, "agent.out"), "w")
        self.agent = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c",
             'mount --bind "$0" /home && exec "$@"', self.home,
             os.path.join(self.build, "edr-agent"), "--prefix", self.prefix, "--log-level", "debug"],
            stdout=self.agent_out, stderr=subprocess.STDOUT)
        wanted = {"agent", "hardware", "software", "processes", "services", "network", "startup"}
        self._until(lambda: self.host() and wanted <= set(self.host().get("latest", {})), timeout, "the start-up reports")
        return self

    def _json_file(self, path):
        try:
            with open(path) as f:
                return json.load(f)
        except ValueError:
            return None

    def _until(self, cond, timeout, what):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if cond():
                return
            for proc, name in ((self.console, "console"), (self.agent, "agent")):
                if proc is not None and proc.poll() is not None:
                    raise RuntimeError(f"the {name} exited early; see {self.work}")
            time.sleep(0.2)
        raise RuntimeError(f"timed out waiting for {what}; see {self.work}")

    def api(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        req = urllib.request.Request(self.base + path, data=data, method=method,
                                     headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(req, timeout=10) as res:
            return json.loads(res.read())

    def host(self):
        hosts = self.api("GET", "/api/hosts")
        return hosts[0] if hosts else None

    def wait_order(self, order_id, timeout=60):
        self._until(lambda: self.api("GET", f"/api/orders/{order_id}")["state"] in ("done", "failed", "expired"),
                    timeout, f"order {order_id}")
        return self.api("GET", f"/api/orders/{order_id}")

    def stop(self, keep=False):
        """Stops both; the console's exit code (0 after a clean stop)."""
        for proc in (self.agent, self.console):
            if proc is not None and proc.poll() is None:
                proc.send_signal(signal.SIGTERM)
                try:
                    proc.wait(timeout=20)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
        code = self.console.returncode if self.console is not None else 0
        if code != 0:
            keep = True
            print(f"console exited {code}; its output: {self.work}/console.out")
        for out in (getattr(self, "console_out", None), getattr(self, "agent_out", None)):
            if out:
                out.close()
        if not keep:
            shutil.rmtree(self.work, ignore_errors=True)
        return code
