#!/usr/bin/python3
"""Tests of the console's page in Chromium, against a stand-in for its server.

KODU_TEST_AXE names axe.min.js; without this file the tests of accessibility are skipped.
"""

import gzip
import json
import os
import re
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import jsonschema  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402

from browser import Browser  # noqa: E402
from standIn import PAGE, StandIn, make_task, now, text_of  # noqa: E402

SCHEMA = PAGE.parents[1] / 'docs/koductl.schema.json'
AXE = os.environ.get('KODU_TEST_AXE', '')
HOSTILE = ['<img src=x onerror="window.hacked=1">', '"><svg onload=window.hacked=1>',
           '<script>window.hacked=1</script>', '</bdi></a><a href="javascript:window.hacked=1">x</a>',
           'invoice\u202egpj.exe', '\u2067\u2066isolate', 'a\x1b[2J\x07\x00\x9bb', 'line\nline\r\u2028x',
           'zero\u200bwidth\ufeff', '{{7*7}}${7*7}', '\ud800lone', '&lt;b&gt;', "' onfocus=window.hacked=1 '"]
# What must be visible instead: controls, marks of direction, line separators.
UNSEEN = re.compile('[\x00-\x08\x0b-\x1f\x7f-\x9f\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]')


def setUpModule():
    global browser, server
    server = StandIn()
    unittest.addModuleCleanup(server.shutdown)
    browser = Browser()
    unittest.addModuleCleanup(browser.close)
    browser.driver.get(f'{server.address}/app/icon.svg')
    browser.driver.add_cookie({'name': 'kodu_session', 'value': 'secret', 'path': '/'})


class PageTest(unittest.TestCase):
    count = 1000

    def setUp(self):
        server.reset(self.count)
        browser.driver.set_window_size(1300, 900)

    def tearDown(self):
        server.is_mute = False
        # The page asks the server for an answer that it refuses at the first login; nothing else may be refused.
        self.assertEqual(browser.run('return window.refused ?? []'), [])

    def open(self, address, text=None, hears=None):
        """Loads an address of the page, and waits for a text in it, and until it has its stream."""
        opened = server.opened
        browser.driver.get('about:blank')
        browser.driver.get(f'{server.address}/{address}')
        if text:
            browser.until_text('main', text)
        if server.sessions if hears is None else hears:
            browser.until(lambda: server.opened > opened, what='a stream')

    def open_tasks(self, query=''):
        self.open(f'#/tasks{query}')
        browser.until(lambda: browser.all('.row.task a'), what='a row')


class LoginTest(PageTest):
    def setUp(self):
        super().setUp()
        server.sessions.clear()
        self.addCleanup(self.log_in)

    @staticmethod
    def log_in():
        browser.driver.add_cookie({'name': 'kodu_session', 'value': 'secret', 'path': '/'})

    def test_says_what_is_wrong_and_leads_to_the_address_that_was_asked_for(self):
        self.open('#/tasks?failed=1', 'Log in')
        browser.tab_to('#role')
        browser.press('alice', Keys.TAB, 'wrong', Keys.ENTER)
        browser.until_text('main', 'The role or its password is wrong.')
        browser.press('right', Keys.ENTER)
        browser.until(lambda: browser.all('.row.task'), what='a row')
        self.assertIn('#/tasks?failed=1', browser.driver.current_url)

    def test_returns_when_the_session_ends(self):
        server.sessions.add('secret')
        self.open('#/', 'The daemon is running')
        server.sessions.clear()
        browser.find('a[href="#/tasks"]').click()
        browser.until_text('h1', 'Log in')
        self.assertEqual(browser.text('nav'), '')

    def test_ends_with_a_logout(self):
        server.sessions.add('secret')
        self.open('#/', 'The daemon is running')
        browser.tab_to('.person > button:last-child')
        browser.press(Keys.ENTER)
        browser.until_text('h1', 'Log in')
        self.assertEqual(server.sessions, set())


class OverviewTest(PageTest):
    def test_shows_totals_and_leads_to_the_tasks_behind_them(self):
        self.open('#/', 'The daemon is running since')
        self.assertIn('+99 since yesterday', browser.text('.tiles'))
        browser.tab_to('.tiles a[href*=failed]')
        browser.press(Keys.ENTER)
        browser.until_text('main', '100 tasks')
        self.assertEqual(browser.find('[aria-pressed=true]').text, 'Failed')

    def test_follows_the_stream(self):
        self.open('#/', 'The daemon is running since')

        def shows_what_was_sent():
            server.send('totals', server.totals() | {'running': 4321})
            return '4,321' in browser.text('.tiles')
        browser.until(shows_what_was_sent)

    def test_escapes_the_characters_of_a_pattern_in_the_links_to_plugins(self):
        server.plugins = [{'plugin': '/opt/check[*?]\\x', 'failing': 2}]
        self.open('#/', '/opt/check')
        link = browser.run("return document.querySelector('td a').hash")
        self.assertIn('plugin=%2Fopt%2Fcheck%5B%5C*%5C%3F%5D%5C%5Cx', link)

    def test_draws_each_chart_with_its_values_as_a_table(self):
        self.open('#/', 'Due in the next day')
        browser.until(lambda: len(browser.all('svg rect')) > 100)
        self.assertEqual(len(browser.all('figure svg[aria-labelledby]')), len(browser.all('figure details')))


class TasksTest(PageTest):
    def test_searches_as_the_reader_types_with_one_request(self):
        self.open_tasks()
        asked = len(server.requests)
        browser.tab_to('#search')
        browser.press('check-0000042')
        browser.until_text('.result', '1 task')
        self.assertEqual(len(browser.all('.row.task')), 1)
        self.assertIn('search=check-0000042', browser.driver.current_url)
        lists = [request for request in server.requests[asked:] if 'tasks?' in request]
        self.assertLess(len(lists), 4, lists)

    def test_keeps_each_state_in_its_address(self):
        self.open_tasks()
        browser.tab_to('[role=group] button')
        browser.press(Keys.ENTER)
        browser.until_text('.result', '100 tasks')
        browser.tab_to('.heads .cell-name button')
        browser.press(Keys.ENTER)
        browser.until(lambda: browser.all('.cell-name[aria-sort=ascending]'))
        browser.press(Keys.ENTER)
        browser.until(lambda: browser.all('.cell-name[aria-sort=descending]'))
        browser.until(lambda: browser.find('.row.task .cell-id').text == '993', what='the last task first')
        address = browser.driver.current_url
        self.assertIn('failed=1', address)
        browser.driver.back()
        browser.driver.back()
        browser.until(lambda: browser.all('.cell-id[aria-sort=ascending]'))
        browser.until_text('.result', '100 tasks')
        browser.driver.get('about:blank')
        browser.driver.get(address)
        browser.until(lambda: browser.all('.row.task') and browser.find('.row.task .cell-id').text == '993')

    def test_changes_a_row_in_place(self):
        self.open_tasks()
        browser.run("document.querySelector('.row.task').isTheSame = true")
        server.tasks.change(1, status='FAILED')
        server.send('tasks', {'ids': [1]})
        browser.until_text('.row.task .cell-state', 'failed', 3)
        self.assertTrue(browser.run("return document.querySelector('.row.task').isTheSame"))

    def test_leaves_rows_alone_while_a_menu_is_open(self):
        self.open_tasks()
        browser.tab_to('.row.task')
        browser.press('m')
        self.refuses_to_change_task_1()
        browser.press(Keys.ESCAPE)
        browser.until_text('.row.task .cell-state', 'failed', 3)
        self.assertTrue(browser.run("return document.activeElement.matches('.more')"))

    def test_leaves_rows_alone_while_a_text_is_selected(self):
        self.open_tasks()
        browser.run("""const range = document.createRange();
                       range.selectNodeContents(document.querySelector('.row.task .cell-plugin bdi'));
                       getSelection().addRange(range);""")
        self.refuses_to_change_task_1()
        self.assertEqual(browser.run('return String(getSelection())'), '/opt/checks/check_1')
        browser.run('getSelection().removeAllRanges()')
        browser.until_text('.row.task .cell-state', 'failed', 3)

    def refuses_to_change_task_1(self):
        server.tasks.change(1, status='FAILED')
        asked = len(server.requests)
        server.send('tasks', {'ids': [1]})
        browser.until(lambda: any('tasks?' in request for request in server.requests[asked:]))
        server.send('totals', {})
        browser.run('return new Promise((done) => requestAnimationFrame(() => setTimeout(done, 200)))')
        self.assertIn('ok', browser.text('.row.task .cell-state'))

    def test_keeps_rows_in_their_places_while_the_keyboard_is_among_them(self):
        self.open_tasks('?sort=name')
        browser.tab_to('.row.task')
        server.tasks.change(1, name='zzz')
        server.send('tasks', {'ids': [1, 2]})
        browser.until_text('.row.task', 'moved', 3)
        self.assertEqual(browser.find('.row.task .cell-id').text, '1')
        browser.run("document.querySelector('.result button:last-child').focus()")
        browser.press(Keys.ENTER)
        browser.until(lambda: browser.find('.row.task .cell-id').text == '2')

    def test_leads_to_the_search_and_explains_its_keys(self):
        self.open_tasks()
        browser.tab_to('.keys summary')
        browser.press(Keys.ENTER)
        self.assertIn('/ leads to the search', browser.text('.keys'))
        browser.tab_to('.row.task')
        browser.press('/')
        self.assertEqual(browser.run('return document.activeElement.id'), 'search')
        self.assertEqual(browser.run('return document.activeElement.value'), '')

    def test_opens_a_task_and_returns_to_the_same_list(self):
        self.open_tasks('?failed=1')
        browser.tab_to('.row.task')
        browser.press(Keys.ARROW_DOWN, Keys.ARROW_DOWN, Keys.ENTER)
        browser.until_text('h1', 'check-0000023')
        self.assertEqual(browser.run('return document.activeElement.tagName'), 'H1')
        browser.driver.back()
        browser.until_text('.result', '100 tasks')

    def test_offers_no_change_to_a_viewer(self):
        server.may_change = False
        self.open_tasks()
        self.assertEqual(browser.all('.more'), [])
        self.open('#/tasks/3', 'Definition')
        self.assertFalse(browser.find('.buttons').is_displayed())


class MillionTest(PageTest):
    count = 1000000

    def test_scrolls_far_with_few_elements(self):
        self.open_tasks()
        browser.until_text('.result', '1,000,000 tasks')
        browser.tab_to('.row.task')
        most = 0
        last = 0
        while last < 12000:  # past the place where the part that can be scrolled moves
            browser.press(Keys.END)
            browser.until(lambda end=last: self.active() > end, what=f'a row after {last}')
            last = self.active()
            most = max(most, browser.run("return document.querySelectorAll('.row.task').length"))
        self.assertLess(most, 80)
        self.assertEqual(self.active(), int(browser.run(
            "return document.activeElement.querySelector('.cell-id').textContent")))
        browser.press(Keys.HOME)  # its page has been dropped, and is read again
        browser.until(lambda: browser.text(':focus .cell-id') == '1', what='the first row')

    def test_returns_to_a_place_in_the_middle_by_its_address(self):
        self.open_tasks('?from=500000')
        self.assertEqual(browser.find('.row.task .cell-id').text, '500001')
        browser.tab_to('.result button')
        browser.press(Keys.ENTER)
        browser.until(lambda: browser.find('.row.task .cell-id').text == '1')

    def test_ends_with_the_last_row(self):
        self.open_tasks('?from=999700')
        browser.tab_to('.row.task')
        browser.press(Keys.END)
        browser.until(lambda: browser.text(':focus .cell-id') not in ('', '999701'))
        browser.press(Keys.END)
        browser.until(lambda: browser.text(':focus .cell-id') == '1000000', what='the last row')
        browser.press(Keys.ARROW_DOWN)
        self.assertEqual(browser.text(':focus .cell-id'), '1000000')

    @staticmethod
    def active():
        return int(browser.run("return document.activeElement.getAttribute('aria-rowindex') ?? 0")) - 1


class TaskTest(PageTest):
    def test_pauses_with_an_end_and_a_reason_and_resumes_by_keyboard_alone(self):
        self.open('#/tasks/3', 'Definition')
        browser.tab_to('.buttons button:nth-child(2)')
        browser.press(Keys.ENTER)
        browser.tab_to('#pause-period')
        browser.press('4')
        browser.tab_to('#pause-reason')
        browser.press('new disks', Keys.ENTER)
        browser.until_text('.head', 'paused')
        self.assertEqual(server.posted, [('pause 3', {'until': '4h', 'reason': 'new disks'})])
        self.assertIn('new disks', browser.text('dl'))
        self.assertEqual(browser.run('return document.activeElement.textContent'), 'Resume')
        browser.press(Keys.ENTER)
        browser.until(lambda: 'paused' not in browser.text('.head'))
        self.assertEqual(server.posted[1][0], 'resume 3')

    def test_pauses_until_a_time_of_the_zone_that_is_shown(self):
        self.open('#/tasks/3', 'Definition')
        browser.tab_to('.buttons button:nth-child(2)')
        browser.press(Keys.ENTER)
        browser.run("""const period = document.getElementById('pause-period');
                       period.value = 'time';
                       period.dispatchEvent(new Event('change'));
                       document.getElementById('pause-time').value = '2027-07-01T12:00';""")
        self.assertIn('Until (', browser.text('dialog'))
        browser.tab_to('#pause-reason')
        browser.press(Keys.ENTER)
        browser.until(lambda: server.posted)
        self.assertEqual(server.posted[0][1]['until'], '2027-07-01T10:00:00Z')  # Paris in summer

    def test_runs_the_task_and_shows_how_the_run_ended(self):
        self.open('#/tasks/4', 'Definition')
        browser.tab_to('.buttons button')
        browser.press(Keys.ENTER)
        browser.until_text('main', 'The run ended at')
        self.assertIn('ok, after 0.25 s.', browser.text('main'))
        self.assertEqual(server.posted, [('run 4', {})])

    def test_acts_from_the_menu_of_a_row(self):
        self.open_tasks()
        browser.tab_to('.row.task')
        browser.press(Keys.ARROW_DOWN, 'm', Keys.ARROW_DOWN, Keys.ENTER)
        browser.until(lambda: browser.all('dialog[open]'))
        browser.tab_to('#pause-reason')
        browser.press('why not', Keys.ENTER)
        browser.until_text('.row.task:nth-child(2) .cell-state', 'paused')
        self.assertEqual(server.posted, [('pause 2', {'until': '1h', 'reason': 'why not'})])

    def test_says_why_a_change_was_refused(self):
        self.open('#/tasks/3', 'Definition')
        server.do = lambda *_: None
        self.addCleanup(lambda: vars(server).pop('do', None))
        browser.run("document.cookie = 'x=1'")
        server.sessions.clear()
        browser.find('.buttons button').click()
        browser.until_text('#notice', 'Task 3: The token of the session is missing.')
        server.sessions.add('secret')

    def test_shows_gauges_for_the_performance_data(self):
        self.open('#/tasks/4', 'Definition')
        browser.find('caption ~ tbody tr')
        rows = [row.text for row in browser.all('caption ~ tbody tr')]
        self.assertIn('load 0.5 ✓ ok', rows[0])
        self.assertIn('temp 91 % ✗ critical', rows[1])

    def test_shows_a_long_output_in_part_until_asked(self):
        server.outputs[4] = 'x' * 1000000
        self.open('#/tasks/4', 'Definition')
        self.assertLess(browser.run("return document.querySelector('pre').textContent.length"), 30000)
        browser.tab_to('pre + button')
        browser.press(Keys.ENTER)
        self.assertEqual(browser.run("return document.querySelector('pre').textContent.length"), 1000000)

    def test_names_a_task_that_does_not_exist(self):
        self.open('#/tasks/4000', 'Task 4000 does not exist.')


class ZoneTest(PageTest):
    def test_switches_every_time_between_the_zone_of_the_browser_and_utc(self):
        for address in ('#/', '#/tasks', '#/tasks/3'):
            with self.subTest(address):
                self.open(address)
                browser.until(lambda: len(browser.all('time')) > 1)
                self.assertEqual(self.zones(), {'CET'})
                self.switch()
                self.assertEqual(self.zones(), {'UTC'})
                self.switch()
                self.assertEqual(self.zones(), {'CET'})

    def test_keeps_the_zone_for_the_next_visit(self):
        self.open('#/', 'The daemon is running')
        self.switch()
        self.addCleanup(self.switch)
        self.open('#/', 'The daemon is running')
        self.assertEqual(self.zones(), {'UTC'})
        self.assertEqual(browser.find('#utc').get_attribute('aria-checked'), 'true')

    @staticmethod
    def switch():
        browser.tab_to('#utc')
        browser.press(Keys.SPACE)

    @staticmethod
    def zones():
        return set(browser.run("return [...document.querySelectorAll('time, [data-zone]')].map((element) =>"
                               " element.textContent.split(' ').at(-1))"))


class BannerTest(PageTest):
    def test_shows_a_server_that_is_silent_with_the_time_of_its_last_answer(self):
        self.open('#/', 'The daemon is running')
        server.is_mute = True
        silent = time.monotonic()
        browser.until_text('#banner', 'The console has had no answer since', 8)
        self.assertGreater(time.monotonic() - silent, 3.5)  # the last event may have been a second old
        self.assertRegex(browser.text('#banner'), r'since \d\d:\d\d:\d\d CET')
        server.is_mute = False
        browser.until(lambda: browser.text('#banner') == '')

    def test_shows_a_database_or_a_daemon_that_is_silent(self):
        self.open('#/', 'The daemon is running')
        for what in ('database', 'daemon'):
            server.send('silent', {'what': what, 'since': '2026-01-02T03:04:05Z'})
            browser.until_text('#banner', f'The {what} has')
            self.assertIn('2026-01-02 04:04:05 CET', browser.text('#banner'))
        server.send('ok', {})
        browser.until(lambda: browser.text('#banner') == '')


class StreamTest(PageTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.keep_one_tab)

    @staticmethod
    def keep_one_tab():
        driver = browser.driver
        for tab in driver.window_handles[:-1]:
            driver.switch_to.window(tab)
            driver.close()
        driver.switch_to.window(driver.window_handles[-1])

    def test_is_shared_among_the_tabs_and_outlives_the_first(self):
        driver = browser.driver
        self.open('#/', 'The daemon is running')
        first = driver.current_window_handle
        driver.switch_to.new_window('tab')
        second = driver.current_window_handle
        self.open('#/', 'The daemon is running', hears=False)
        browser.until(lambda: len(server.streams) == 1, what='one stream')
        server.send('totals', server.totals() | {'late': 111})
        browser.until_text('.tiles', '111')
        driver.switch_to.window(first)
        browser.until_text('.tiles', '111')
        driver.close()
        driver.switch_to.window(second)
        browser.until(lambda: self.hears(222))

    def test_ends_in_all_tabs_with_a_logout(self):
        driver = browser.driver
        self.addCleanup(LoginTest.log_in)
        self.open('#/', 'The daemon is running')
        first = driver.current_window_handle
        driver.switch_to.new_window('tab')
        self.open('#/tasks', 'check-0000003', hears=False)
        browser.tab_to('.person > button:last-child')
        browser.press(Keys.ENTER)
        browser.until_text('h1', 'Log in')
        driver.switch_to.window(first)
        browser.until_text('h1', 'Log in')

    @staticmethod
    def hears(number):
        server.send('totals', server.totals() | {'late': number})
        return str(number) in browser.text('.tiles')


class HostileTest(PageTest):
    """Data changes texts, and never the elements of the page."""

    def shape(self, address, text):
        self.open(address, text)
        # Every element with its attributes; not the values, which hold times and escaped texts.
        return browser.run("""return [...document.querySelectorAll('body *')].map((element) =>
            [element.tagName, ...element.getAttributeNames()].join(' '))""")

    def shapes(self, names):
        for number, name in enumerate(names, start=1):
            server.tasks.change(number, name=name, plugin=name, calendar=name)
        everything = ' '.join(names)
        server.tasks.change(1, parameters=everything, output_file=everything, archive=everything, zone=everything,
                            paused=True, pause={'since': text_of(now()), 'until': None, 'by': everything,
                                                'reason': everything})
        server.outputs[1] = f"{everything.replace('|', '')}|figure=1;2;3"
        server.explanation[1] = names
        server.plugins = [{'plugin': name, 'failing': 1} for name in names]
        server.runs[1] = [server.run(i, 'ok') | {'reason': name} for i, name in enumerate(names)]
        return [self.shape('#/', 'Failing tasks by plugin'), self.shape('#/tasks', 'check-0000023'),
                self.shape('#/tasks/1', 'Time zone')]

    def test_changes_no_element(self):
        harmless = self.shapes(['harmless'] * len(HOSTILE))
        for shape, expected in zip(self.shapes(HOSTILE), harmless, strict=True):
            self.assertEqual(shape, expected)
            self.assertIsNone(browser.run('return window.hacked'))
        self.assertIn('\\u{202e}', browser.text('dl'))
        self.assertIsNone(UNSEEN.search(browser.run('return document.body.textContent')))

    def test_survives_a_long_line_and_labels_of_every_kind(self):
        labels = ' '.join(f"'{name.replace(chr(39), '')}'=1;2;3" for name in HOSTILE)
        server.outputs[1] = ''.join(HOSTILE) * 5000 + '|' + labels
        self.open('#/tasks/1', 'Definition')
        self.assertGreater(len(browser.all('meter')), 5)
        self.assertIsNone(browser.run('return window.hacked'))
        self.assertIsNone(UNSEEN.search(browser.run('return document.body.textContent')))


class AddressTest(PageTest):
    def test_of_another_page_leads_to_the_overview(self):
        self.open('#/tasks', 'check-0000003')
        for address in ('#/nothing', '#/tasks/../x', '#//evil.example', '#<img src=x>', '#main'):
            with self.subTest(address):
                browser.run("location.hash = '#/tasks'")
                browser.until_text('h1', 'Tasks')
                browser.run('location.hash = arguments[0]', address)
                browser.until_text('h1', 'Overview')


@unittest.skipUnless(os.path.exists(AXE), 'SKIPPED: KODU_TEST_AXE names no axe-core')
class AccessibilityTest(PageTest):
    PAGES = (('#/', 'Due in the next day'), ('#/tasks', 'check-0000003'), ('#/tasks/3', 'Definition'))

    def violations(self, *rules):
        browser.run(Path(AXE).read_text(encoding='utf-8'))
        options = {'resultTypes': ['violations'], 'preload': False, **({'runOnly': rules} if rules else {})}
        found = browser.driver.execute_async_script(
            "axe.run(document, arguments[0]).then(arguments[1], (error) => arguments[1]({violations: [{id: "
            "String(error), nodes: []}]}))", options)
        return [(item['id'], [node['html'][:200] for node in item['nodes'][:3]]) for item in found['violations']]

    def check_pages(self, *rules):
        for address, text in self.PAGES:
            with self.subTest(address):
                server.tasks.change(1, late_seconds=7, running=True)
                server.tasks.change(2, paused=True)
                self.open(address, text)
                self.assertEqual(self.violations(*rules), [])

    def test_has_no_violation_on_any_page(self):
        self.check_pages()

    def test_has_none_on_a_phone(self):
        browser.driver.set_window_size(500, 900)
        self.check_pages()

    def test_has_enough_contrast_in_the_dark(self):
        self.addCleanup(self.prefer, 'light')
        self.prefer('dark')
        self.check_pages('color-contrast')
        self.assertEqual(browser.run("return getComputedStyle(document.body).backgroundColor"), 'rgb(20, 23, 27)')

    @staticmethod
    def prefer(scheme):
        browser.driver.execute_cdp_cmd('Emulation.setEmulatedMedia',
                                       {'features': [{'name': 'prefers-color-scheme', 'value': scheme}]})

    def test_has_none_with_a_menu_a_dialog_and_a_banner(self):
        self.open_tasks()
        browser.tab_to('.row.task')
        browser.press('m')
        self.assertEqual(self.violations(), [])
        browser.press(Keys.ARROW_DOWN, Keys.ENTER)
        browser.until(lambda: browser.all('dialog[open]'))
        self.assertEqual(self.violations(), [])
        browser.press(Keys.ESCAPE)
        server.send('silent', {'what': 'daemon', 'since': '2026-01-02T03:04:05Z'})
        browser.until_text('#banner', 'The daemon has')
        self.assertEqual(self.violations(), [])

    def test_has_none_at_the_login(self):
        self.addCleanup(LoginTest.log_in)
        server.sessions.clear()
        self.open('#/', 'Log in')
        self.assertEqual(self.violations(), [])


class FilesTest(unittest.TestCase):
    """Of the page as it is shipped."""

    files = sorted(path for path in PAGE.rglob('*') if path.is_file())

    def test_are_small(self):
        size = sum(len(gzip.compress(path.read_bytes())) for path in self.files)
        print(f'the page has {len(self.files)} files of {size} bytes, compressed')
        self.assertLess(size, 150000)

    def test_name_no_other_host_and_write_no_markup(self):
        for path in self.files:
            text = path.read_text(encoding='utf-8').replace('http://www.w3.org/2000/svg', '')
            with self.subTest(path.name):
                self.assertNotRegex(text, r'https?://|innerHTML|outerHTML|insertAdjacentHTML|document\.write|'
                                          r'createContextualFragment|DOMParser|\beval\b|new Function|setHTML')

    def test_are_all_asked_for_at_once(self):
        index = (PAGE / 'index.html').read_text(encoding='utf-8')
        named = set(re.findall(r'"/app/(\w+\.js)"', index))
        self.assertEqual(named, {path.name for path in self.files if path.suffix == '.js'})
        self.assertNotRegex(index, r'<style|style=|<script(?! type="module" src=)| on\w+=')


class StandInTest(unittest.TestCase):
    def test_answers_in_the_shapes_of_koductl(self):
        schema = json.loads(SCHEMA.read_text(encoding='utf-8'))
        stand_in = StandIn(20)
        self.addCleanup(stand_in.shutdown)
        for shape, answer in (('status', [make_task(3)]), ('explain', stand_in.explain(3)),
                              ('history', stand_in.history(3)), ('logs', stand_in.logs(3))):
            with self.subTest(shape):
                jsonschema.validate(answer, {**schema, '$ref': f'#/$defs/{shape}'})


if __name__ == '__main__':
    unittest.main()
