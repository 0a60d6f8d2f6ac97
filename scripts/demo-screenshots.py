#!/usr/bin/env python3
"""Screenshots of the web view for `make demo`: the fleet page, a host's
Software tab and the result of an order sent from its Orders tab.
Usage: demo-screenshots.py BASE_URL OUT_DIR"""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "web"))
import webfleet  # noqa: E402


def main(base, out):
    missing = webfleet.missing_browser()
    if missing:
        print(f"demo: no screenshots, {missing} is missing (scripts/install-deps.sh installs it)")
        return 0
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait

    os.makedirs(out, exist_ok=True)
    driver = webfleet.start_browser(1366, 860)
    wait = WebDriverWait(driver, 60, poll_frequency=0.2)

    def show(route, selector):
        driver.get("about:blank")
        driver.get(f"{base}/#{route}")
        return wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, selector) or False)[0]

    def shot(name):
        path = os.path.join(out, name)
        driver.save_screenshot(path)
        print(f"demo: screenshot {path}")

    try:
        show("/", "main table tbody a")
        shot("fleet.png")
        show("/hosts/1/software", "#tab-software tbody tr")
        shot("host-software.png")
        form = show("/hosts/1/orders", 'form[data-kind="terminal"]')
        form.find_element(By.CSS_SELECTOR, "input[name=command]").send_keys("uname -a")
        form.find_element(By.CSS_SELECTOR, "button").click()
        # The list is redrawn as states change: look the result up again to scroll to it.
        done = '.order-item[data-state="done"] pre.output'
        wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, done) or False)
        driver.execute_script("document.querySelector(arguments[0]).scrollIntoView({block: 'center'})", done)
        shot("order-result.png")
        driver.set_window_size(420, 860)
        show("/", "main table tbody a")
        shot("fleet-narrow.png")
    finally:
        driver.quit()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
