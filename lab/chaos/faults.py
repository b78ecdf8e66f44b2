"""The faults. Each function breaks one thing and returns the moment from which the daemon has to
recover; what it broke stands in the journal, since the judge excuses nothing else."""

import os
import signal
import subprocess
import time
from pathlib import Path

from lab.chaos.population import SIZE

FLOOD = 5000
HOLD_SECONDS = 3


class NotInjected(Exception):
    """The fault cannot be injected on this machine; the text says why."""


def kill_daemon(target):
    target.journal.add('kill', pid=target.daemon.signal(signal.SIGKILL))
    return time.time()


def crash_server(target):
    event = target.journal.add('server')
    target.database.restart_at_once()
    target.journal.complete(event, until=time.time())
    return time.time()


def terminate_session(target):
    target.journal.add('terminate')
    target.database.query("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                         "WHERE usename = 'kodu'")
    return time.time()


def stop_daemon(target):
    event = target.journal.add('stopped', pid=target.daemon.signal(signal.SIGSTOP))
    time.sleep(5)
    if event['pid'] is not None and target.daemon.pid() == event['pid']:
        os.kill(event['pid'], signal.SIGCONT)
    target.journal.complete(event, until=time.time())
    return time.time()


def flood_ignorable(target):
    target.database.notify(
        f"SELECT json_build_object('TYPE', CASE WHEN n % 2 = 0 THEN 'SERVICE' ELSE 'HOST' END, "
        f"'COMMAND', 'update', 'ID', n)::text FROM generate_series(1, {FLOOD}) AS n")
    return time.time()


def flood_update(target):
    """Reloads every task, some of them in the middle of a run."""
    ids = ','.join(str(task.id) for task in target.population.present())
    for task in target.population.tasks.values():
        task.updates.append(time.time())
    target.database.notify(
        f"SELECT json_build_object('TYPE', 'SERVICE', 'COMMAND', 'UPDATE', 'N', n, "
        f"'ID', (ARRAY[{ids}])[1 + n % array_length(ARRAY[{ids}], 1)])::text "
        f"FROM generate_series(1, {FLOOD}) AS n")
    return time.time()


def flood_invalid(target):
    target.database.notify(
        "SELECT '{\"TYPE\":\"SERVICE\",\"COMMAND\":\"ADD\",\"ID\":' || n "
        f"FROM generate_series(1, {FLOOD}) AS n")
    return time.time()


def notify_deadly(target):
    """An ID that is not a number, or JSON that is not an object, ends the process: documented."""
    payload = target.rng.choice(
        ['{"TYPE":"SERVICE","COMMAND":"ADD","ID":"7"}', '[1, 2]', '"text"'])
    target.journal.add('deadly')
    return target.await_end(lambda: target.database.notify(f"SELECT '{payload}'"))


def add_tasks(target):
    """Adds as many tasks as are missing; sometimes also sends an ADD for a task that is already loaded."""
    missing = SIZE - len(target.population.present())
    tasks = target.population.add(max(missing, 1))
    target.journal.add('added', ids=[task.id for task in tasks])
    if target.rng.random() < 0.3:
        task = target.rng.choice(target.population.present())
        task.additions.append(time.time())
        target.journal.add('added again', ids=[task.id])
        target.database.notify(
            f"""SELECT '{{"TYPE":"SERVICE","COMMAND":"ADD","ID":{task.id}}}'""")
    return time.time()


def update_tasks(target):
    tasks = target.rng.sample(target.population.present(), 5)
    target.journal.add('updated', ids=[task.id for task in tasks])
    target.population.update(tasks)
    return time.time()


def flag_tasks(target):
    tasks = target.rng.sample(target.population.present(), 3)
    target.journal.add('flagged', ids=[task.id for task in tasks])
    target.population.flag(tasks)
    return time.time()


def delete_row(target):
    """The next completed run of the task ends the process: documented. Takes a frequent task."""
    task = target.rng.choice([task for task in target.population.present('ok')
                             if task.interval <= 6])
    target.journal.add('row deleted', ids=[task.id])
    return target.await_end(lambda: target.population.delete_row(task))


def fill_output(target):
    """The disk is full: outputs are lost, and the first copy that fails ends the process."""
    need_tmpfs(target)
    ballast = target.output / 'ballast'
    event = target.journal.add('directory')
    try:
        subprocess.run(['dd', 'if=/dev/zero', f'of={ballast}', 'bs=64k'], check=False,
                       stderr=subprocess.DEVNULL)
        time.sleep(HOLD_SECONDS)
    finally:
        ballast.unlink(missing_ok=True)
    target.journal.complete(event, until=time.time())
    return time.time()


def forbid_writing(target):
    """A task that cannot open its output file is dropped, and its worker's next one ends all."""
    need_tmpfs(target)
    event = target.journal.add('directory')
    try:
        remount(target.output, 'ro')
        time.sleep(HOLD_SECONDS)
    finally:
        remount(target.output, 'rw')
    target.journal.complete(event, until=time.time())
    return time.time()


def step_clock(target):
    """Moves the wall clock of the daemon only."""
    if target.clock is None:
        raise NotInjected('libfaketime is not installed')
    offset = target.rng.choice([-10, -6, -3, 0, 3, 6, 10])
    if offset == target.clock_offset:
        offset -= 5
    target.journal.add('step', seconds=offset - target.clock_offset)
    set_clock(target.clock, offset)
    target.clock_offset = offset
    return time.time()


def set_clock(path, offset):
    """In one step: libfaketime reads the file at each call."""
    fresh = Path(f'{path}.new')
    fresh.write_text(f'{offset:+d}\n', encoding='ascii')
    fresh.replace(path)


def need_tmpfs(target):
    if not target.has_tmpfs:
        raise NotInjected('only root may mount the small tmpfs')


def remount(folder, mode):
    """A file that is open for writing at this moment refuses ro; so try for a while."""
    for _ in range(200):
        if subprocess.run(['mount', '-o', f'remount,{mode}', str(folder)], check=False,
                          stderr=subprocess.DEVNULL).returncode == 0:
            return
        time.sleep(0.02)
    raise NotInjected(f'the tmpfs could not be remounted {mode}: it was in use all the time')


FAULTS = {
    'SIGKILL of the daemon': kill_daemon,
    'server stopped at once, and started': crash_server,
    "pg_terminate_backend of the daemon's session": terminate_session,
    'SIGSTOP of the daemon for 5 s': stop_daemon,
    '5,000 notifications to be ignored': flood_ignorable,
    '5,000 UPDATE of all tasks': flood_update,
    '5,000 notifications that are not JSON': flood_invalid,
    'a notification that ends the process': notify_deadly,
    'ADD': add_tasks,
    'UPDATE of 5 tasks': update_tasks,
    'delete flags for 3 tasks': flag_tasks,
    'row of a loaded task deleted': delete_row,
    'output directory full for 3 s': fill_output,
    'output directory read-only for 3 s': forbid_writing,
    'step of the wall clock': step_clock,
}
