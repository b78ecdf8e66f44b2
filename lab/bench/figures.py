"""The measurements. Each returns plain numbers; rounds alternate with what they are compared to."""

import math
import time
from statistics import median

from lab.bench.life import DaemonLife
from lab.bench.workload import server_cpu_seconds

BURST = 4000


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, math.ceil(share * len(ordered)) - 1)]


def load_once(workload):
    """(seconds of the load, seconds of the bare query, resident bytes, peak bytes)."""
    bare = workload.run_program('readTasks')[0]
    with DaemonLife(workload) as daemon:
        seconds = daemon.wait_until_loaded()
        time.sleep(0.5)
        return (seconds, bare, *daemon.memory_bytes())


def drain_once(workload, count, load_seconds):
    """`count` tasks due in one second, drained: the daemon's figures for a run."""
    due = int(time.time() + load_seconds * 1.5) + 3
    workload.plan(count, due)
    updates_before = workload.updates()
    with DaemonLife(workload) as daemon:
        daemon.wait_until_loaded()
        before, server_before = daemon.cpu_seconds(), server_cpu_seconds(workload)
        time.sleep(max(0.0, due + 2.5 - time.time()))
        daemon.wait_for_runs(count)
        after, server = daemon.cpu_seconds(), server_cpu_seconds(workload) - server_before
    time.sleep(1)  # its session ends and reports
    updates = [now - then for now, then in zip(workload.updates(), updates_before)]
    finished = workload.finish_times(count)
    return {'rate': count / (max(finished) - min(finished)),
            'own': (after[0] - before[0]) / count, 'children': (after[1] - before[1]) / count,
            'server': server / count, 'hot share': updates[1] / updates[0]}


def burst_once(workload, count, load_seconds):
    """The daemon's figures for a run of a burst, then the floor's."""
    found = drain_once(workload, count, load_seconds)
    elapsed, own, children = workload.run_floor(count)
    return {**found,
            'floor rate': count / elapsed, 'floor own': own / count,
            'floor children': children / count}


def bursts(workload, count, load_seconds, rounds):
    """The median of each figure, and of the ratios of each round."""
    taken = [burst_once(workload, count, load_seconds) for _ in range(rounds)]
    figures = {name: median(one[name] for one in taken) for name in taken[0]}
    figures['rate ratio'] = median(one['rate'] / one['floor rate'] for one in taken)
    figures['cpu ratio'] = median(one['own'] / one['floor own'] for one in taken)
    return figures


def lateness(workload, runs_a_second, seconds, load_seconds):
    """Seconds from due to the end of the run, of as many runs each second: (median, p99, worst)."""
    count = int(runs_a_second * seconds)
    workload.make_output_files(count)
    first = int(time.time() + load_seconds * 1.5) + 4
    workload.plan(count, first, seconds)
    with DaemonLife(workload) as daemon:
        daemon.wait_until_loaded()
        time.sleep(max(0.0, first + seconds + 2 - time.time()))
        daemon.wait_for_runs(count)
    late = [finished - (first + number % seconds)
            for number, finished in enumerate(workload.finish_times(count), start=1)]
    return median(late), percentile(late, 0.99), max(late)


def notify_seconds(workload, daemon, task, samples):
    """Seconds from NOTIFY to the loaded task, one after the other."""
    taken = []
    for _ in range(samples):
        begin = time.time()
        workload.query(f"""NOTIFY koducronchannel,
                    '{{"TYPE":"SERVICE","COMMAND":"ADD","ID":{task}}}'""")
        taken.append(daemon.wait_for('#script reload successful') - begin)
    return taken


def notification(workload, count, load_seconds, samples):
    """p99 of the seconds from NOTIFY to loaded task: (while idle, while `count` runs saturate it).

    The id of the loaded task follows those of the `count` running tasks.
    """
    due = int(time.time() + load_seconds * 1.5) + 3 + samples
    workload.make_output_files(count)
    workload.plan(count, due)
    with DaemonLife(workload) as daemon:
        daemon.wait_until_loaded()
        time.sleep(1.5)  # its subscription
        idle = notify_seconds(workload, daemon, count + 1, samples)
        time.sleep(max(0.0, due + 2.2 - time.time()))
        busy = notify_seconds(workload, daemon, count + 1, samples)
        still_busy = workload.query('SELECT count(*) FROM kodu_cron_plugin WHERE cron_last_exec IS NULL '
                                 f'AND cron_id <= {count}') != [['0']]
    if not still_busy:
        raise RuntimeError(f'{count} runs were over before {samples} notifications')
    return percentile(idle, 0.99), percentile(busy, 0.99)


def catch_up(workload, count):
    """Loading `count` overdue tasks against as many bare statements: the ratio of the times, and of
    the CPU times, each of a process and its session."""
    workload.plan(count, int(time.time()) - 600)
    workload.vacuum()
    with DaemonLife(workload) as daemon:
        seconds = daemon.wait_until_loaded()
        cpu = daemon.cpu_seconds()[0] + server_cpu_seconds(workload)
    workload.plan(count, int(time.time()) - 600)
    workload.vacuum()
    bare, *bare_cpu = workload.run_program('readTasks', count)
    return seconds / bare, cpu / sum(bare_cpu)
