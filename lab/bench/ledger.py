"""What the ledger costs: two databases that differ in sql/ledger.sql alone, measured in turn."""

import math
import random
import time
from statistics import mean, median

from lab.bench import figures, scrape
from lab.bench.workload import Workload
from lab.shared.database import ROOT

WITH = 'kodu_with_ledger'
RATE, LOAD, HOT, HISTORY = 0.95, 1.15, 99.0, 0.3
RESAMPLES = 10000
# What the ledger keeps in the row of a task that has run.
RUN_STATE = (', run_due = now(), run_started = now(), run_ended = now(), run_attempt = 1, '
             'ledger_to = cron_next_exec')


def interval_of(ratios):
    """(mean, low, high) of ratios: the geometric mean and its 95% interval, by resampling."""
    logs, chance = [math.log(one) for one in ratios], random.Random(1)
    means = sorted(mean(chance.choices(logs, k=len(logs))) for _ in range(RESAMPLES))
    tail = RESAMPLES // 40
    return [math.exp(value) for value in (mean(logs), means[tail], means[-tail])]


def with_ledger(workload):
    """A database beside the workload's, with the ledger."""
    workload.query(f'DROP DATABASE IF EXISTS {WITH} WITH (FORCE)')
    workload.query(f'CREATE DATABASE {WITH}')
    other = Workload(workload.home, workload.workers, WITH)
    for name in ('schema', 'functions', 'ledger'):
        other.query((ROOT / f'sql/{name}.sql').read_text(encoding='utf-8'))
    return other


def pairs(rounds, measure, first, second):
    """(first's, second's) of each round, who begins changing from round to round."""
    taken = []
    for number in range(rounds + 1):
        order = [0, 1] if number % 2 else [1, 0]
        found = {which: measure((first, second)[which]) for which in order}
        if number:  # the first round warms up
            taken.append((found[0], found[1]))
    return taken


def add_ratio(table, loaded, name, ratios):
    middle, low, high = interval_of(ratios)
    table.add(loaded, name, middle)
    table.add(loaded, f'{name}, low', low)
    table.add(loaded, f'{name}, high', high)
    return low, high


def burst(count, load_seconds):
    def measure(workload):
        workload.vacuum()
        return figures.drain_once(workload, count, load_seconds)
    return measure


def seconds_to_load(workload):
    return figures.load_once(workload)[0]


def measure_costs(plain, ledgered, table, loaded, rounds):
    """True when the limits lie within, or on the good side of, the figures' intervals."""
    for workload, state in ((plain, ''), (ledgered, RUN_STATE)):
        workload.create_tasks(loaded)
        workload.query(f"SET session_replication_role = replica; UPDATE kodu_cron_plugin "
                       f"SET cron_status = 'OK', cron_last_exec = now(){state}")
        workload.query('VACUUM FULL ANALYZE kodu_cron_plugin')
    for title, workload in (('without', plain), ('with', ledgered)):
        [[size]] = workload.query("SELECT pg_total_relation_size('kodu_cron_plugin')")
        table.add(loaded, f'task table {title}', int(size) / loaded, 'B/task')
    plain.make_output_files(min(loaded, figures.BURST))
    loads = pairs(max(3, rounds // 2), seconds_to_load, plain, ledgered)
    table.add(loaded, 'load without', median(one for one, _ in loads), 's')
    table.add(loaded, 'load with', median(other for _, other in loads), 's')
    least_load, _ = add_ratio(table, loaded, 'load ratio', [other / one for one, other in loads])

    longest = max(max(pair) for pair in loads)
    found = pairs(rounds, burst(min(loaded, figures.BURST), longest), plain, ledgered)
    for name, unit, scale in (('rate', 'runs/s', 1), ('server', 'us', 1e6), ('own', 'us', 1e6)):
        title = {'rate': 'rate', 'server': 'server CPU a run', 'own': 'daemon CPU a run'}[name]
        table.add(loaded, f'{title} without', median(one[name] for one, _ in found) * scale, unit)
        table.add(loaded, f'{title} with', median(other[name] for _, other in found) * scale, unit)
    _, most = add_ratio(table, loaded, 'rate ratio',
                        [other['rate'] / one['rate'] for one, other in found])
    add_ratio(table, loaded, 'server CPU ratio',
              [other['server'] / one['server'] for one, other in found])
    plain_hot, hot = (median(pair[which]['hot share'] for pair in found) * 100 for which in (0, 1))
    table.add(loaded, 'HOT updates without', plain_hot, '%')
    table.add(loaded, 'HOT updates with', hot, '%')
    return most >= RATE and least_load <= LOAD and hot >= HOT


def fill(ledgered, rows, tasks=10000):
    """So many runs of `tasks` tasks over the last three days, and the indexes of housekeeping."""
    ledgered.query(f"""
        TRUNCATE kodu_ledger;
        INSERT INTO kodu_ledger (xact, due, started, ended, moved_from, moved_to, cron_id, periods,
                                 every, life, bucket, attempt, outcome)
        SELECT pg_current_xact_id()::text::bigint, slot, slot, slot, slot, slot + interval '30 s',
               n % {tasks}, 1, 30, 1, kodu_ledger_bucket(slot), 1, 'O'
        FROM (SELECT n, now() AT TIME ZONE 'UTC' - interval '3 days' * (1 - n / {rows}.0) AS slot
              FROM generate_series(1, {rows}) AS n) AS run""")
    while ledgered.query('SELECT kodu_ledger_index()') != []:
        pass
    ledgered.query('VACUUM ANALYZE kodu_ledger')


def timed(workload, sql):
    """Seconds of the third of three times, by the server."""
    plan = workload.query(f'EXPLAIN (ANALYZE, TIMING OFF) {sql};' * 3)
    return float(plan[-1][0].split()[2]) / 1000  # Execution Time: N ms


def measure_reading(ledgered, table, rows):
    """True when one task's history is there in time."""
    fill(ledgered, rows)
    [[bytes_]] = ledgered.query('SELECT bytes FROM kodu_ledger_status()')
    table.add(rows, 'ledger with the indexes', int(bytes_) / rows, 'B/row')
    history = timed(ledgered, 'SELECT * FROM kodu_run WHERE id = 7 ORDER BY ended DESC')
    table.add(rows, "one task's history", history, 's')
    for name, source in (("one task's account", 'kodu_account(task => 7)'),
                         ('accounts of all tasks', 'kodu_account()'), ('gaps', 'kodu_ledger_gap')):
        table.add(rows, name, timed(ledgered, f'SELECT * FROM {source}'), 's')
    for name, call in (('summaries', 'kodu_ledger_summarise(TRUE)'),
                       ('status', 'kodu_ledger_status()')):
        begin = time.time()
        ledgered.query(f'SELECT * FROM {call}')
        table.add(rows, name, time.time() - begin, 's')
    [[days, size]] = ledgered.query("SELECT count(*), pg_total_relation_size('kodu_ledger_day') "
                                    'FROM kodu_ledger_day')
    table.add(rows, 'summary of a task and day', int(size) / int(days), 'B')
    return history <= HISTORY


def measure(workload, table, sizes, rounds, rows):
    """Every figure; false when one is worse than its limit."""
    ledgered = with_ledger(workload)
    good = [measure_costs(workload, ledgered, table, loaded, rounds) for loaded in sizes]
    good.append(measure_reading(ledgered, table, rows))
    good.append(scrape.measure(ledgered, table, sizes[-1]))
    return all(good)
