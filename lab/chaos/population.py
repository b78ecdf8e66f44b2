"""The tasks of a chaos run: what each does, how it was changed, when it had to run."""

import time
from dataclasses import dataclass, field
from typing import Optional

SIZE = 300
# The number of tasks of each kind among the first 300; the others succeed.
SHARES = {'fail': 35, 'flaky': 35, 'slow': 14, 'big': 14, 'bigFail': 3, 'killed': 7, 'silent': 7}
# Each of these occupies a worker for seconds, or leaves a megabyte at each failure: they run rarely.
SELDOM = ('slow', 'bigFail', 'killed', 'silent')
# Three attempts with a second after each, and a pause; the rest takes a moment.
PASS_SECONDS = {'killed': 4, 'silent': 4, 'slow': 3}


@dataclass
class Task:
    """A row of kodu_cron_plugin as the driver wrote it."""

    id: int
    kind: str
    interval: int
    retries: int
    retry_interval: int
    anchor: int  # a cron_next_exec from which it moves by whole intervals; epoch
    born: float
    longest_interval: int = 0
    off_grid: list = field(default_factory=list)  # (found, anchor, interval) seen at an UPDATE
    gone: Optional[float] = None  # when it was flagged or its row deleted: owes no run since
    updates: list = field(default_factory=list)  # when UPDATE was sent
    additions: list = field(default_factory=list)  # when ADD was sent although it was loaded

    def longest_silence(self):
        """Seconds that may pass between two runs without any fault."""
        a_pass = PASS_SECONDS.get(self.kind, 1)
        retries = self.retries * max(self.retry_interval, a_pass)
        return max(self.interval, self.longest_interval) + retries + a_pass + 10


class Population:
    """All tasks that ever were, and the statements that make and change them."""

    def __init__(self, database, rng, plugin, ledger):
        self._database, self._rng = database, rng
        self._plugin, self._ledger = plugin, ledger
        self.tasks = {}
        self._next_id = 1

    def present(self, *kinds):
        """The tasks whose rows are there and not flagged, of these kinds or of all."""
        return [task for task in self.tasks.values()
                if task.gone is None and (not kinds or task.kind in kinds)]

    def create_all(self):
        """The first 300."""
        self._database.query(
            f"INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path) "
            f"VALUES (1, 'chaos', '{self._plugin}')")
        kinds = [kind for kind, share in SHARES.items() for _ in range(share)]
        kinds += ['ok'] * (SIZE - len(kinds))
        self._insert([self._make(kind) for kind in kinds])

    def add(self, count):
        """New tasks of any kind, with the notification that loads them."""
        kinds = list(SHARES) + ['ok'] * 8
        tasks = [self._make(self._rng.choice(kinds)) for _ in range(count)]
        self._insert(tasks, 'ADD')
        return tasks

    def update(self, tasks):
        """Gives each task another interval, with the notification that reloads it."""
        for task in tasks:
            former = task.interval
            task.longest_interval = max(task.longest_interval, former)
            task.interval = self._interval(task.kind)
            task.updates.append(time.time())
            rows = self._database.query(
                f"WITH changed AS (UPDATE kodu_cron_plugin "
                f"SET cron_interval = '{task.interval} s' WHERE cron_id = {task.id} "
                f"RETURNING cron_id, extract(epoch FROM cron_next_exec)::bigint AS next) "
                f"SELECT next, {notify_call('UPDATE')} FROM changed")
            now_next = int(rows[0][0])
            if (now_next - task.anchor) % former:
                task.off_grid.append((now_next, task.anchor, former))
            task.anchor = now_next

    def flag(self, tasks):
        """Marks the tasks for the purge."""
        ids = ','.join(str(task.id) for task in tasks)
        for task in tasks:
            task.gone = time.time()
        self._database.query(
            f"UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_id IN ({ids})")

    def delete_row(self, task):
        """Deletes the row without a notification: the next completed run of the task must end the daemon."""
        task.gone = time.time()
        self._database.query(f'DELETE FROM kodu_cron_plugin WHERE cron_id = {task.id}')

    def _interval(self, kind):
        return self._rng.randint(14, 20) if kind in SELDOM else self._rng.randint(1, 20)

    def _make(self, kind):
        now = time.time()
        interval = self._interval(kind)
        self._next_id += 1  # never reused: an id identifies one task in all files
        return Task(id=self._next_id - 1, kind=kind, interval=interval,
                    retries=self._rng.randint(0, 1 if kind in SELDOM else 2),
                    retry_interval=self._rng.randint(3, 5),
                    anchor=int(now) + 3 + self._rng.randint(0, interval), born=now)

    def _insert(self, tasks, command=None):
        values = ','.join(
            f"({task.id}, 1, '{task.interval} s', to_timestamp({task.anchor}) AT TIME ZONE 'UTC', "
            f"'$SERVICEID_$DATE.txt', {task.retries}, '{task.retry_interval} s', "
            f"'\"{self._ledger}\" {task.id} {task.kind}')" for task in tasks)
        self._database.query(
            f"WITH added AS (INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval,"
            f" cron_next_exec, cron_log_file, cron_retries, cron_retries_interval, cron_parameter)"
            f" VALUES {values} RETURNING cron_id) "
            f"SELECT {notify_call(command) if command else 'count(*)'} FROM added")
        self.tasks.update((task.id, task) for task in tasks)


def notify_call(command):
    """SQL that sends `command` for the row's cron_id."""
    return (f"pg_notify('koducronchannel', json_build_object('TYPE', 'SERVICE', "
            f"'COMMAND', '{command}', 'ID', cron_id)::text)")
