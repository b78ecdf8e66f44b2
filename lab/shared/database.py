"""SQL on the run's private cluster, by psql through scripts/cluster."""

import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SEPARATOR = '\x1f'


class Database:
    """The database `kodu` of the cluster in a folder, as the cluster's superuser."""

    def __init__(self, folder, timeout=None):
        """A query that takes longer than `timeout` seconds raises subprocess.TimeoutExpired."""
        self._script = str(ROOT / 'scripts/cluster')
        self._folder = str(folder)
        self._timeout = timeout

    def psql_command(self, *arguments):
        """psql's command line; for `supervise --before` too."""
        return [self._script, 'psql', self._folder, '-X', '-q', '-v', 'ON_ERROR_STOP=1',
                *arguments]

    def query(self, sql, name='kodu'):
        """The result's rows, each a list of texts. By standard input: arguments show in ps."""
        done = subprocess.run(self.psql_command('-A', '-t', '-F', SEPARATOR, '-d', name),
                              input=sql, capture_output=True, text=True, check=False,
                              timeout=self._timeout)
        if done.returncode != 0:
            raise RuntimeError(f'psql: {done.stderr.strip()}')
        return [line.split(SEPARATOR) for line in done.stdout.splitlines() if line]

    def number(self, sql):
        """The one number that the query returns."""
        return int(self.query(sql)[0][0])

    def restart_at_once(self):
        """Ends the server as a crash does, and starts it again; the start recovers."""
        done = subprocess.run([self._script, 'restart', self._folder, '--immediate'],
                              capture_output=True, check=False, timeout=120)
        if done.returncode != 0:  # the last sessions of the previous server were still ending
            subprocess.run([self._script, 'start', self._folder], check=True, timeout=120)

    def notify(self, payloads):
        """Sends the payloads that the query `payloads` returns in its one column."""
        self.query(f"SELECT count(pg_notify('koducronchannel', payload)) "
                   f"FROM ({payloads}) AS flood (payload)")
