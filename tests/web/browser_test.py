#!/usr/bin/env python3
"""The web view in a real headless chromium, against a console fed by a real
agent on this machine. Exits 77 when chromium or its driver is missing."""

import os
import sys
import unittest
import urllib.error
import urllib.parse
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import webfleet  # noqa: E402

BUILD = os.environ.get("EDR_BUILD_DIR", "build")
MARKUP = "<img src=x onerror=alert(1)>"


class WebView(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.fleet = webfleet.Fleet(BUILD, {"markup.desktop": MARKUP}).start()
        cls.driver = webfleet.start_browser()
        from selenium.webdriver.support.ui import WebDriverWait
        cls.wait = WebDriverWait(cls.driver, 60, poll_frequency=0.2)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        # Under the sanitizers a fault found while serving shows in the exit code.
        if cls.fleet.stop() != 0:
            raise AssertionError("the console did not stop cleanly")

    def run(self, result=None):
        # A failing test leaves a screenshot of what the browser showed.
        failures = len(result.failures) + len(result.errors) if result else 0
        out = super().run(result)
        if result and len(result.failures) + len(result.errors) > failures:
            path = os.path.join(os.path.abspath(BUILD), f"web-failure-{self._testMethodName}.png")
            self.driver.save_screenshot(path)
            print(f"screenshot: {path}", file=sys.stderr)
        return out

    def tearDown(self):
        # A script error or a policy violation on any page fails the case.
        bad = [e["message"] for e in self.driver.get_log("browser") if e.get("source") in ("javascript", "security")]
        self.assertEqual([], bad)

    def open(self, route):
        # A fresh document each time, so no element of the page before is found.
        self.driver.get("about:blank")
        self.driver.get(f"{self.fleet.base}/#{route}")

    def css(self, selector):
        from selenium.webdriver.common.by import By
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def wait_css(self, selector, text=None):
        from selenium.common.exceptions import StaleElementReferenceException

        def found(_):
            try:
                hits = [e for e in self.css(selector) if text is None or text in e.text]
            except StaleElementReferenceException:
                return False
            return hits[0] if hits else False
        return self.wait.until(found, f"{selector} {text or ''}")

    def assert_nothing_ran(self):
        from selenium.common.exceptions import NoAlertPresentException
        with self.assertRaises(NoAlertPresentException):
            self.driver.switch_to.alert.text
        self.assertEqual([], self.css("main img"))
        self.assertEqual([], [e for e in self.driver.get_log("browser") if "alert" in e.get("message", "")])

    def test_headers_of_pages_and_api(self):
        for path, kind in (("/", "text/html"), ("/js/app.js", "text/javascript"), ("/app.css", "text/css")):
            with urllib.request.urlopen(self.fleet.base + path) as res:
                self.assertEqual("default-src 'self'", res.headers["Content-Security-Policy"], path)
                self.assertEqual("nosniff", res.headers["X-Content-Type-Options"], path)
                self.assertTrue(res.headers["Content-Type"].startswith(kind), path)
        with urllib.request.urlopen(self.fleet.base + "/api/hosts") as res:
            self.assertTrue(res.headers["Content-Type"].startswith("application/json"))
        for path in ("/nothing.html", "/js/../../etc/passwd", "/.hidden", "/api/nothing"):
            with self.assertRaises(urllib.error.HTTPError) as caught:
                urllib.request.urlopen(self.fleet.base + path)
            self.assertEqual(404, caught.exception.code, path)
        # A name pointed at 127.0.0.1 gets no pages either.
        req = urllib.request.Request(self.fleet.base + "/", headers={"Host": f"evil.example:{self.fleet.admin_port}"})
        with self.assertRaises(urllib.error.HTTPError) as caught:
            urllib.request.urlopen(req)
        self.assertEqual(403, caught.exception.code)

    def test_fleet_lists_the_host_and_links_each_tab(self):
        host = self.fleet.host()
        name = host["hostname"] or "host 1"
        self.open("/")
        link = self.wait_css('a[href="#/hosts/1/overview"]', name)
        self.assertIn("online", self.wait_css("main table tbody tr", name).text)
        self.assertEqual("1", self.css(".card .n")[0].text)
        link.click()
        self.wait_css("#tab-overview")
        for tab in ("software", "processes", "services", "network", "startup", "firewall", "history", "orders",
                    "raw", "overview"):
            self.css(f'.tabs a[href="#/hosts/1/{tab}"]')[0].click()
            self.wait_css(f"#tab-{tab}")
            self.assertTrue(self.driver.current_url.endswith(f"#/hosts/1/{tab}"))
        self.wait_css("#tab-overview", host["os"])
        # A tab's address opens that tab on its own.
        self.driver.get("about:blank")
        self.open("/hosts/1/services")
        self.wait_css("#tab-services")

    def test_software_tab_lists_a_package_of_this_machine(self):
        self.open("/hosts/1/software")
        box = self.wait_css("#tab-software input[type=search]")
        box.send_keys("dpkg")
        row = self.wait_css("#tab-software tbody tr", "dpkg")
        self.assertIn("dpkg", [td.text for td in row.find_elements("css selector", "td")])

    def test_markup_in_a_startup_entry_is_shown_as_text(self):
        self.open("/hosts/1/startup")
        cell = self.wait_css("#tab-startup td", MARKUP)
        self.assertEqual(MARKUP, cell.text)
        self.assert_nothing_ran()
        self.open("/hosts/1/raw")
        self.wait_css("#tab-raw pre", MARKUP)
        self.open("/search?kind=startup&value=" + urllib.parse.quote(MARKUP, safe=""))
        self.wait_css("main td", MARKUP)
        self.assert_nothing_ran()

    def test_an_order_sent_from_the_page_shows_its_result(self):
        self.open("/hosts/1/orders")
        form = self.wait_css('form[data-kind="terminal"]')
        form.find_element("css selector", "input[name=command]").send_keys('echo web-order "two  words"')
        form.find_element("css selector", "button").click()
        # The result appears without a reload.
        self.assertEqual("web-order two  words\n",
                         self.wait_css(".order-item pre.output", "web-order").get_attribute("textContent"))
        self.assertEqual("done", self.css(".order-item")[0].get_attribute("data-state"))

    def test_history_shows_a_change_after_a_report(self):
        self.fleet.add_startup_entry("late.desktop", "Late entry")
        self.open("/hosts/1/orders")
        form = self.wait_css('form[data-kind="report"]')
        from selenium.webdriver.support.ui import Select
        Select(form.find_element("css selector", "select")).select_by_value("startup")
        form.find_element("css selector", "button").click()
        self.wait_css('.order-item[data-state="done"] h2', "report")
        self.open("/hosts/1/history?category=startup")
        row = self.wait_css("#tab-history tbody tr", "Late entry")
        self.assertIn("added", row.text)
        # The two start-up snapshots differ by that entry.
        self.css("#tab-history .toolbar button")[-1].click()
        diff = self.wait_css("#tab-history .diff-added")
        self.assertIn("Late entry", diff.find_element("xpath", "./ancestor::tr").text)

    def test_search_finds_the_host_by_a_port_it_listens_on(self):
        self.open(f"/search?kind=port&value={self.fleet.socket_port}")
        self.wait_css('main a[href="#/hosts/1/overview"]', self.fleet.host()["hostname"] or "host 1")
        self.open("/search?kind=package&value=no-such-package-anywhere")
        self.wait_css("main p.muted", "0 hosts")

    def test_schedule_and_audit_pages(self):
        self.open("/schedule")
        box = self.wait_css('input[aria-label="Processes interval"]')
        box.clear()
        box.send_keys("45")
        self.css("main form button[type=submit]")[0].click()
        self.wait_css("main [role=status]", "Saved")
        tasks = self.fleet.api("GET", "/api/schedule")["tasks"]
        self.assertEqual(45, [t for t in tasks if t["name"] == "Processes"][0]["interval"])
        self.open("/audit")
        self.wait_css("main tbody tr", "schedule")

    def test_order_results_and_reporting_state(self):
        self.open("/")
        self.wait_css("main table")
        got = self.driver.execute_async_script("""
          const done = arguments[arguments.length - 1];
          Promise.all([import('/js/host.js'), import('/js/app.js')]).then(([host, app]) => {
            const rows = host.orderResult({_id: '3', Output: [{name: '<b>x</b>', pid: '1'}, {name: 'y', pid: '2'}]});
            const text = host.orderResult({status: 2, Output: 'line 1\\n<i>2</i>'});
            const now = Date.parse('2026-01-01T12:00:00Z');
            const tasks = [{enabled: true, interval: 60}, {enabled: true, interval: 15}, {enabled: false, interval: 1}];
            const hosts = [{latest: {software: '2026-01-01T11:31:00Z', agent: '2026-01-01T09:00:00Z'}},
                           {latest: {software: '2026-01-01T11:29:00Z'}}, {latest: {}}];
            const staleMs = app.markReporting(hosts, tasks, now);
            done({cells: [...rows.querySelectorAll('tbody td')].map(td => td.textContent),
                  bold: rows.querySelectorAll('b').length, tag: text.tagName, pre: text.textContent,
                  staleMs, flags: hosts.map(h => h.notReporting), last: hosts[0].lastReport,
                  none: app.staleAfterMs([{enabled: false, interval: 5}])});
          });""")
        # osquery rows as a table, terminal output as preformatted text, both as text only.
        self.assertEqual(["<b>x</b>", "1", "y", "2"], got["cells"])
        self.assertEqual(0, got["bold"])
        self.assertEqual(("PRE", "line 1\n<i>2</i>"), (got["tag"], got["pre"]))
        # Twice the shortest enabled interval (15 minutes), from the newest report of any category.
        self.assertEqual(30 * 60000, got["staleMs"])
        self.assertEqual([False, True, True], got["flags"])
        self.assertEqual("2026-01-01T11:31:00.000Z", got["last"])
        self.assertIsNone(got["none"])

    def test_with_a_token_the_page_asks_for_it_once(self):
        secured = webfleet.Fleet(BUILD)
        token_file = os.path.join(secured.work, "token")
        with open(token_file, "w") as f:
            f.write("s3cret-token-of-the-web-view\n")
        try:
            secured.start_console(["--admin-listen", "127.0.0.1", "--admin-token-file", token_file])
            self.driver.get(secured.base + "/#/audit")
            box = self.wait_css("main input[type=password]")
            box.send_keys("wrong")
            self.css("main form button")[0].click()
            from selenium.webdriver.support import expected_conditions
            self.wait.until(expected_conditions.staleness_of(box))
            box = self.wait_css("main input[type=password]")
            box.send_keys("s3cret-token-of-the-web-view")
            self.css("main form button")[0].click()
            self.wait_css("main h1", "Audit")
            self.driver.get(secured.base + "/#/")
            self.wait_css(".card", "hosts")
        finally:
            self.driver.get("about:blank")
            self.assertEqual(0, secured.stop())

    def test_long_lists_are_paged_sorted_and_exported_safely(self):
        self.open("/")
        self.wait_css("main table")
        shown, pages, first, csv = self.driver.execute_async_script("""
          const done = arguments[arguments.length - 1];
          import('/js/dom.js').then((dom) => {
            const rows = Array.from({length: 5000}, (_, i) => ({Name: 'p' + i, PID: 5000 - i}));
            const table = dom.dataTable([{title: 'Name', value: r => r.Name}, {title: 'PID', value: r => r.PID}], rows);
            document.body.append(table);
            table.querySelectorAll('th button')[1].click();
            const csv = dom.toCsv([{title: 'a', value: r => r}], ['=cmd()', 'say "hi", ok']);
            done([table.querySelectorAll('tbody tr').length, table.querySelector('.pager').textContent,
                  table.querySelector('tbody td').textContent, csv]);
          });""")
        self.assertEqual(100, shown)
        self.assertIn("page 1 of 50", pages)
        self.assertEqual("p4999", first)
        self.assertEqual("a\r\n'=cmd()\r\n\"say \"\"hi\"\", ok\"\r\n", csv)


if __name__ == "__main__":
    missing = webfleet.missing_browser()
    if missing:
        print(f"SKIP: browser tests need {missing} (scripts/install-deps.sh installs it)")
        sys.exit(77)
    if os.geteuid() != 0:
        print("SKIP: browser tests run the agent, which runs as root only")
        sys.exit(77)
    sys.exit(0 if unittest.main(exit=False, verbosity=2).result.wasSuccessful() else 1)
