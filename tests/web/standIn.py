"""A stand-in for koduweb in tests of its page: the same answers, from tasks that a test generates and changes.

It runs in threads of the test's process, which may change what it answers at any time: `tasks`, `accepts`,
`is_mute`, `may_change`. Nothing here checks rights or forms; koduweb's own tests do that.
"""

import json
import mimetypes
import queue
import threading
import time
from datetime import datetime, timedelta, timezone
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import parse_qs, urlsplit

PAGE = Path(__file__).resolve().parents[2] / 'web/page'
TOKEN = '0' * 32
CSP = ("default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
       "base-uri 'none'; form-action 'self'; frame-ancestors 'none'; require-trusted-types-for 'script'; "
       "trusted-types 'none'")
CONDITIONS = {
    'failed': lambda task: task['status'] == 'FAILED',
    'late': lambda task: task['late_seconds'] > 0,
    'running': lambda task: task['running'],
    'paused': lambda task: task['paused'],
    'deleting': lambda task: task['deleted'],
    'never_ran': lambda task: task['last_due'] is None,
    'failed_today': lambda task: task['failures_day'] > 0,
}
SORT_KEYS = {
    'id': lambda task: task['id'],
    'name': lambda task: task['name'],
    'plugin': lambda task: task['plugin'],
    'status': lambda task: task['status'] or '',
    'late': lambda task: -task['late_seconds'],
    'last': lambda task: task['last_due'] or '',
    'next': lambda task: task['due'] or '~',
    'every': lambda task: task['every_seconds'],
    'failures': lambda task: task['failures_day'],
    'failing': lambda task: task['failing_since'] or '~',
}


def text_of(moment):
    return moment.strftime('%Y-%m-%dT%H:%M:%SZ')


def now():
    return datetime.now(timezone.utc).replace(microsecond=0)


def make_task(number, **changes):
    """A task as the state view shows it; about one in ten has failed."""
    begun = now() - timedelta(seconds=number % 60)
    failed = number % 10 == 3
    task = {
        'id': number, 'name': f'check-{number:07}', 'plugin': f'/opt/checks/check_{number % 7}',
        'parameters': '-w 5 -c 10', 'status': 'FAILED' if failed else 'OK',
        'due': text_of(begun + timedelta(minutes=5)), 'last_due': text_of(begun), 'late_seconds': 0,
        'every_seconds': 300, 'calendar': None, 'zone': None, 'retries': 1, 'retry_after_seconds': 30,
        'retries_used': 0, 'failures_hour': int(failed), 'failures_day': 3 * failed,
        'held_from': None,
        'failing_since': text_of(begun - timedelta(hours=1)) if failed else None, 'running': False,
        'retry_due': None, 'paused': False, 'pause': None, 'deleted': False,
        'output_file': f'/var/lib/kodu/output/{number}_last.txt', 'archive': f'/var/lib/kodu/output/{number}'}
    return task | changes


class Tasks:
    """Tasks by id from 1 to `count`, made when they are asked for, with the changes of the test."""

    def __init__(self, count):
        self.count = count
        self.changes = {}  # id to fields that differ

    def get(self, number):
        return make_task(number, **self.changes.get(number, {}))

    def change(self, number, **fields):
        self.changes[number] = self.changes.get(number, {}) | fields

    def select(self, query):
        """The tasks that a query means, in its order; a generator for all tasks by id."""
        key, _, direction = query.get('sort', 'id').partition(',')
        conditions = [CONDITIONS[name] for name in CONDITIONS if query.get(name)]
        search = query.get('search', '').lower()
        numbers = range(1, self.count + 1)
        if not conditions and not search and key == 'id':
            return numbers if direction != 'desc' else numbers[::-1]
        tasks = [task for task in map(self.get, numbers)
                 if search in task['name'].lower() and all(test(task) for test in conditions)]
        tasks.sort(key=lambda task: (SORT_KEYS[key](task), task['id']), reverse=direction == 'desc')
        return [task['id'] for task in tasks]


class StandIn(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 100

    def __init__(self, count=1000, port=0):
        super().__init__(('127.0.0.1', port), Handler)
        self.reset(count)
        self.streams = []
        self.opened = 0       # streams so far
        threading.Thread(target=self.serve_forever, daemon=True).start()
        threading.Thread(target=self.beat, daemon=True).start()

    def reset(self, count=1000):
        self.tasks = Tasks(count)
        self.outputs = {}     # id to the text of its latest output
        self.runs = {}        # id to the rows of its history, latest first
        self.explanation = {}  # id to sentences
        self.requests = []    # "METHOD path?query" of each
        self.posted = []      # path and body of each change
        self.is_mute = False  # True: streams are silent, requests are not answered
        self.may_change = True
        self.sessions = {'secret'}
        self.silent = None
        self.plugins = [{'plugin': '/opt/checks/check_3', 'failing': 15}]

    @property
    def address(self):
        return f'http://127.0.0.1:{self.server_address[1]}'

    def handle_error(self, request, client_address):
        """A browser that closes a connection is no error."""

    def send(self, event, data):
        """Sends an event to every stream."""
        for stream in list(self.streams):
            stream.put((event, data))

    def beat(self):
        while True:
            if not self.is_mute:
                self.send('alive', {'now': text_of(now())})
            time.sleep(1)

    def totals(self):
        changed = [self.tasks.get(number) for number in self.tasks.changes]
        return {'tasks': self.tasks.count, 'failing': self.tasks.count // 10,
                'late': sum(task['late_seconds'] > 0 for task in changed),
                'running': sum(task['running'] for task in changed),
                'paused': sum(task['paused'] for task in changed),
                'deleting': sum(task['deleted'] for task in changed)}

    def overview(self):
        hour = now().replace(minute=0, second=0)
        return {
            'now': text_of(now()),
            'daemon': {'alive': True, 'since': text_of(hour - timedelta(days=3)), 'last_sign': text_of(now())},
            'totals': self.totals(), 'yesterday': self.totals() | {'failing': 1},
            'day': [{'at': text_of(hour - timedelta(hours=23 - i)), 'runs': 3600 * (i + 1), 'failures': i % 5,
                     'late_max_seconds': 2 * i} for i in range(24)],
            'failures_by_plugin': self.plugins,
            'due': [{'at': text_of(hour + timedelta(minutes=15 * i)), 'tasks': 100 + 300 * (i % 24 == 8)}
                    for i in range(96)]}

    def explain(self, number):
        task = self.tasks.get(number)
        sentences = [f"Task {number} ({task['name']}) runs {task['plugin']} with 2 arguments, every 5m.",
                     f'Its last run was due at {now():%Y-%m-%d %H:%M:%S} UTC (5s ago) and ended with status OK.']
        return task | {'explanation': self.explanation.get(number, sentences), 'arguments': ['-w', '5, 10']}

    def history(self, number):
        if number not in self.runs:
            outcomes = ['ok', 'ok', 'failed', 'retried', 'ok', 'skipped', 'interrupted']
            self.runs[number] = [self.run(i, outcomes[i % 7]) for i in range(60)]
        return self.runs[number]

    @staticmethod
    def run(age, outcome):
        ended = now() - timedelta(minutes=5 * age)
        started = None if outcome == 'skipped' else text_of(ended - timedelta(seconds=2))
        return {'ended_at': text_of(ended), 'outcome': outcome, 'due': text_of(ended - timedelta(seconds=3)),
                'started_at': started, 'seconds': None if started is None else 1.5 + age % 3,
                'reason': 'overrun' if outcome == 'skipped' else None, 'attempt': 1, 'periods': 1}

    def logs(self, number):
        output = self.outputs.get(number, 'OK - load 0.5 | load=0.5;5;10;0; temp=91%;80;90')
        return [{'id': number, 'name': self.tasks.get(number)['name'], 'time': text_of(now()),
                 'failed': number % 10 == 3, 'path': f'/var/lib/kodu/output/{number}_last.txt', 'output': output}]

    def do(self, number, verb, body):
        """Carries out a change as the database would, and tells the streams."""
        self.posted.append((f'{verb} {number}', body))
        if verb == 'run':
            end = {'ended_at': text_of(now() + timedelta(seconds=1))}
            self.runs[number] = [self.run(0, 'skipped') | end, self.run(0, 'ok') | end | {'seconds': 0.25},
                                 *self.history(number)]
        else:
            pause = {'since': text_of(now()), 'until': None, 'by': 'alice', 'reason': body.get('reason', '')}
            self.tasks.change(number, paused=verb == 'pause', pause=pause if verb == 'pause' else None)
        self.send('tasks', {'ids': [number]})
        self.send('totals', self.totals())


class Handler(BaseHTTPRequestHandler):
    protocol_version = 'HTTP/1.1'

    def log_message(self, *_):
        pass

    def answer(self, status, body=None, kind='application/json', **headers):
        content = b'' if body is None else body if isinstance(body, bytes) else json.dumps(body).encode()
        self.send_response(status)
        for name, value in {'Content-Type': kind, 'Content-Length': len(content),
                            'Content-Security-Policy': CSP, 'X-Content-Type-Options': 'nosniff',
                            'Cache-Control': 'no-cache', **headers}.items():
            self.send_header(name.replace('_', '-'), str(value))
        self.end_headers()
        self.wfile.write(content)

    def is_logged_in(self):
        cookie = self.headers.get('Cookie', '')
        return any(f'kodu_session={session}' in cookie for session in self.server.sessions)

    def wait_while_mute(self):
        while self.server.is_mute:
            time.sleep(0.05)

    def do_GET(self):
        url = urlsplit(self.path)
        self.server.requests.append(f'GET {self.path}')
        if not url.path.startswith('/api/v1/'):
            self.static(url.path)
            return
        self.wait_while_mute()
        path = url.path.removeprefix('/api/v1/').split('/')
        query = {name: values[-1] for name, values in parse_qs(url.query).items()}
        if not self.is_logged_in():
            self.answer(401, {'error': 'You are not logged in. Log in again.'})
        elif path == ['stream']:
            self.stream()
        else:
            self.read(path, query)

    def static(self, path):
        file = PAGE / (path.lstrip('/') or 'index.html')
        if not file.is_file():
            self.answer(404, {'error': f'{path} does not exist.'})
            return
        kind = mimetypes.guess_type(file.name)[0]
        self.answer(200, file.read_bytes(), 'text/javascript' if file.suffix == '.js' else kind)

    def read(self, path, query):
        server = self.server
        if path == ['session']:
            self.answer(200, {'role': 'alice', 'may_change': server.may_change, 'token': TOKEN,
                              'anonymous': False, 'read_only': False})
        elif path == ['overview']:
            self.answer(200, server.overview())
        elif path == ['tasks']:
            self.answer(200, self.page(query))
        elif path == ['tasks', 'count']:
            self.answer(200, {'tasks': len(server.tasks.select(query))})
        elif not 1 <= int(path[1]) <= server.tasks.count:
            self.answer(404, {'error': f'Task {path[1]} does not exist.'})
        else:
            number = int(path[1])
            next_times = [text_of(now() + timedelta(minutes=5 * i)) for i in range(10)]
            self.answer(200, {'': server.explain, 'history': server.history, 'logs': server.logs,
                              'next': lambda _: next_times}[path[2] if len(path) > 2 else ''](number))

    def page(self, query):
        numbers = self.server.tasks.select(query)
        limit, begin = int(query['limit']), 0
        if query.get('after'):
            begin = numbers.index(int(query['after'])) + 1
        shown = numbers[begin:begin + limit]
        rest = begin + limit < len(numbers)
        return {'tasks': [self.server.tasks.get(number) for number in shown],
                'next': str(shown[-1]) if rest else None}

    def stream(self):
        events = queue.Queue()
        self.send_response(200)
        self.send_header('Content-Type', 'text/event-stream')
        self.send_header('Connection', 'close')
        self.end_headers()
        self.close_connection = True
        events.put(('totals', self.server.totals()))
        if self.server.silent:
            events.put(('silent', self.server.silent))
        self.server.streams.append(events)
        self.server.opened += 1
        try:
            while self.is_logged_in():
                name, data = events.get()
                self.wfile.write(f'event: {name}\ndata: {json.dumps(data)}\n\n'.encode())
        except OSError:
            pass
        finally:
            self.server.streams.remove(events)

    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers.get('Content-Length', 0))) or '{}')
        path = self.path.removeprefix('/api/v1/').split('/')
        self.server.requests.append(f'POST {self.path}')
        self.wait_while_mute()
        if path == ['login']:
            self.login(body)
        elif not self.is_logged_in() or self.headers.get('X-Kodu-Token') != TOKEN:
            self.answer(403, {'error': 'The token of the session is missing. Load the page again.'})
        elif path == ['logout']:
            self.server.sessions.clear()
            self.answer(204, Set_Cookie='kodu_session=; Max-Age=0; Path=/')
        else:
            self.server.do(int(path[1]), path[2], body)
            self.answer(200, {'done': True})

    def login(self, body):
        if body != {'role': 'alice', 'password': 'right'}:
            self.answer(401, {'error': 'The role or its password is wrong.'})
            return
        self.server.sessions.add('secret')
        self.answer(200, {'role': 'alice', 'may_change': True, 'token': TOKEN},
                    Set_Cookie='kodu_session=secret; HttpOnly; SameSite=Strict; Path=/')


if __name__ == '__main__':
    import sys
    print(StandIn(int(sys.argv[1]) if len(sys.argv) > 1 else 1000000, 8080).address, 'role alice, password right')
    threading.Event().wait()
