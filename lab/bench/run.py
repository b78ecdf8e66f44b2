"""Measures the daemon against the floor at several numbers of loaded tasks; see scripts/bench."""

import argparse
import csv
import os
import platform
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path
from statistics import median

from lab.bench import figures, ledger
from lab.bench.workload import Workload

MANY = 100000
# For --quick. The placement of a process and its session by the scheduler decides whether a statement
# takes 50 or 150 us, for their whole lifetime: only several processes give a reliable figure, and CPU
# time a better one than the clock.
OVERDUE, CATCH_UPS = 10000, 7
# For --quick: 0.8 of the full run's target, because one minute on a shared machine is not more precise.
LEAST = {(figures.BURST, 'rate ratio'): 0.8 * 0.95, (MANY, 'rate against few'): 0.8 * 0.90}
MOST = {(figures.BURST, 'cpu ratio'): 1.15 / 0.8, (MANY, 'load ratio'): 2.0 / 0.8,
        (MANY, 'peak ratio'): 1.6 / 0.8, (OVERDUE, 'catch-up ratio'): 1.1 / 0.8,
        (OVERDUE, 'catch-up CPU ratio'): 1.1 / 0.8}


class Table:
    """Rows of (loaded tasks, figure, value, unit); printed when they are added."""

    def __init__(self):
        self.rows = []

    def add(self, loaded, name, value, unit=''):
        self.rows.append((loaded, name, value, unit))
        print(f'{loaded:>9,}  {name:<34}{value:>14,.3f} {unit}', flush=True)

    def value(self, loaded, name):
        return next(row[2] for row in self.rows if row[:2] == (loaded, name))


def measure_load(workload, table, loaded, rounds, empty_bytes):
    taken = [figures.load_once(workload) for _ in range(rounds)]
    seconds, bare, resident, peak = (median(values) for values in zip(*taken))
    table.add(loaded, 'load', seconds, 's')
    table.add(loaded, 'bare query', bare, 's')
    table.add(loaded, 'load ratio', median(one[0] / one[1] for one in taken))
    table.add(loaded, 'load of a task', seconds / loaded * 1e6, 'us')
    table.add(loaded, 'bytes a task', (resident - empty_bytes) / loaded, 'B')
    table.add(loaded, 'peak ratio', peak / resident)
    return seconds


def measure_burst(workload, table, loaded, load_seconds, rounds):
    found = figures.bursts(workload, min(loaded, figures.BURST), load_seconds, rounds)
    for name in ('rate', 'floor rate'):
        table.add(loaded, name, found[name], 'runs/s')
    table.add(loaded, 'rate ratio', found['rate ratio'])
    for name in ('own', 'children', 'server', 'floor own', 'floor children'):
        table.add(loaded, f'{name} CPU a run', found[name] * 1e6, 'us')
    table.add(loaded, 'cpu ratio', found['cpu ratio'])
    table.add(loaded, 'HOT updates', found['hot share'] * 100, '%')
    return found['rate']


def measure_catch_up(workload, table, loaded, rounds):
    times, cpu_times = zip(*(figures.catch_up(workload, loaded) for _ in range(rounds)))
    table.add(loaded, 'catch-up ratio', median(times))
    table.add(loaded, 'catch-up CPU ratio', median(cpu_times))


def measure_all(workload, table, sizes, rounds, lateness_shares):
    """Every figure at each number of loaded tasks."""
    workload.create_tasks(1)
    empty_bytes = figures.load_once(workload)[2]
    for loaded in sizes:
        workload.create_tasks(loaded)
        workload.make_output_files(min(loaded, figures.BURST))
        load_seconds = measure_load(workload, table, loaded, rounds, empty_bytes)
        rate = measure_burst(workload, table, loaded, load_seconds, rounds)
        workload.vacuum()
        for share in lateness_shares:
            seconds = int(min(20, loaded / (share * rate)))
            if seconds < 3:
                continue
            late = figures.lateness(workload, share * rate, seconds, load_seconds)
            for name, value in zip(('median', 'p99', 'worst'), late):
                table.add(loaded, f'late {name} at {share:.0%}', value, 's')
        if loaded >= MANY:
            idle, busy = figures.notification(workload, int(9 * rate), load_seconds, 6)
            table.add(loaded, 'NOTIFY to loaded, idle', idle, 's')
            table.add(loaded, 'NOTIFY to loaded, saturated', busy, 's')
        if loaded == MANY:
            measure_catch_up(workload, table, loaded, rounds)
        workload.vacuum()


def quick_check(workload, rounds):
    """The ratios alone, at few sizes; false when one is worse than 0.8 of its target."""
    table = Table()
    workload.create_tasks(1)
    empty_bytes = figures.load_once(workload)[2]
    for loaded in (figures.BURST, MANY):
        workload.create_tasks(loaded)
        workload.make_output_files(figures.BURST)
        seconds = measure_load(workload, table, loaded, rounds, empty_bytes)
        measure_burst(workload, table, loaded, seconds, rounds)
    # By way of the floor's rates: the machine may have become slower between the two sizes.
    table.add(MANY, 'rate against few',
              table.value(MANY, 'rate ratio') / table.value(figures.BURST, 'rate ratio'))
    workload.create_tasks(OVERDUE)
    measure_catch_up(workload, table, OVERDUE, CATCH_UPS)
    worse = [(place, limit) for place, limit in LEAST.items() if table.value(*place) < limit]
    worse += [(place, limit) for place, limit in MOST.items() if table.value(*place) > limit]
    for (loaded, name), limit in worse:
        print(f'FAILED: {name} with {loaded:,} tasks is {table.value(loaded, name):.3f}, '
              f'limit {limit:.3f}')
    return not worse


def passes_quick_check(workload, rounds):
    """A slow daemon is slow twice; a stall of a shared machine rarely comes twice."""
    if quick_check(workload, rounds):
        return True
    print('measuring again:', flush=True)
    return quick_check(workload, rounds)


def write_tables(table, place, heading):
    """PLACE.csv and PLACE.md."""
    with open(f'{place}.csv', 'w', encoding='utf-8', newline='') as file:
        file.write(f'# {heading}\n')
        writer = csv.writer(file)
        writer.writerow(('loaded tasks', 'figure', 'value', 'unit'))
        writer.writerows(table.rows)
    sizes = sorted({row[0] for row in table.rows})
    names = list(dict.fromkeys((row[1], row[3]) for row in table.rows))
    values = {(row[0], row[1]): row[2] for row in table.rows}
    with open(f'{place}.md', 'w', encoding='utf-8') as file:
        file.write(f'{heading}\n\n| figure | {" | ".join(f"{size:,}" for size in sizes)} |\n')
        file.write(f'| --- |{" ---: |" * len(sizes)}\n')
        for name, unit in names:
            cells = (f'{values[size, name]:,.3f}' if (size, name) in values else ''
                     for size in sizes)
            file.write(f'| {name}{f", {unit}" if unit else ""} | {" | ".join(cells)} |\n')
    print(f'{place}.md, {place}.csv')


def machine():
    model = next((line.split(':')[1].strip() for line in Path('/proc/cpuinfo').read_text()
                  .splitlines() if line.startswith('model name')), platform.machine())
    compiler = subprocess.run(['c++', '--version'], capture_output=True, text=True,
                              check=True).stdout.splitlines()[0]
    cache = Path('build/CMakeCache.txt').read_text()
    flags = ' '.join(re.search(rf'^{name}:\w+=(.*)$', cache, re.MULTILINE)[1]
                     for name in ('CMAKE_CXX_FLAGS', 'CMAKE_CXX_FLAGS_RELEASE')).strip()
    kernel = '.'.join(platform.release().split('.')[:2])
    gigabytes = os.sysconf('SC_PAGE_SIZE') * os.sysconf('SC_PHYS_PAGES') / 2**30
    return (f'{time.strftime("%F")}, Linux {kernel}, {os.cpu_count()} cores of {model}, '
            f'{gigabytes:.0f} GiB, {compiler}, {flags}')


def sizes_of(options):
    return [int(size) for size in options.loaded.split(',')]


def heading(options):
    return (f'{machine()}, {options.workers} workers, synchronous_commit '
            f'{"on" if options.durable else "off"}, {options.rounds} rounds')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--home', type=Path, required=True)
    parser.add_argument('--workers', type=int, required=True)
    parser.add_argument('--quick', action='store_true')
    parser.add_argument('--durable', action='store_true')
    parser.add_argument('--ledger', action='store_true')
    parser.add_argument('--rows', type=int, default=10000000)
    parser.add_argument('--rounds', type=int)
    parser.add_argument('--loaded')
    options = parser.parse_args()
    options.rounds = options.rounds or (12 if options.ledger else 5)
    options.loaded = options.loaded or ('4000' if options.ledger else
                                        '1000,4000,10000,100000,1000000')
    workload = Workload(options.home, options.workers)
    shutil.copy(options.home / 'benchPlugin', workload.plugin)
    workload.commit_without_waiting(not options.durable)
    try:
        if options.quick:
            return 0 if passes_quick_check(workload, options.rounds) else 1
        table = Table()
        if options.ledger:
            is_good = ledger.measure(workload, table, sizes_of(options), options.rounds,
                                     options.rows)
            write_tables(table, options.home / 'bench-ledger', heading(options))
            return 0 if is_good else 1
        measure_all(workload, table, sizes_of(options), options.rounds, (0.25, 0.5, 0.8))
        write_tables(table, options.home / ('bench-durable' if options.durable else 'bench'),
                     heading(options))
    finally:
        workload.plugin.unlink()
    return 0


if __name__ == '__main__':
    sys.exit(main())
