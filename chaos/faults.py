"""The faults. Each function breaks one thing and returns the moment from which the daemon has to
recover; what it broke stands in the journal, since the judge excuses nothing else."""

import os
import signal
import subprocess
import time
from pathlib import Path

from population import SIZE

FLOOD = 5000
HOLD_SECONDS = 3


class NotInjected(Exception):
    """The fault cannot be made on this machine; the text says why."""


def kill_daemon(world):
    world.journal.add('kill', pid=world.daemon.signal(signal.SIGKILL))
    return time.time()


def crash_server(world):
    event = world.journal.add('server')
    world.database.restart_at_once()
    world.journal.complete(event, until=time.time())
    return time.time()


def terminate_session(world):
    world.journal.add('terminate')
    world.database.query("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                         "WHERE usename = 'kodu'")
    return time.time()


def stop_daemon(world):
    event = world.journal.add('stopped', pid=world.daemon.signal(signal.SIGSTOP))
    time.sleep(5)
    if event['pid'] is not None and world.daemon.pid() == event['pid']:
        os.kill(event['pid'], signal.SIGCONT)
    world.journal.complete(event, until=time.time())
    return time.time()


def flood_ignorable(world):
    world.database.notify(
        f"SELECT json_build_object('TYPE', CASE WHEN n % 2 = 0 THEN 'SERVICE' ELSE 'HOST' END, "
        f"'COMMAND', 'update', 'ID', n)::text FROM generate_series(1, {FLOOD}) AS n")
    return time.time()


def flood_update(world):
    """Reloads every task, some of them in the middle of a run."""
    ids = ','.join(str(task.id) for task in world.population.present())
    for task in world.population.tasks.values():
        task.updates.append(time.time())
    world.database.notify(
        f"SELECT json_build_object('TYPE', 'SERVICE', 'COMMAND', 'UPDATE', 'N', n, "
        f"'ID', (ARRAY[{ids}])[1 + n % array_length(ARRAY[{ids}], 1)])::text "
        f"FROM generate_series(1, {FLOOD}) AS n")
    return time.time()


def flood_invalid(world):
    world.database.notify(
        "SELECT '{\"TYPE\":\"SERVICE\",\"COMMAND\":\"ADD\",\"ID\":' || n "
        f"FROM generate_series(1, {FLOOD}) AS n")
    return time.time()


def notify_deadly(world):
    """An ID that is no number, or JSON that is no object, ends the process: documented."""
    payload = world.rng.choice(
        ['{"TYPE":"SERVICE","COMMAND":"ADD","ID":"7"}', '[1, 2]', '"text"'])
    world.journal.add('deadly')
    return world.await_end(lambda: world.database.notify(f"SELECT '{payload}'"))


def add_tasks(world):
    """As many as are missing; now and then also an ADD of a task that is loaded already."""
    missing = SIZE - len(world.population.present())
    tasks = world.population.add(max(missing, 1))
    world.journal.add('added', ids=[task.id for task in tasks])
    if world.rng.random() < 0.3:
        task = world.rng.choice(world.population.present())
        task.additions.append(time.time())
        world.journal.add('added again', ids=[task.id])
        world.database.notify(
            f"""SELECT '{{"TYPE":"SERVICE","COMMAND":"ADD","ID":{task.id}}}'""")
    return time.time()


def update_tasks(world):
    tasks = world.rng.sample(world.population.present(), 5)
    world.journal.add('updated', ids=[task.id for task in tasks])
    world.population.update(tasks)
    return time.time()


def flag_tasks(world):
    tasks = world.rng.sample(world.population.present(), 3)
    world.journal.add('flagged', ids=[task.id for task in tasks])
    world.population.flag(tasks)
    return time.time()


def delete_row(world):
    """The next completed run of the task ends the process: documented. A frequent one, then."""
    task = world.rng.choice([task for task in world.population.present('ok')
                             if task.interval <= 6])
    world.journal.add('row deleted', ids=[task.id])
    return world.await_end(lambda: world.population.delete_row(task))


def fill_output(world):
    """No byte is left: outputs are lost, and the first copy that fails ends the process."""
    need_tmpfs(world)
    ballast = world.output / 'ballast'
    event = world.journal.add('directory')
    try:
        subprocess.run(['dd', 'if=/dev/zero', f'of={ballast}', 'bs=64k'], check=False,
                       stderr=subprocess.DEVNULL)
        time.sleep(HOLD_SECONDS)
    finally:
        ballast.unlink(missing_ok=True)
    world.journal.complete(event, until=time.time())
    return time.time()


def forbid_writing(world):
    """A task that cannot open its output file is dropped, and its worker's next one ends all."""
    need_tmpfs(world)
    event = world.journal.add('directory')
    try:
        remount(world.output, 'ro')
        time.sleep(HOLD_SECONDS)
    finally:
        remount(world.output, 'rw')
    world.journal.complete(event, until=time.time())
    return time.time()


def step_clock(world):
    """Moves the daemon's wall clock, and nobody else's."""
    if world.clock is None:
        raise NotInjected('libfaketime is not installed')
    offset = world.rng.choice([-10, -6, -3, 0, 3, 6, 10])
    if offset == world.clock_offset:
        offset -= 5
    world.journal.add('step', seconds=offset - world.clock_offset)
    set_clock(world.clock, offset)
    world.clock_offset = offset
    return time.time()


def set_clock(path, offset):
    """In one step: libfaketime reads the file at each call."""
    fresh = Path(f'{path}.new')
    fresh.write_text(f'{offset:+d}\n', encoding='ascii')
    fresh.replace(path)


def need_tmpfs(world):
    if not world.has_tmpfs:
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
    '5,000 notifications that are no JSON': flood_invalid,
    'a notification that ends the process': notify_deadly,
    'ADD': add_tasks,
    'UPDATE of 5 tasks': update_tasks,
    'delete flags for 3 tasks': flag_tasks,
    'row of a loaded task deleted': delete_row,
    'output directory full for 3 s': fill_output,
    'output directory read-only for 3 s': forbid_writing,
    'step of the wall clock': step_clock,
}
