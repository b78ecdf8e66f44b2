"""Measures koductl with as many tasks as the daemon runs; see scripts/bench --tool."""

import argparse
import os
import pty
import select
import subprocess
import sys
import time
from pathlib import Path
from statistics import median

from lab.bench.run import Table, machine, write_tables
from lab.shared.database import Database
from lab.shared.processes import cpu_seconds_of

# One in ten tasks fails, with as many failures as make two a task; the others succeed.
FAILURES_OF_ONE = 20
PAGE = 20  # tasks
WATCH_SECONDS = 60
PAGES = {
    'by id': (),
    'by name': ('--sort', 'name'),
    'by plugin, backwards': ('--sort', 'plugin,desc'),
    'by status': ('--sort', 'status'),
    'by lateness': ('--sort', 'late,desc'),
    'by the next time': ('--sort', 'next'),
    'by the last time': ('--sort', 'last'),
    'by interval': ('--sort', 'every'),
    'by failures': ('--sort', 'failures,desc'),
    'by the begin of failing': ('--sort', 'failing'),
    'failing, by the next time': ('--failed', '--sort', 'next'),
    'of a name, by name': ('--name', '*99*', '--sort', 'name'),
    'of a plugin, by the next time': ('--plugin', '*/check7', '--sort', 'next'),
    'late, by lateness': ('--late', '--sort', 'late,desc'),
    'that never ran': ('--never-ran',),
}


class Tool:
    """koductl on the private database, as its superuser."""

    def __init__(self, home):
        self.home = home
        self.database = Database(home / 'postgres')
        self.environment = {**os.environ, 'TERM': 'xterm',
                            'PGPASSWORD': (home / 'postgres/password').read_text().strip()}

    def command(self, *arguments):
        return [str(self.home / 'koductl'), '-f', str(self.home / 'cron.conf'), '--user',
                'postgres', *arguments]

    def run(self, *arguments, allowed=(0,)):
        """(seconds, peak MB of memory) of a run whose output goes nowhere."""
        begin = time.monotonic()
        process = subprocess.Popen(self.command(*arguments), env=self.environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        if process.returncode not in allowed:
            raise RuntimeError(f'koductl {" ".join(arguments)}: {process.returncode}')
        return time.monotonic() - begin, usage.ru_maxrss / 1024

    def copy_seconds(self):
        """Of psql, which reads the whole view."""
        begin = time.monotonic()
        subprocess.run(self.database.psql_command(
            '-d', 'kodu', '-c', 'COPY (SELECT * FROM kodu_task_state) TO STDOUT'),
            stdout=subprocess.DEVNULL, check=True)
        return time.monotonic() - begin

    def watch_share(self, *arguments):
        """The part of a core that a watch takes of the server, after its first three pictures."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.execve(str(self.home / 'koductl'),
                      self.command('status', '--watch', *arguments), self.environment)
        drain(terminal, 5)
        [[server]] = self.database.query(
            "SELECT pid FROM pg_stat_activity WHERE application_name = 'kodu_ctl'")
        before = cpu_seconds_of(int(server))
        drain(terminal, WATCH_SECONDS)
        share = (cpu_seconds_of(int(server)) - before) / WATCH_SECONDS
        os.kill(pid, 2)
        drain(terminal, 1)
        os.waitpid(pid, 0)
        return share


def drain(terminal, seconds):
    """Reads what a terminal shows, as somebody would look at it."""
    end = time.monotonic() + seconds
    while (left := end - time.monotonic()) > 0:
        if select.select([terminal], [], [], left)[0]:
            try:
                os.read(terminal, 65536)
            except OSError:  # the program has ended
                return


def create_tasks(query, count):
    """Tasks 1 to count, each with a name of its own and one of a hundred plugins; the history. The
    ledger has seen all of it."""
    query(f"""
        TRUNCATE kodu_cron_plugin, kodu_cron_error, kodu_plugins, kodu_cron_pause CASCADE;
        ALTER TABLE kodu_cron_plugin DISABLE TRIGGER USER;
        INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path)
        SELECT n, 'task' || n, '/usr/lib/koducron/plugins/check' || n % {max(8, count // 10000)}
        FROM generate_series(1, {count}) AS n;
        INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_status,
                                      cron_last_exec, cron_next_exec, cron_log_file, cron_retries,
                                      cron_parameter, ledger_to, run_failing_since)
        SELECT n, n, '1 day', CASE WHEN n % 10 = 0 THEN 'FAILED' WHEN n % 1000 > 1 THEN 'OK' END,
               CASE WHEN n % 1000 <> 1 THEN date_trunc('second', now()) - interval '1 day' END,
               date_trunc('second', now())
               + CASE WHEN n % 100 = 3 THEN -1 ELSE 1 END * (3600 + n % 80000) * interval '1 s',
               'out_$SERVICEID_$DATE.txt', 0, '-H host' || n,
               date_trunc('second', now())
               + CASE WHEN n % 100 = 3 THEN -1 ELSE 1 END * (3600 + n % 80000) * interval '1 s',
               CASE WHEN n % 10 = 0 THEN now() - {FAILURES_OF_ONE - 1} * interval '1 day' END
        FROM generate_series(1, {count}) AS n;
        INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)
        SELECT 10 * n, now() - day * interval '1 day' + n * interval '1 ms', day || '.txt'
        FROM generate_series(0, {FAILURES_OF_ONE - 1}) AS day,
             generate_series(1, {count // 10}) AS n;
        ALTER TABLE kodu_cron_plugin ENABLE TRIGGER USER""")
    for table in ('kodu_plugins', 'kodu_cron_plugin', 'kodu_cron_error'):
        query(f'VACUUM ANALYZE {table}')
    query('CHECKPOINT')  # else the server writes all of this while the first pages are read


def forget_runs(query):
    """As if the ledger had never been on."""
    query("""
        ALTER TABLE kodu_cron_plugin DISABLE TRIGGER USER;
        UPDATE kodu_cron_plugin SET ledger_to = NULL, run_failing_since = NULL
        WHERE run_failing_since IS NOT NULL;
        ALTER TABLE kodu_cron_plugin ENABLE TRIGGER USER""")
    query('VACUUM ANALYZE kodu_cron_plugin')


def make_archive(home, count):
    """A copy of the output of each failure."""
    for task in range(10, count + 1, 10):
        folder = home / 'output/archive' / str(task)
        folder.mkdir(parents=True)
        for day in range(FAILURES_OF_ONE):
            (folder / f'{day}.txt').write_text('bad')


def measure(tool, table, count, rounds):
    def add(name, arguments, repeat=rounds, allowed=(0,), with_memory=True):
        taken = [tool.run(*arguments, allowed=allowed) for _ in range(repeat)]
        table.add(count, name, median(one[0] for one in taken), 's')
        memory = max(one[1] for one in taken)
        if with_memory:
            table.add(count, f'{name}: memory', memory, 'MB')
        return memory

    for name, arguments in (('--version', ('--version',)), ('--help', ('--help',)),
                            ('ids that begin with digits',
                             ('ids', '--prefix', '99', '--limit', '100'))):
        add(name, arguments, with_memory=False)
    memory = max(add(f'status, a page {name}', ('status', '--limit', str(PAGE), *arguments),
                     with_memory=False) for name, arguments in PAGES.items())
    table.add(count, 'status, a page: memory', memory, 'MB')
    pairs = [(tool.copy_seconds(), *tool.run('status', '--all', '--json')) for _ in range(rounds)]
    table.add(count, "psql's COPY of the view", median(one[0] for one in pairs), 's')
    table.add(count, 'status --all --json', median(one[1] for one in pairs), 's')
    table.add(count, 'status --all --json against COPY',
              median(one[1] / one[0] for one in pairs))
    table.add(count, 'status --all --json: memory', max(one[2] for one in pairs), 'MB')
    for name, arguments in (('by id', ()), ('failing, by the next time',
                                            ('--failed', '--sort', 'next'))):
        table.add(count, f"status --watch {name}: the server's core",
                  tool.watch_share(*arguments) * 100, '%')
    add('check --quick', ('check', '--quick'), allowed=(0, 1, 2))
    add('check', ('check',), 1, allowed=(0, 1, 2))
    for name in ('pause', 'resume'):
        add(f'{name} of 10,000 tasks', (name, '--plugin', '*/check7', '--yes'), 1)
    forget_runs(tool.database.query)
    add('status, a page by the begin of failing, without the ledger',
        ('status', '--limit', str(PAGE), '--sort', 'failing'), with_memory=False)
    make_archive(tool.home, count)
    add(f'prune of {2 * count:,} rows and files', ('prune', '--older-than', '1 s'), 1)
    if tool.database.number('SELECT count(*) FROM kodu_cron_error') > 0:
        raise RuntimeError('prune has left rows')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--home', type=Path, required=True)
    parser.add_argument('--workers', type=int, required=True)
    parser.add_argument('--tool', action='store_true', required=True)
    parser.add_argument('--rounds', type=int, default=5)
    parser.add_argument('--tasks', type=int, default=1000000)
    options = parser.parse_args()
    tool = Tool(options.home)
    (options.home / 'koducron.log').touch()  # whose owner the daemon's user is, while none runs
    create_tasks(tool.database.query, options.tasks)
    table = Table()
    measure(tool, table, options.tasks, options.rounds)
    write_tables(table, options.home / 'bench-tool', f'{machine()}, {options.rounds} rounds')
    return 0


if __name__ == '__main__':
    sys.exit(main())
