"""One life of the daemon that is measured."""

import os
import re
import subprocess
import time
from pathlib import Path

from lab.shared.processes import cpu_seconds_of, stat_of

TICK = os.sysconf('SC_CLK_TCK')


class DaemonLife:
    """One life of the daemon. Use it in a with statement: it is killed at the end."""

    def __init__(self, workload):
        self._workload = workload
        workload.log.write_text('')
        self._log = open(workload.log, encoding='utf-8')
        self._unread = ''
        self._process = subprocess.Popen(
            [workload.home / 'koducron', '-f', workload.config],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()
        self._log.close()

    def wait_for(self, line, timeout=300):
        """Reads the log until a line ends with this text; returns its time, epoch."""
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
        """Waits until the runs of the tasks 1 to count have ended."""
        end = time.time() + seconds
        while time.time() < end:
            if self._workload.query(f'SELECT count(*) FROM kodu_cron_plugin WHERE cron_id <= {count} '
                                 f'AND cron_last_exec IS NULL') == [['0']]:
                return
            time.sleep(0.2)
        raise TimeoutError(f'not all of {count} tasks were run')
