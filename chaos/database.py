"""SQL on the run's private cluster, by psql through scripts/cluster."""

import subprocess

SEPARATOR = '\x1f'

# When and how each row went, from inside the deleting transaction: a deletion that a crash of the
# server takes back takes its note back as well.
SCHEMA = """
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


class Database:
    """The database `kodu` of the cluster in a folder, as the cluster's superuser."""

    def __init__(self, root, folder):
        self._script = str(root / 'scripts/cluster')
        self._folder = str(folder)

    def psql_command(self, *arguments):
        """psql's command line; for `supervise --before` too."""
        return [self._script, 'psql', self._folder, '-X', '-q', '-v', 'ON_ERROR_STOP=1',
                *arguments]

    def query(self, sql, name='kodu'):
        """The result's rows, each a list of texts. By standard input: arguments show in ps."""
        done = subprocess.run(self.psql_command('-A', '-t', '-F', SEPARATOR, '-d', name),
                              input=sql, capture_output=True, text=True, check=False, timeout=60)
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
        if done.returncode != 0:  # the last sessions of the former server were still ending
            subprocess.run([self._script, 'start', self._folder], check=True, timeout=120)

    def notify(self, payloads):
        """Sends the payloads that the query `payloads` returns in its one column."""
        self.query(f"SELECT count(pg_notify('koducronchannel', payload)) "
                   f"FROM ({payloads}) AS flood (payload)")
