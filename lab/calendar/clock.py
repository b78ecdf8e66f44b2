"""The daemon under a stepping clock: which times of calendars it runs, and which it does not."""

import signal
import subprocess
import sys
import time
from dataclasses import dataclass, field
from datetime import datetime, timedelta, timezone
from pathlib import Path

from lab.shared.database import ROOT, Database

PATIENCE = 60  # seconds until something must have happened
LEAD = timedelta(seconds=3)


@dataclass
class Scene:
    """Times are UTC, to the minute: all that are visited, and of each calendar those that run."""

    name: str
    zone: str
    begin: str
    visited: list
    runs: dict
    next: dict = field(default_factory=dict)  # of some calendars: the time after the last run
    down: list = field(default_factory=list)  # visited while the daemon is down, before all others


SCENES = [
    Scene('Paris: 02:00 to 03:00 is skipped', 'Europe/Paris', '2026-03-29 00:50',
          ['2026-03-29 01:00', '2026-03-29 01:15', '2026-03-29 01:20', '2026-03-29 01:30',
           '2026-03-29 02:00'],
          {'30 2 * * *': ['2026-03-29 01:00'],
           '*/20 2 * * *': [],
           '15 3 * * *': ['2026-03-29 01:15'],
           '*/30 3 * * *': ['2026-03-29 01:00', '2026-03-29 01:30'],
           '0 * * * *': ['2026-03-29 01:00', '2026-03-29 02:00']},
          {'30 2 * * *': '2026-03-30 00:30', '*/20 2 * * *': '2026-03-30 00:00'}),
    Scene('Paris: 02:00 to 03:00 comes twice', 'Europe/Paris', '2026-10-25 00:10',
          ['2026-10-25 00:30', '2026-10-25 01:00', '2026-10-25 01:30'],
          {'30 2 * * *': ['2026-10-25 00:30'],
           '*/30 2 * * *': ['2026-10-25 00:30', '2026-10-25 01:00', '2026-10-25 01:30'],
           '30 * * * *': ['2026-10-25 00:30', '2026-10-25 01:30']},
          {'30 2 * * *': '2026-10-26 01:30'}),
    Scene('Lord Howe: half an hour comes twice', 'Australia/Lord_Howe', '2027-04-03 14:40',
          ['2027-04-03 14:45', '2027-04-03 15:00', '2027-04-03 15:15'],
          {'45 1 * * *': ['2027-04-03 14:45'],
           '*/15 1 * * *': ['2027-04-03 14:45', '2027-04-03 15:00', '2027-04-03 15:15']},
          {'45 1 * * *': '2027-04-04 15:15', '*/15 1 * * *': '2027-04-04 14:30'}),
    Scene('the leap day', 'UTC', '2028-02-28 23:50',
          ['2028-02-28 23:58', '2028-02-29 00:00', '2028-02-29 12:00', '2028-03-01 00:00'],
          {'58 23 28 2 *': ['2028-02-28 23:58'],
           '0 0 29 2 *': ['2028-02-29 00:00'],
           '0 0 L 2 *': ['2028-02-29 00:00'],
           '0 12 * * *': ['2028-02-29 12:00'],
           '0 0 1 3 *': ['2028-03-01 00:00']},
          {'0 0 29 2 *': '2032-02-29 00:00', '0 0 L 2 *': '2029-02-28 00:00'}),
    Scene('the clock is set back', 'UTC', '2028-03-02 10:02',
          ['2028-03-02 10:05', '2028-03-02 10:04', '2028-03-02 10:05', '2028-03-02 10:10'],
          {'*/5 * * * *': ['2028-03-02 10:05', '2028-03-02 10:10']},
          {'*/5 * * * *': '2028-03-02 10:15'}),
    Scene('the daemon is down over a skipped hour', 'Europe/Paris', '2029-03-25 00:50',
          ['2029-03-25 01:30'],
          {'30 2 * * *': [], '30 3 * * *': ['2029-03-25 01:30']},
          {'30 2 * * *': '2029-03-26 00:30'},
          ['2029-03-25 01:00', '2029-03-25 01:10']),
]


class Stage:
    """The clock, the server, which runs by it, and the daemon."""

    def __init__(self, home, preload):
        """`preload` is the environment, NAME=VALUE, that gives a process the clock."""
        self._home, self._preload = home, dict(setting.split('=', 1) for setting in preload)
        self._clock = home / 'clock'
        self.database = Database(home / 'postgres', timeout=PATIENCE)
        self._daemon = None

    def set_clock(self, moment):
        """In one step: libfaketime reads the file at each call, as the server's user too."""
        offset = round((moment - datetime.now(timezone.utc)).total_seconds())
        fresh = self._clock.with_suffix('.new')
        fresh.write_text(f'{offset:+d}\n', encoding='ascii')
        fresh.chmod(0o644)
        fresh.replace(self._clock)

    def start(self):
        """Returns when the daemon has loaded its tasks."""
        log = self._home / 'koducron.log'
        log.unlink(missing_ok=True)
        self._daemon = subprocess.Popen(
            [ROOT / 'build/koducron', '-f', self._home / 'cron.conf'],
            env={'PATH': '/usr/bin:/bin', 'TZ': 'UTC', **self._preload},
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.await_that(lambda: log.exists() and 'Start Thread' in log.read_text(), 'the start')

    def kill(self):
        """Removes what a killed process leaves of libfaketime, too."""
        if self._daemon:
            self._daemon.send_signal(signal.SIGKILL)
            self._daemon.wait()
            for name in (f'faketime_shm_{self._daemon.pid}', f'sem.faketime_sem_{self._daemon.pid}'):
                Path('/dev/shm', name).unlink(missing_ok=True)
        self._daemon = None

    def await_that(self, condition, what):
        """Polls, since the condition may be in a file or in the database."""
        end = time.monotonic() + PATIENCE
        while not condition():
            if time.monotonic() > end:
                raise RuntimeError(f'{what} did not happen within {PATIENCE} s')
            if self._daemon and self._daemon.poll() is not None:
                raise RuntimeError(f'the daemon ended with {self._daemon.returncode}')
            time.sleep(0.2)

    def visit(self, text):
        """Has the clock pass a time; returns when nothing that is due by it is left to run."""
        moment = minute(text)
        self.set_clock(moment - LEAD)
        idle = (f"clock_timestamp() > '{text}:02Z'" +
                ("" if self._daemon is None else
                 " AND NOT EXISTS (SELECT FROM kodu_cron_plugin WHERE cron_status = 'PROCESS'"
                 " OR cron_next_exec < clock_timestamp() AT TIME ZONE 'UTC')"))
        self.await_that(lambda: self.database.query(f'SELECT {idle}') == [['t']],
                        f'all that is due at {text}')


def minute(text):
    return datetime.strptime(text, '%Y-%m-%d %H:%M').replace(tzinfo=timezone.utc)


def play(stage, scene):
    """Returns what differs, one text each."""
    stage.set_clock(minute(scene.begin))
    query = stage.database.query
    query('DELETE FROM kodu_cron_plugin')
    ids = {calendar: query(f"SELECT kodu_task_add('/bin/echo', parameters => 'fine', "
                           f"at => '{calendar}', "
                           f"zone => '{scene.zone}')")[0][0] for calendar in scene.runs}
    stage.start()
    if scene.down:
        stage.kill()
        for moment in scene.down:
            stage.visit(moment)
        stage.start()
    for moment in scene.visited:
        stage.visit(moment)
    stage.kill()

    differences = []
    for calendar, task in ids.items():
        runs = [row[0] for row in query(
            f"SELECT to_char(due, 'YYYY-MM-DD HH24:MI') FROM kodu_run WHERE id = {task} "
            f"AND outcome = 'ok' ORDER BY ledger_id")]
        if runs != scene.runs[calendar]:
            differences.append(f'{calendar}: ran at {runs}, not at {scene.runs[calendar]}')
        due = query(f"SELECT to_char(cron_next_exec, 'YYYY-MM-DD HH24:MI') FROM kodu_cron_plugin "
                    f'WHERE cron_id = {task}')[0][0]
        if due != scene.next.get(calendar, due):
            differences.append(f'{calendar}: is due at {due}, not at {scene.next[calendar]}')
    broken = query('SELECT id FROM kodu_account() WHERE difference <> 0 '
                   'UNION ALL SELECT id FROM kodu_ledger_gap')
    if broken:
        differences.append(f'the ledger has gaps: {broken}')
    return differences


def main():
    """Exit status 1 when a scene differs."""
    stage = Stage(Path(sys.argv[1]), sys.argv[2:])
    failed = False
    try:
        for scene in SCENES:
            differences = play(stage, scene)
            print(f'{scene.name}: ' + ('differs' if differences else 'as expected'), flush=True)
            for difference in differences:
                print(f'  {difference}')
            failed = failed or bool(differences)
    finally:
        stage.kill()
    return int(failed)


if __name__ == '__main__':
    sys.exit(main())
