"""Several sessions change the same tasks while the daemon runs them."""

import argparse
import random
import subprocess
import sys
import threading
import time
from pathlib import Path

from lab.shared.database import ROOT, Database

SESSIONS = 4
TASKS = 60
SETTLE_SECONDS = 30

# What a plugin does: it ends well or badly, at once or after a while.
PLUGINS = {'good': 'exit 0', 'bad': 'exit 1', 'slow': 'sleep 1.5', 'slow-bad': 'sleep 1.5; exit 1'}


def make_plugins(folder):
    folder.mkdir(exist_ok=True)
    for name, script in PLUGINS.items():
        path = folder / name
        path.write_text(f'#!/bin/sh\necho {name}\n{script}\n', encoding='ascii')
        path.chmod(0o755)
    folder.chmod(0o755)
    return [str(folder / name) for name in PLUGINS]


def add_statement(draw, plugins):
    plugin = draw.choice(plugins)
    # Two failures of a task within one second end the daemon, as documented: their copies would have
    # the same name. So only a plugin that takes longer is retried, and no retry is followed by another.
    retries = draw.choice((0, 1)) if plugin.endswith('slow-bad') else 0
    return (f"SELECT kodu_task_add('{plugin}', '{draw.randint(2, 6)} seconds',"
            f" retries => {retries}, retry_after => '2 seconds')")


def change_statement(draw, plugins):
    """One call for a task that is drawn by the server, or an addition."""
    call = draw.choice((
        'kodu_task_run_now(id)', 'kodu_task_run_now(id)', 'kodu_task_pause(id, $$why$$)',
        'kodu_task_resume(id)', 'kodu_task_resume(id)', 'kodu_task_delete(id)',
        f"kodu_task_set(id, every => '{draw.randint(2, 6)} seconds')",
        f"kodu_task_set(id, parameters => '{draw.randint(1, 99)}')",
        "kodu_task_set(id, next_run => now() + interval '3 seconds')", 'ADD', 'ADD'))
    if call == 'ADD':
        return (f'SELECT CASE WHEN (SELECT count(*) FROM kodu_cron_plugin) < {TASKS}'
                f' THEN ({add_statement(draw, plugins)}) END')
    return (f'SELECT {call} FROM (SELECT cron_id FROM kodu_cron_plugin'
            f' ORDER BY random() LIMIT 1) AS drawn (id)')


class Administrator(threading.Thread):
    """Sends transactions of one to three calls through one psql, some of which wait before the end."""

    def __init__(self, database, seed, plugins, end):
        super().__init__()
        self._draw, self._plugins, self._end = random.Random(seed), plugins, end
        command = database.psql_command('-d', 'kodu', '-v', 'ON_ERROR_STOP=0')  # refusals are usual
        self._psql = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL, text=True)
        self.transactions = 0

    def run(self):
        while time.monotonic() < self._end:
            calls = [change_statement(self._draw, self._plugins)
                     for _ in range(self._draw.choice((1, 1, 1, 2, 3)))]
            if self._draw.random() < 0.2:
                calls.append(f'SELECT pg_sleep({self._draw.uniform(0.1, 1.2):.2f})')
            end = 'ROLLBACK' if self._draw.random() < 0.05 else 'COMMIT'
            self._say('; '.join(['BEGIN', "SET LOCAL lock_timeout = '3s'", *calls, end]))
            self.transactions += 1
        self._psql.stdin.close()
        self._psql.wait(60)

    def _say(self, statements):
        """Waits for the transaction's end: its own marker comes back."""
        self._psql.stdin.write(statements + ";\n\\echo end\n")
        self._psql.stdin.flush()
        for line in self._psql.stdout:
            if line == 'end\n':
                return
        raise RuntimeError('psql has ended')


def wait_until(holds):
    limit = time.monotonic() + SETTLE_SECONDS
    while not holds():
        if time.monotonic() > limit:
            return False
        time.sleep(0.5)
    return True


def end_of(daemon, home):
    """A complaint when the daemon has ended."""
    if daemon.poll() is None:
        return []
    last = (home / 'console.log').read_text(encoding='utf-8', errors='replace')[-600:]
    return [f'the daemon ended with status {daemon.returncode}: {last}']


def judge(database, daemon, home):
    """The complaints, and the number of deleted tasks that this life of the daemon does not purge.

    A purge that begins together with a run which then fails into a retry leaves the row to the next
    start of the daemon.
    """
    complaints = end_of(daemon, home)
    if complaints:
        return complaints, being_deleted(database)
    database.query('SELECT kodu_task_pause(id) FROM kodu_task_state WHERE NOT paused AND NOT deleting')
    wait_until(lambda: not in_process(database))
    # A pause that comes as a run begins takes its retry from it. Then the row waits for a resume.
    stuck = set(in_process(database))
    for task in stuck:
        database.query(f'SELECT kodu_task_resume({task})')

    def has_ended():
        stuck.intersection_update(in_process(database))
        return not stuck

    if not wait_until(has_ended):
        complaints.append(f'tasks that are not deleted are left in PROCESS: {sorted(stuck)}')
    wait_until(lambda: being_deleted(database) == 0)
    complaints += end_of(daemon, home)
    return complaints, being_deleted(database)


def being_deleted(database):
    return database.number('SELECT count(*) FROM kodu_task_state WHERE deleting')


def in_process(database):
    return [int(row[0]) for row in database.query(
        "SELECT id FROM kodu_task_state WHERE status = 'PROCESS' AND NOT deleting")]


def purge_rest(database, home, start):
    """Purges what the judged life of the daemon has left, in another one; the complaints."""
    database.query((ROOT / 'sql/repair.sql').read_text(encoding='utf-8'))
    daemon = start()
    gone = wait_until(lambda: being_deleted(database) == 0)
    complaints = end_of(daemon, home) + ([] if gone else ['a deleted task is left after another start'])
    stop(daemon)
    return complaints


def stop(daemon):
    if daemon.poll() is None:
        daemon.terminate()
        daemon.wait(150)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--home', type=Path, required=True)
    parser.add_argument('--daemon', required=True)
    parser.add_argument('--seconds', type=int, required=True)
    parser.add_argument('--seed', type=int, required=True)
    options = parser.parse_args()
    database = Database(options.home / 'postgres')
    plugins = make_plugins(options.home / 'plugins')
    draw = random.Random(options.seed)
    database.query(''.join(add_statement(draw, plugins) + ';' for _ in range(TASKS)))

    def start():
        with open(options.home / 'console.log', 'ab') as console:
            return subprocess.Popen([options.daemon, '-f', options.home / 'cron.conf'],
                                    stdout=console, stderr=console)

    daemon = start()
    end = time.monotonic() + options.seconds
    sessions = [Administrator(database, draw.random(), plugins, end) for _ in range(SESSIONS)]
    for session in sessions:
        session.start()
    for session in sessions:
        session.join()
    complaints, rest = judge(database, daemon, options.home)
    stop(daemon)
    if rest:
        complaints += purge_rest(database, options.home, start)
    failures = database.number('SELECT count(*) FROM kodu_cron_error')
    transactions = sum(session.transactions for session in sessions)
    print(f'{transactions} transactions, {failures} failed runs,'
          f' {rest} rows purged by another start only')
    for complaint in complaints:
        print(f'VIOLATION: {complaint}')
    return 1 if complaints else 0


if __name__ == '__main__':
    sys.exit(main())
