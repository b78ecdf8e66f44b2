"""The benchmark's surroundings: tasks in the private database, the daemon and the floor as processes."""

import os
import re
import subprocess
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
PARAMETER = '-w 80 -c 90 -t 10 -v'  # 20 characters
PATH_LENGTH = 30
TICK = os.sysconf('SC_CLK_TCK')
DAY = 86400


class World:
    """Everything below one folder, which scripts/bench has prepared."""

    def __init__(self, home, workers):
        self.home, self.workers = home, workers
        self.output = home / 'output'
        self.log = home / 'koducron.log'
        # 30 characters, so that memory figures are for paths of a known length.
        self.plugin = Path(('/tmp/koducron-bench-' + 'x' * PATH_LENGTH)[:PATH_LENGTH])
        config = dict(re.findall(r'^(PGSQL_\w+)=(.*)$', (home / 'database.conf').read_text(), re.M))
        self._environment = {**os.environ, 'PGPASSWORD': config['PGSQL_pwd']}
        self._conninfo = (f'host={config["PGSQL_host"]} port={config["PGSQL_port"]} '
                          f'dbname={config["PGSQL_db"]} user={config["PGSQL_username"]}')

    def query(self, sql):
        """The result's rows, each a list of texts."""
        done = subprocess.run(
            [ROOT / 'scripts/cluster', 'psql', self.home / 'postgres', '-X', '-q', '-A', '-t',
             '-v', 'ON_ERROR_STOP=1', '-d', 'kodu'],
            input=sql, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f'psql: {done.stderr.strip()}')
        return [line.split('|') for line in done.stdout.splitlines() if line]

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
        """Creating files is the file system's price, not the daemon's."""
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


class Daemon:
    """One life of the daemon. Use it in a with statement: it is killed at the end."""

    def __init__(self, world):
        self._world = world
        world.log.write_text('')
        self._log = open(world.log, encoding='utf-8')
        self._unread = ''
        self._process = subprocess.Popen(
            [world.home / 'koducron', '-f', world.home / 'cron.conf'],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()
        self._log.close()

    def wait_for(self, line, timeout=300):
        """Reads the log on until a line ends like this; when that was, epoch."""
        end = time.time() + timeout
        while time.time() < end:
            self._unread += self._log.read()
            _, found, behind = self._unread.partition(f'{line}\n')
            if found:
                self._unread = behind
                return time.time()
            if self._process.poll() is not None:
                raise RuntimeError(f'the daemon has ended: {self._process.returncode}')
            time.sleep(0.002)
        raise TimeoutError(f'no {line} in the log')

    def wait_until_loaded(self):
        """Seconds from the query to the end of the load."""
        begin = self.wait_for('#Load cron task')
        end = self.wait_for('#script reload successful')
        self.wait_for('#Start Thread')
        return end - begin

    def cpu_seconds(self):
        """(own, its ended children's)."""
        fields = stat_of(self._process.pid)
        return cpu_seconds_of(self._process.pid), (fields[13] + fields[14]) / TICK

    def memory_bytes(self):
        """(resident, its peak)."""
        status = Path(f'/proc/{self._process.pid}/status').read_text()
        return tuple(int(re.search(rf'{name}:\s+(\d+)', status)[1]) * 1024
                     for name in ('VmRSS', 'VmHWM'))

    def wait_for_runs(self, count, seconds=300):
        """Until the tasks 1 to count have been run to their end."""
        end = time.time() + seconds
        while time.time() < end:
            if self._world.query(f'SELECT count(*) FROM kodu_cron_plugin WHERE cron_id <= {count} '
                                 f'AND cron_last_exec IS NULL') == [['0']]:
                return
            time.sleep(0.2)
        raise TimeoutError(f'not all of {count} tasks were run')


def stat_of(pid):
    """The numbers of /proc/PID/stat from its state's successor on."""
    text = Path(f'/proc/{pid}/stat').read_text()
    return [0] + [int(field) for field in text.rsplit(')', 1)[1].split()[1:]]


def cpu_seconds_of(pid):
    """CPU time of a process by its own clock: a tick of /proc is two percent of a burst."""
    cpu_clock = ~pid << 3 | 2
    return time.clock_gettime(cpu_clock)


def server_cpu_seconds(world):
    """CPU time of the server's process for the daemon's or the floor's session."""
    pids = world.query("SELECT pid FROM pg_stat_activity WHERE usename = 'kodu'")
    return sum(cpu_seconds_of(int(pid)) for [pid] in pids)
