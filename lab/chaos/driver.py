#!/usr/bin/python3
"""Injects random faults, drawn from a seed, into a running daemon and judges what was lost.

Called by lab/chaos/run, which provides the build, the cluster and the folder.
"""

import argparse
import random
import shlex
import signal
import sys
import time
from pathlib import Path

from lab.chaos import account, faults, ledger
from lab.chaos import daemon as daemons
from lab.chaos.case import Case
from lab.chaos.journal import Journal
from lab.chaos.judge import Judge
from lab.chaos.population import Population
from lab.chaos.report import print_report
from lab.shared.database import Database

ROOT = Path(__file__).resolve().parents[2]
LIBFAKETIME = next(Path('/usr/lib').glob('*/faketime/libfaketimeMT.so.1'), None)
SETTLE_SECONDS = 60  # without faults, at the end: every task becomes due, and memory settles
RECOVERY_LIMIT = 60


# Records when and by whom each row was deleted, inside the deleting transaction: when a crash of the
# server rolls back the deletion, it rolls back the record too.
GONE = """
CREATE TABLE chaos_gone (
    cron_id integer, flagged boolean, by_daemon boolean, gone_at timestamptz);
CREATE FUNCTION chaos_note_gone() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER AS $$
BEGIN
    INSERT INTO public.chaos_gone
    VALUES (OLD.cron_id, OLD.cron_delete, session_user = 'kodu', clock_timestamp());
    RETURN NULL;
END $$;
CREATE TRIGGER chaos_gone AFTER DELETE ON kodu_cron_plugin
    FOR EACH ROW EXECUTE FUNCTION chaos_note_gone();
"""


# The driver sends the notifications itself.
SILENT = """
DROP TRIGGER kodu_task_added ON kodu_cron_plugin;
DROP TRIGGER kodu_task_changed ON kodu_cron_plugin;
DROP TRIGGER kodu_plugin_changed ON kodu_plugins;
"""


class Target:
    """Everything that a fault can change."""

    def __init__(self, home, seed, has_tmpfs, has_ledger):
        self.home, self.has_tmpfs, self.has_ledger = home, has_tmpfs, has_ledger
        self.rng = random.Random(seed)
        self.output = home / 'output'
        self.ledger = home / 'ledger'
        self.ledger.touch()
        self.plugin = ROOT / 'lab/chaos/plugin'
        self.journal = Journal(home / 'journal')
        self.database = Database(home / 'postgres', timeout=60)
        self.population = Population(self.database, self.rng, self.plugin, self.ledger)
        self.clock = home / 'clock' if LIBFAKETIME else None
        self.clock_offset = 0
        self.daemon = daemons.SupervisedDaemon(self._command(), self._environment(), home / 'koducron.log',
                                     self.journal)
        self.tail = ledger.Tail(self.ledger)

    def _command(self):
        repair = shlex.join(self.database.psql_command(
            '-d', 'kodu', '-f', str(ROOT / 'sql/repair.sql')))
        preload = []
        if self.clock:
            preload = ['env', f'LD_PRELOAD={LIBFAKETIME}', f'FAKETIME_TIMESTAMP_FILE={self.clock}',
                       'FAKETIME_NO_CACHE=1', 'FAKETIME_DONT_FAKE_MONOTONIC=1']
        # The orderly shutdown takes up to two minutes and is not tested here.
        return ['setpriv', '--pdeathsig', 'TERM', '--', str(ROOT / 'ops/supervise'),
                '--stop-within', '3', '--before', repair, *preload,
                str(self.home / 'koducron'), '-f', str(self.home / 'cron.conf')]

    @staticmethod
    def _environment():
        return {'PATH': '/usr/sbin:/usr/bin:/sbin:/bin', 'LC_ALL': 'C.UTF-8', 'TZ': 'UTC'}

    def await_life(self):
        """Returns when the daemon runs: it may just have ended by itself."""
        end = time.time() + 10
        while time.time() < end and self.daemon.pid() is None:
            time.sleep(0.05)

    def await_end(self, act):
        """Does what must end the present life; returns the time of its end."""
        pid = self.daemon.pid()
        act()
        end = time.time() + 30
        while time.time() < end and self.daemon.pid() == pid:
            time.sleep(0.05)
        return time.time()

    def await_recovery(self, since):
        """Seconds until the first run by a life that still exists a second later; None: too long.

        A life that is about to end may start a plugin or two before its next statement ends it.
        """
        while time.time() < since + RECOVERY_LIMIT:
            for run in self.tail.new_runs():
                if run.begin > since and run.life == self.daemon.pid():
                    time.sleep(1)
                    if run.life == self.daemon.pid():
                        return run.begin - since
                    break
            time.sleep(0.05)
        return None


def prepare(target):
    """Creates the tasks, and the trigger that records each deletion."""
    target.database.query(GONE)
    if target.has_ledger:
        target.database.query(SILENT)
    if target.clock:
        faults.set_clock(target.clock, 0)
    target.population.create_all()


def resources(target):
    """The figures that must be the same at the start and at the end."""
    held = daemons.held_resources(target.daemon)
    held['database sessions'] = target.database.number(
        "SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'client backend' "
        "AND pid <> pg_backend_pid()")
    return held


def inject(target, name, begun):
    """Injects one fault and waits for the recovery, with a line of progress."""
    target.await_life()
    event = target.journal.add('fault', name=name)
    try:
        since = faults.FAULTS[name](target)
    except faults.NotInjected as reason:
        target.journal.complete(event, kind='not injected', reason=str(reason))
        print(f'{time.time() - begun:6.1f} s  {name}: NOT INJECTED: {reason}', flush=True)
        return
    seconds = target.await_recovery(since)
    target.journal.complete(event, recovered=seconds, until=time.time())
    told = 'NOT RECOVERED' if seconds is None else f'recovered within {seconds:.1f} s'
    print(f'{event["time"] - begun:6.1f} s  {name}: {told}', flush=True)


def inject_faults(target, end, begun):
    """Draws every kind once before any is repeated, so that short runs contain many kinds too."""
    deck = []
    while time.time() < end:
        deck = deck or target.rng.sample(list(faults.FAULTS), len(faults.FAULTS))
        inject(target, deck.pop(), begun)
        time.sleep(target.rng.uniform(0.5, 3))


def run(target, seconds):
    """Runs the three phases; returns the figures at the start, at the end and after the stop."""
    begun = time.time()
    prepare(target)
    target.daemon.start()
    if target.await_recovery(begun) is None:
        raise RuntimeError('the daemon did not start')
    quiet = 60 if seconds >= 180 else 10
    before = resources(target)
    time.sleep(max(0, begun + quiet - time.time()))
    inject_faults(target, begun + seconds, begun)
    print(f'{time.time() - begun:6.1f} s  no more faults; {SETTLE_SECONDS} s to settle',
          flush=True)
    time.sleep(SETTLE_SECONDS - 7)
    after = resources(target)
    end = time.time()
    rows = read_rows(target)
    target.daemon.stop()
    time.sleep(1)
    left = {'plugins after the stop': daemons.plugins_left(target.plugin),
            'sessions after the stop': target.database.number(
                "SELECT count(*) FROM pg_stat_activity WHERE usename = 'kodu'")}
    return {'begun': begun, 'end': end, 'before': before, 'after': after, 'left': left,
            'judges_memory': quiet == 60, **rows}


def read_rows(target):
    """The tables' contents that the judge needs."""
    return {
        'next': {int(task): (int(at), status) for task, at, status in target.database.query(
            "SELECT cron_id, extract(epoch FROM cron_next_exec)::bigint, "
            "coalesce(cron_status, '') FROM kodu_cron_plugin")},
        'gone': [(int(task), flagged == 't', by_daemon == 't', float(at))
                 for task, flagged, by_daemon, at in target.database.query(
                     'SELECT cron_id, flagged, by_daemon, extract(epoch FROM gone_at) '
                     'FROM chaos_gone')],
        'history': target.database.query('SELECT cron_id, cron_logfile FROM kodu_cron_error'),
        'account': account.read(target.database) if target.has_ledger else None}


def end_in_order(*_):
    """SIGTERM ends the driver through its clean-up; no part of the run may continue without it."""
    sys.exit(143)


def main():
    signal.signal(signal.SIGTERM, end_in_order)
    parser = argparse.ArgumentParser()
    parser.add_argument('--home', type=Path, required=True)
    parser.add_argument('--seconds', type=int, required=True)
    parser.add_argument('--seed', type=int, required=True)
    parser.add_argument('--tmpfs', action='store_true')
    parser.add_argument('--ledger', action='store_true')
    options = parser.parse_args()
    target = Target(options.home, options.seed, options.tmpfs, options.ledger)
    try:
        facts = run(target, options.seconds)
    finally:
        target.daemon.stop()
    facts['runs'] = ledger.read(target.ledger)
    judge = Judge(Case(target, facts))
    facts['memory'] = judge.resident()
    return 0 if print_report(target, facts, judge.figures()) else 1


if __name__ == '__main__':
    sys.exit(main())
