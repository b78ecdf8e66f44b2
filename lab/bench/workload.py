"""The measured workload: tasks in the private database, and the floor that runs them too."""

import functools
import os
import re
import subprocess
from pathlib import Path

from lab.shared.database import Database
from lab.shared.processes import cpu_seconds_of

PARAMETER = '-w 80 -c 90 -t 10 -v'  # 20 characters
PATH_LENGTH = 30
DAY = 86400


class Workload:
    """Everything below one folder, which scripts/bench has prepared."""

    def __init__(self, home, workers, database='kodu'):
        """On the database that the INI files name, or on another one, for which it writes its own."""
        self.home, self.workers = home, workers
        self.output = home / 'output'
        self.query = functools.partial(Database(home / 'postgres').query, name=database)
        self.log = home / 'koducron.log'
        # 30 characters, so that memory figures are for paths of a known length.
        self.plugin = Path(('/tmp/koducron-bench-' + 'x' * PATH_LENGTH)[:PATH_LENGTH])
        config = dict(re.findall(r'^(PGSQL_\w+)=(.*)$', (home / 'database.conf').read_text(), re.M))
        self.config = home / 'cron.conf'
        if database != config['PGSQL_db']:
            self.config = self._write_config(database)
            config['PGSQL_db'] = database
        self._environment = {**os.environ, 'PGPASSWORD': config['PGSQL_pwd']}
        self._conninfo = (f'host={config["PGSQL_host"]} port={config["PGSQL_port"]} '
                          f'dbname={config["PGSQL_db"]} user={config["PGSQL_username"]}')

    def _write_config(self, database):
        """The INI files with another database's name; for this user's eyes only, as the others."""
        place = self.home / f'database-{database}.conf'
        place.touch(mode=0o600)
        place.write_text(re.sub(r'^PGSQL_db=.*$', f'PGSQL_db={database}',
                                (self.home / 'database.conf').read_text(), flags=re.M))
        main = self.home / f'cron-{database}.conf'
        main.write_text((self.home / 'cron.conf').read_text()
                        .replace(str(self.home / 'database.conf'), str(place)))
        return main

    def create_tasks(self, count):
        """Tasks 1 to count, due in a day, with an interval of a day."""
        self.query(f"""
            TRUNCATE kodu_cron_plugin, kodu_cron_error, kodu_plugins CASCADE;
            INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path)
            VALUES (1, 'bench', '{self.plugin}');
            INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_next_exec,
                                          cron_log_file, cron_parameter, cron_retries)
            SELECT n, 1, '1 day', date_trunc('second', now()) + interval '1 day',
                   'out_$SERVICEID_$DATE.txt', '{PARAMETER}', 0
            FROM generate_series(1, {count}) AS n""")
        self.vacuum()

    def vacuum(self):
        self.query('VACUUM ANALYZE kodu_cron_plugin')

    def plan(self, count, first_due, seconds=1):
        """Makes the tasks 1 to count due, spread over some seconds from `first_due` (epoch) on."""
        self.query(f"UPDATE kodu_cron_plugin SET cron_status = NULL, cron_last_exec = NULL, "
                   f"cron_next_exec = to_timestamp({first_due} + cron_id % {seconds}) "
                   f"WHERE cron_id <= {count}")

    def make_output_files(self, count):
        """Creates the files in advance: their creation is a cost of the file system, not of the daemon."""
        self.output.mkdir(exist_ok=True)
        for number in range(1, count + 1):
            self.output_file(number).touch()

    def output_file(self, number):
        return self.output / f'out_{number}_last.txt'

    def finish_times(self, count):
        """When each of the tasks 1 to count wrote its output; epoch."""
        return [os.stat(self.output_file(number)).st_mtime for number in range(1, count + 1)]

    def updates(self):
        """(all, HOT ones) of the task table, of sessions that have ended."""
        [row] = self.query("SELECT n_tup_upd, n_tup_hot_upd FROM pg_stat_user_tables "
                           "WHERE relname = 'kodu_cron_plugin'")
        return int(row[0]), int(row[1])

    def commit_without_waiting(self, is_on):
        self.query(f"ALTER ROLE kodu IN DATABASE kodu SET synchronous_commit = "
                   f"{'off' if is_on else 'on'}")

    def run_program(self, name, *arguments):
        """Runs floor or readTasks; the numbers that it prints."""
        done = subprocess.run([self.home / name, self._conninfo, *map(str, arguments)],
                              env=self._environment, capture_output=True, text=True, check=True)
        return [float(text) for text in done.stdout.split()]

    def run_floor(self, count):
        return self.run_program('floor', self.plugin, self.output, count, self.workers)


def server_cpu_seconds(workload):
    """CPU time of the server's process for the daemon's or the floor's session."""
    pids = workload.query("SELECT pid FROM pg_stat_activity WHERE usename = 'kodu'")
    return sum(cpu_seconds_of(int(pid)) for [pid] in pids)
