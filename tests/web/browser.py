"""Chromium for the tests of the page: one browser a process, with what the tests ask of it."""

import os
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

OPTIONS = ['--headless=new', '--no-sandbox', '--disable-dev-shm-usage', '--disable-gpu', '--lang=en',
           '--window-size=1300,900']

PATIENCE = 60  # seconds: a busy machine is slow to show what it has

# Everything that the page was refused, for the tests to find.
WATCH = """
window.refused = [];
addEventListener('securitypolicyviolation', (event) => refused.push(event.violatedDirective));
addEventListener('error', (event) => refused.push(event.message));
addEventListener('unhandledrejection', (event) => refused.push(String(event.reason)));
"""


class Browser:
    def __init__(self, zone='Europe/Paris'):
        options = webdriver.ChromeOptions()
        options.binary_location = os.environ.get('KODU_TEST_CHROMIUM', '/usr/bin/chromium')
        for option in OPTIONS:
            options.add_argument(option)
        service = Service('/usr/bin/chromedriver', env={**os.environ, 'TZ': zone})
        self.driver = webdriver.Chrome(service=service, options=options)
        self.driver.execute_cdp_cmd('Page.addScriptToEvaluateOnNewDocument', {'source': WATCH})

    def close(self):
        self.driver.quit()

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def find(self, selector):
        """The first element that matches, as soon as there is one."""
        return self.until(lambda: self.all(selector), what=selector)[0]

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def text(self, selector='body'):
        return self.run("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def press(self, *keys):
        """Types into whatever has the focus."""
        webdriver.ActionChains(self.driver, duration=0).send_keys(*keys).perform()

    def tab_to(self, selector, most=60):
        """Moves the focus with Tab alone until an element that matches has it."""
        for _ in range(most):
            if self.run('return document.activeElement.matches(arguments[0])', selector):
                return
            self.press(Keys.TAB)
        raise AssertionError(f'Tab does not lead to {selector} within {most} steps')

    def until(self, condition, seconds=PATIENCE, what=None):
        """Waits until the condition is true, and returns its value."""
        end = time.monotonic() + seconds
        while True:
            value = condition()
            if value:
                return value
            if time.monotonic() > end:
                raise AssertionError(f'{what or "what was awaited"} is not so after {seconds} s; the page says:\n'
                                     f'{self.text()[:2000]}')
            time.sleep(0.02)

    def until_text(self, selector, text, seconds=PATIENCE):
        self.until(lambda: text in self.text(selector), seconds, f'{text!r} in {selector}')
