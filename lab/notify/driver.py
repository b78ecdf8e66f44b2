"""Breaks the delivery of events, and judges it; lab/notify/run describes it."""

import argparse
import json
import os
import random
import signal
import socket
import subprocess
import sys
import threading
import time
from collections import Counter
from pathlib import Path

from lab.shared.database import Database

WRITERS, TASKS = 4, 5
READERS = ('http', 'command')
PATIENCE = 90  # seconds for the deliveries after the last fault


class Writer(threading.Thread):
    """Lets its tasks fail and recover, in sessions that the server's crashes end."""

    def __init__(self, database, number, seed):
        super().__init__()
        self.database, self.number, self.chance = database, number, random.Random(seed)
        self.stopping = threading.Event()

    def run(self):
        while not self.stopping.is_set():
            try:
                with subprocess.Popen(self.database.psql_command('-d', 'kodu'),
                                      stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL, text=True) as session:
                    self.write(session)
            except OSError:  # also at the end of the with, which writes what is left
                time.sleep(0.3)

    def write(self, session):
        print('SET synchronous_commit = off;', file=session.stdin, flush=True)
        while not self.stopping.is_set() and session.poll() is None:
            task = self.number * TASKS + self.chance.randrange(TASKS) + 1
            late = self.chance.random() ** 4 * 0.5
            print(f"""UPDATE kodu_cron_plugin SET cron_status = 'PROCESS' WHERE cron_id = {task};
                BEGIN;
                UPDATE kodu_cron_plugin
                SET cron_status = CASE WHEN run_failing_since IS NULL THEN 'FAILED' ELSE 'OK' END,
                    cron_last_exec = cron_next_exec, cron_next_exec = cron_next_exec + cron_interval
                WHERE cron_id = {task};
                SELECT pg_sleep({late:.3f});
                COMMIT;""", file=session.stdin, flush=True)
            time.sleep(0.02 + late)


class Run:
    def __init__(self, home, seconds, seed):
        self.home, self.seconds, self.chance = Path(home), seconds, random.Random(seed)
        self.database = Database(self.home / 'postgres', timeout=60)
        with socket.socket() as free:
            free.bind(('127.0.0.1', 0))
            self.port = free.getsockname()[1]
        self.notifiers, self.endpoint, self.faults = {}, None, Counter()

    def received(self, reader):
        return self.home / f'received.{reader}'

    def prepare(self):
        self.database.query(f"""
            INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path, plugin_type)
            VALUES (1, 'lab', '/bin/true', 'cron');
            INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_next_exec,
                                          cron_log_file)
            SELECT n, 1, '60 s', now() + interval '1 hour', '$SERVICEID_$DATE'
            FROM generate_series(1, {WRITERS * TASKS}) AS n;
            SELECT kodu_events('http'); SELECT kodu_events('command')""")
        conninfo = (self.home / 'postgres/conninfo').read_text().strip()
        target = {'http': f'http: http://127.0.0.1:{self.port}/\nbatch: 7',
                  'command': f"command: [/bin/sh, -c, 'cat >>{self.received('command')}']"}
        for reader in READERS:
            self.received(reader).touch()
            file = self.home / f'{reader}.yaml'
            file.touch(mode=0o600)
            file.write_text(f'database: {conninfo} dbname=kodu\nreader: {reader}\ntries: 1000\n'
                            f'wait: 0.05\nlongest_wait: 0.5\ntimeout: 5\n{target[reader]}\n')

    def start_endpoint(self):
        if self.endpoint is None:
            self.endpoint = subprocess.Popen([
                sys.executable, '-B', str(Path(__file__).parent / 'endpoint.py'), str(self.port),
                str(self.received('http')), str(self.home / 'mode')])

    def start_notifier(self, reader):
        with open(self.home / f'{reader}.log', 'a', encoding='utf-8') as log:
            self.notifiers[reader] = subprocess.Popen(
                [str(self.home / 'kodunotify'), '-f', str(self.home / f'{reader}.yaml')],
                stderr=log, start_new_session=True)

    # Faults -----------------------------------------------------------------------------------

    def kill_notifier(self, how=signal.SIGKILL):
        reader = self.chance.choice(READERS)
        self.notifiers[reader].send_signal(how)
        self.notifiers[reader].wait()
        time.sleep(self.chance.random())
        self.start_notifier(reader)

    def stop_notifier(self):
        self.kill_notifier(signal.SIGTERM)

    def kill_endpoint(self):
        self.endpoint.kill()
        self.endpoint.wait()
        self.endpoint = None
        time.sleep(self.chance.random() * 2)
        self.start_endpoint()

    def answer_with_errors(self):
        (self.home / 'mode').touch()
        time.sleep(self.chance.random() * 2)
        (self.home / 'mode').unlink()

    def end_sessions(self):
        self.database.query("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                            "WHERE application_name = 'kodu_notify'")

    def crash_server(self):
        self.database.restart_at_once()

    def inject(self):
        weights = {self.kill_notifier: 4, self.stop_notifier: 2, self.kill_endpoint: 3,
                   self.answer_with_errors: 2, self.end_sessions: 3, self.crash_server: 1}
        fault = self.chance.choices(list(weights), list(weights.values()))[0]
        self.faults[fault.__name__] += 1
        fault()

    # The run ----------------------------------------------------------------------------------

    def go(self, seed):
        self.prepare()
        self.start_endpoint()
        for reader in READERS:
            self.start_notifier(reader)
        writers = [Writer(self.database, number, seed + number) for number in range(WRITERS)]
        for writer in writers:
            writer.start()
        end = time.monotonic() + self.seconds
        while time.monotonic() < end:
            time.sleep(self.chance.random() * 2)
            self.inject()
        for writer in writers:
            writer.stopping.set()
        for writer in writers:
            writer.join()
        self.await_deliveries()
        return self.judge()

    def await_deliveries(self):
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            left = sum(self.database.number(f"SELECT count(*) FROM kodu_events('{reader}')")
                       for reader in READERS)
            if left == 0:
                return
            time.sleep(0.5)
        print(f'not all was delivered within {PATIENCE} s')

    def judge(self):
        events = {key for [key] in self.database.query('SELECT key FROM kodu_event')}
        dead = self.database.number('SELECT count(*) FROM kodu_event_dead')
        print('faults:', ', '.join(f'{count} {name}' for name, count in sorted(self.faults.items())))
        print(f'events: {len(events)}, put aside: {dead}')
        good = bool(events) and dead == 0
        for reader in READERS:
            taken = [json.loads(line) for line in self.received(reader).read_text().splitlines()]
            keys = Counter(event['key'] for event in taken)
            contents = {(event['key'], event['event'], event['task'], event['due']) for event in taken}
            lost, unknown = len(events - set(keys)), len(set(keys) - events)
            doubled = len(contents) - len(keys)
            repeated = len(taken) - len(keys)
            print(f'{reader}: received {len(keys)}, lost {lost}, unknown {unknown}, '
                  f'doubled {doubled}, repeated with the same key {repeated}')
            good = good and lost == unknown == doubled == 0
        return good

    def stop(self):
        for process in [*self.notifiers.values(), self.endpoint]:
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--home', required=True)
    parser.add_argument('--seconds', type=int, required=True)
    parser.add_argument('--seed', type=int, required=True)
    arguments = parser.parse_args()
    run = Run(arguments.home, arguments.seconds, arguments.seed)
    signal.signal(signal.SIGTERM, lambda *_: os._exit(run.stop() or 1))
    try:
        good = run.go(arguments.seed)
    finally:
        run.stop()
    print('OK' if good else 'VIOLATIONS')
    sys.exit(0 if good else 1)


main()
