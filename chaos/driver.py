#!/usr/bin/python3
"""Breaks a running daemon on purpose, at random from a seed, and judges what was lost.

Called by scripts/chaos, which provides the build, the cluster and the folder.
"""

import argparse
import random
import shlex
import signal
import sys
import time
from pathlib import Path

import daemon as daemons
import faults
import ledger
from case import Case
from database import SCHEMA, Database
from journal import Journal
from judge import Judge
from population import Population
from report import print_report

ROOT = Path(__file__).resolve().parent.parent
LIBFAKETIME = next(Path('/usr/lib').glob('*/faketime/libfaketimeMT.so.1'), None)
SETTLE_SECONDS = 60  # without faults, at the end: every task comes due, and memory to rest
RECOVERY_LIMIT = 60


class World:
    """Everything that a fault may touch."""

    def __init__(self, home, seed, has_tmpfs):
        self.home, self.has_tmpfs = home, has_tmpfs
        self.rng = random.Random(seed)
        self.output = home / 'output'
        self.ledger = home / 'ledger'
        self.ledger.touch()
        self.plugin = ROOT / 'chaos/plugin'
        self.journal = Journal(home / 'journal')
        self.database = Database(ROOT, home / 'postgres')
        self.population = Population(self.database, self.rng, self.plugin, self.ledger)
        self.clock = home / 'clock' if LIBFAKETIME else None
        self.clock_offset = 0
        self.daemon = daemons.Daemon(self._command(), self._environment(), home / 'koducron.log',
                                     self.journal)
        self.tail = ledger.Tail(self.ledger)

    def _command(self):
        repair = shlex.join(self.database.psql_command(
            '-d', 'kodu', '-f', str(ROOT / 'sql/repair.sql')))
        preload = []
        if self.clock:
            preload = ['env', f'LD_PRELOAD={LIBFAKETIME}', f'FAKETIME_TIMESTAMP_FILE={self.clock}',
                       'FAKETIME_NO_CACHE=1', 'FAKETIME_DONT_FAKE_MONOTONIC=1']
        # The orderly end takes up to two minutes and is not what is tried here.
        return ['setpriv', '--pdeathsig', 'TERM', '--', str(ROOT / 'scripts/supervise'),
                '--stop-within', '3', '--before', repair, *preload,
                str(self.home / 'koducron'), '-f', str(self.home / 'cron.conf')]

    @staticmethod
    def _environment():
        return {'PATH': '/usr/sbin:/usr/bin:/sbin:/bin', 'LC_ALL': 'C.UTF-8', 'TZ': 'UTC'}

    def await_life(self):
        """Returns when there is a daemon to break: it may just have ended by itself."""
        end = time.time() + 10
        while time.time() < end and self.daemon.pid() is None:
            time.sleep(0.05)

    def await_end(self, act):
        """Does what must end the present life; returns when that has happened, a time."""
        pid = self.daemon.pid()
        act()
        end = time.time() + 30
        while time.time() < end and self.daemon.pid() == pid:
            time.sleep(0.05)
        return time.time()

    def await_recovery(self, since):
        """Seconds to the first run by a life that is still there a second later; None: too long.

        A doomed life may well start a plugin or two before its next statement ends it.
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


def prepare(world):
    """Database, role, tasks and the two INI files, which are for this user's eyes only."""
    world.database.query('CREATE DATABASE kodu', 'postgres')
    world.database.query((ROOT / 'sql/schema.sql').read_text(encoding='utf-8') + SCHEMA)
    password = ''.join(random.SystemRandom().choices('abcdefghjkmnpqrstuvwxyz23456789', k=24))
    world.database.query(f"ALTER ROLE kodu PASSWORD '{password}'")
    write_configuration(world, password)
    if world.clock:
        faults.set_clock(world.clock, 0)
    world.population.create_all()


def write_configuration(world, password):
    port = (world.home / 'postgres/port').read_text(encoding='ascii').strip()
    files = {
        'cron.conf': f'[LOG]\nlog_file={world.home}/koducron.log\nlog_path_task={world.output}\n'
                     f'[CRON]\nthread_number={daemons.WORKERS}\n'
                     f'kodu_conf_file={world.home}/database.conf\n',
        'database.conf': f'[POSTGRESQL]\nPGSQL_host=127.0.0.1\nPGSQL_port={port}\n'
                         f'PGSQL_db=kodu\nPGSQL_username=kodu\nPGSQL_pwd={password}\n'}
    for name, text in files.items():
        path = world.home / name
        path.touch(mode=0o600)
        path.write_text(text, encoding='utf-8')


def resources(world):
    """What must be the same at the start and at the end."""
    held = daemons.held_resources(world.daemon)
    held['database sessions'] = world.database.number(
        "SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'client backend' "
        "AND pid <> pg_backend_pid()")
    return held


def inject(world, name, begun):
    """One fault and the wait for the recovery, with a line of progress."""
    world.await_life()
    event = world.journal.add('fault', name=name)
    try:
        since = faults.FAULTS[name](world)
    except faults.NotInjected as reason:
        world.journal.complete(event, kind='not injected', reason=str(reason))
        print(f'{time.time() - begun:6.1f} s  {name}: NOT INJECTED: {reason}', flush=True)
        return
    seconds = world.await_recovery(since)
    world.journal.complete(event, recovered=seconds, until=time.time())
    told = 'NOT RECOVERED' if seconds is None else f'recovered within {seconds:.1f} s'
    print(f'{event["time"] - begun:6.1f} s  {name}: {told}', flush=True)


def inject_faults(world, end, begun):
    """Draws every kind once before any comes again, so that short runs see many kinds too."""
    deck = []
    while time.time() < end:
        deck = deck or world.rng.sample(list(faults.FAULTS), len(faults.FAULTS))
        inject(world, deck.pop(), begun)
        time.sleep(world.rng.uniform(0.5, 3))


def run(world, seconds):
    """The three phases; returns what was counted at start, end and after the stop."""
    begun = time.time()
    prepare(world)
    world.daemon.start()
    if world.await_recovery(begun) is None:
        raise RuntimeError('the daemon does not start')
    quiet = 60 if seconds >= 180 else 10
    before = resources(world)
    time.sleep(max(0, begun + quiet - time.time()))
    inject_faults(world, begun + seconds, begun)
    print(f'{time.time() - begun:6.1f} s  no more faults; {SETTLE_SECONDS} s to come to rest',
          flush=True)
    time.sleep(SETTLE_SECONDS - 7)
    after = resources(world)
    end = time.time()
    rows = read_rows(world)
    world.daemon.stop()
    time.sleep(1)
    left = {'plugins after the stop': daemons.plugins_left(world.plugin),
            'sessions after the stop': world.database.number(
                "SELECT count(*) FROM pg_stat_activity WHERE usename = 'kodu'")}
    return {'begun': begun, 'end': end, 'before': before, 'after': after, 'left': left,
            'judges_memory': quiet == 60, **rows}


def read_rows(world):
    """The tables' contents that the judge needs."""
    return {
        'next': {int(task): (int(at), status) for task, at, status in world.database.query(
            "SELECT cron_id, extract(epoch FROM cron_next_exec)::bigint, "
            "coalesce(cron_status, '') FROM kodu_cron_plugin")},
        'gone': [(int(task), flagged == 't', by_daemon == 't', float(at))
                 for task, flagged, by_daemon, at in world.database.query(
                     'SELECT cron_id, flagged, by_daemon, extract(epoch FROM gone_at) '
                     'FROM chaos_gone')],
        'history': world.database.query('SELECT cron_id, cron_logfile FROM kodu_cron_error')}


def end_in_order(*_):
    """SIGTERM ends the driver through its clean-up; nothing of the run may go on without it."""
    sys.exit(143)


def main():
    signal.signal(signal.SIGTERM, end_in_order)
    parser = argparse.ArgumentParser()
    parser.add_argument('--home', type=Path, required=True)
    parser.add_argument('--seconds', type=int, required=True)
    parser.add_argument('--seed', type=int, required=True)
    parser.add_argument('--tmpfs', action='store_true')
    options = parser.parse_args()
    world = World(options.home, options.seed, options.tmpfs)
    try:
        facts = run(world, options.seconds)
    finally:
        world.daemon.stop()
    facts['runs'] = ledger.read(world.ledger)
    judge = Judge(Case(world, facts))
    facts['memory'] = judge.resident()
    return 0 if print_report(world, facts, judge.figures()) else 1


if __name__ == '__main__':
    sys.exit(main())
