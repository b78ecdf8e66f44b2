"""Called by lab/alerts/run: faults.py HOME [FAULT]..."""

import contextlib
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import time
import urllib.parse
import urllib.request
from pathlib import Path

from lab.shared.database import ROOT, Database
from lab.shared.processes import children_of

LIMIT = 90  # seconds from a fault to its alert
INTERVAL = 15
TASKS = """
INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('echo', '/bin/echo'), ('sleep', '/bin/sleep');
INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_log_file, cron_parameter)
SELECT plugin_id, interval '5 s', '$SERVICEID_$DATE.txt', 'fine' FROM kodu_plugins, generate_series(1, 20)
WHERE plugin_name = 'echo'
"""
# The workers are busy for longer than the fault takes.
SLEEPERS = """
INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_log_file, cron_parameter, cron_retries,
                              cron_next_exec)
SELECT plugin_id, interval '1 hour', '$SERVICEID_$DATE.txt', '600', 0,
       date_trunc('second', now() AT TIME ZONE 'UTC') + interval '4 s'
FROM kodu_plugins, generate_series(1, 4) WHERE plugin_name = 'sleep'
"""


def free_port():
    with socket.socket() as listener:
        listener.bind(('127.0.0.1', 0))
        return listener.getsockname()[1]


def wait_for(what, condition, limit=60):
    """Returns the seconds that it took."""
    begin = time.monotonic()
    while not condition():
        if time.monotonic() - begin > limit:
            raise TimeoutError(f'{what}: not within {limit} s')
        time.sleep(0.5)
    return time.monotonic() - begin


class Programs:
    """The daemon, the exporter and the servers, which end with this process."""

    def __init__(self, home):
        self.home, self.database = home, Database(home / 'postgres', timeout=20)
        self.exporter_port, self.port, self.manager_port = free_port(), free_port(), free_port()
        self.processes = {}

    def start(self, name, *command):
        log = open(self.home / f'{name}.log', 'a', encoding='utf-8')
        self.processes[name] = subprocess.Popen(
            ['setpriv', '--pdeathsig', 'KILL', '--', *command], stdin=subprocess.DEVNULL,
            stdout=log, stderr=log, cwd=ROOT)

    def start_daemon(self):
        self.start('daemon', 'build/koducron', '-f', str(self.home / 'cron.conf'))

    def end(self, name):
        process = self.processes.pop(name)
        children = children_of(process.pid)  # plugins, which outlive the daemon
        process.kill()
        process.wait()
        for pid, _ in children:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    def forget_samples(self):
        """The daemon's restarts after one fault would be an alert of the next one."""
        for name in ('prometheus', 'alertmanager'):
            self.end(name)
            shutil.rmtree(self.home / name)
        self.start_monitoring()

    def end_all(self):
        for name in list(self.processes):
            self.end(name)

    def write_configuration(self):
        (self.home / 'prometheus.yml').write_text(f"""
global: {{scrape_interval: {INTERVAL}s, evaluation_interval: {INTERVAL}s}}
rule_files: [{ROOT / 'ops/metrics/koducron.rules.yaml'}]
alerting: {{alertmanagers: [{{static_configs: [{{targets: ['127.0.0.1:{self.manager_port}']}}]}}]}}
scrape_configs:
  - {{job_name: koducron, static_configs: [{{targets: ['127.0.0.1:{self.exporter_port}']}}]}}
""")
        (self.home / 'alertmanager.yml').write_text('route: {receiver: none}\nreceivers: [{name: none}]\n')

    def start_all(self):
        self.write_configuration()
        self.database.query(TASKS)
        self.start_daemon()
        self.start('exporter', 'build/koduexporter', '-f', str(self.home / 'cron.conf'),
                   '--listen', f'127.0.0.1:{self.exporter_port}')
        self.start_monitoring()

    def start_monitoring(self):
        self.start('alertmanager', 'prometheus-alertmanager',
                   f'--config.file={self.home}/alertmanager.yml',
                   f'--storage.path={self.home}/alertmanager', '--cluster.listen-address=',
                   f'--web.listen-address=127.0.0.1:{self.manager_port}')
        self.start('prometheus', 'prometheus', f'--config.file={self.home}/prometheus.yml',
                   f'--storage.tsdb.path={self.home}/prometheus',
                   f'--web.listen-address=127.0.0.1:{self.port}')
        wait_for('the first samples', lambda: self.value('koducron_daemon_up') == 1)
        wait_for('the Alertmanager', self.has_alertmanager)

    def has_alertmanager(self):
        try:
            return self.ask(self.manager_port, '/api/v2/status') is not None
        except OSError:
            return False

    def ask(self, port, path):
        with urllib.request.urlopen(f'http://127.0.0.1:{port}{path}', timeout=10) as answer:
            return json.load(answer)

    def query(self, expression):
        return self.ask(self.port, '/api/v1/query?' + urllib.parse.urlencode({'query': expression}))

    def value(self, expression):
        try:
            result = self.query(expression)['data']['result']
        except OSError:
            return None
        return float(result[0]['value'][1]) if result else None

    def firing(self):
        """What Prometheus says, and what has reached the Alertmanager."""
        alerts = self.ask(self.port, '/api/v1/alerts')['data']['alerts']
        sent = self.ask(self.manager_port, '/api/v2/alerts?active=true')
        return ({alert['labels']['alertname'] for alert in alerts if alert['state'] == 'firing'},
                {alert['labels']['alertname'] for alert in sent})


def kill_daemon(programs):
    programs.end('daemon')
    return programs.start_daemon


def stop_daemon(programs):
    process = programs.processes['daemon']
    process.send_signal(signal.SIGSTOP)
    return lambda: process.send_signal(signal.SIGCONT)


def starve(programs):
    programs.database.query(SLEEPERS)

    def repair():
        programs.end('daemon')
        programs.database.query("UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_parameter = '600'")
        programs.start_daemon()
    return repair


def stop_database(programs):
    cluster = [str(ROOT / 'scripts/cluster')]
    folder = str(programs.home / 'postgres')
    subprocess.run([*cluster, 'stop', folder, '--immediate'], check=True)

    def repair():
        subprocess.run([*cluster, 'start', folder], check=True)
        programs.end('daemon')  # it has ended by itself; this reaps it
        programs.start_daemon()
    return repair


FAULTS = {'killed': (kill_daemon, 'KoducronDaemonDown'), 'stopped': (stop_daemon, 'KoducronOverdue'),
          'starved': (starve, 'KoducronOverdue'), 'database': (stop_database, 'KoducronDatabaseDown')}


def check_fault(programs, name):
    make, alert = FAULTS[name]
    seen = set()

    def is_sent():
        firing, sent = programs.firing()
        seen.update(firing)
        return alert in firing and alert in sent

    def is_over():
        firing, sent = programs.firing()
        seen.update(firing)
        return not firing and not sent

    repair = make(programs)
    fired = wait_for(f'{name}: {alert}', is_sent, LIMIT)
    wait_for(f'{name}: two more evaluations', lambda begin=time.monotonic(): is_sent() and
             time.monotonic() - begin > 2 * INTERVAL)
    repair()
    resolved = wait_for(f'{name}: resolved', is_over, 180)
    print(f'{name:9} {alert:21} fired after {fired:3.0f} s, resolved after {resolved:3.0f} s', flush=True)
    if seen != {alert}:
        raise AssertionError(f'{name}: also fired: {seen - {alert}}')


def check_dashboard(programs):
    board = json.loads((ROOT / 'ops/metrics/koducron.dashboard.json').read_text())
    expressions = [target['expr'] for panel in board['panels'] for target in panel['targets']]
    empty = expressions

    def have_results():
        nonlocal empty
        empty = [expression for expression in empty if not has_result(programs, expression)]
        return all('failing_since' in expression for expression in empty)  # no task is failing

    try:
        wait_for('the dashboard', have_results, 90)  # a rate needs samples of a minute
    except TimeoutError:
        raise AssertionError(f'the dashboard: no result: {empty}') from None
    print(f'{len(expressions)} queries of the dashboard are valid, {len(empty)} without a result', flush=True)


def has_result(programs, expression):
    asked = expression.replace('$instance', '.*').replace('$__rate_interval', '1m')
    return bool(programs.query(asked)['data']['result'])


def main():
    programs = Programs(Path(sys.argv[1]))
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    os.umask(0o077)
    try:
        programs.start_all()
        for number, name in enumerate(sys.argv[2:] or FAULTS):
            if number > 0:
                programs.forget_samples()
            check_fault(programs, name)
        check_dashboard(programs)
    except (AssertionError, TimeoutError) as error:
        print(f'lab/alerts/run: {error}')
        return 1
    finally:
        programs.end_all()
    return 0


if __name__ == '__main__':
    sys.exit(main())
