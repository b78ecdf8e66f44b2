"""What sql/ledger.sql recorded, compared with what the plugins wrote down."""

from bisect import bisect_right
from collections import defaultdict
from dataclasses import dataclass, field

from lab.chaos.case import NOTICED, PASS_END

CLOCKS = 0.05  # seconds between the server's reading of the clock and a plugin's
NOT_DURABLE = 1.5  # seconds before a crash of the server: the daemon's role does not wait for the disk


@dataclass
class Account:
    """The rows that the judge needs; times are epochs."""

    attempts: dict = field(default_factory=lambda: defaultdict(list))  # (started, ended) by task
    gaps: list = field(default_factory=list)
    sums: list = field(default_factory=list)  # of tasks whose sum does not hold
    unwritten: int = 0

    def covers(self, run):
        """True when a recorded attempt contains the begin of the run."""
        attempts = self.attempts[run.task]
        index = bisect_right(attempts, (run.begin + CLOCKS, float('inf')))
        return index > 0 and attempts[index - 1][1] >= run.begin


def read(database):
    """The ledger as it stands now. An attempt in progress is one, too."""
    account = Account()
    for task, started, ended in database.query(
            "SELECT id, extract(epoch FROM started), extract(epoch FROM ended) FROM kodu_run "
            "WHERE started IS NOT NULL UNION ALL "
            "SELECT cron_id, extract(epoch FROM run_started), 'infinity' FROM kodu_cron_plugin "
            "WHERE run_started IS NOT NULL AND cron_status = 'PROCESS' ORDER BY 2"):
        account.attempts[int(task)].append((float(started), float(ended)))
    account.gaps = database.query('SELECT * FROM kodu_ledger_gap')
    account.sums = database.query(
        'SELECT id, periods, runs, skipped, difference FROM kodu_account() WHERE difference <> 0')
    account.unwritten = database.number('SELECT kodu_ledger_unwritten()')
    return account


def figures(account, case, figure):
    """The lines of the verdict; `figure` makes one from its name."""
    gaps = figure('contradictions in the ledger')
    sums = figure('tasks whose periods are not runs and skipped periods')
    gaps.judged = sums.judged = len(account.attempts)
    for row in account.gaps:
        gaps.take(False, f'task {row[0]}, row {row[1]}: expected {row[2]}, found {row[3]}')
    for task, periods, runs, skipped, _ in account.sums:
        sums.take(False, f'task {task}: {periods} periods, {runs} runs, {skipped} skipped')
    unwritten = figure('rows that the ledger could not write')
    unwritten.judged = 1
    if account.unwritten:
        unwritten.take(False, f'{account.unwritten} rows')
    return gaps, sums, unwritten, attempts(account, case, figure('attempts that the ledger lacks'))


def attempts(account, case, figure):
    """Each attempt that a plugin wrote down is in the ledger."""
    for task, runs in case.runs.items():
        for run in runs:
            if run.begin > case.end - PASS_END:
                continue  # the ledger was read before its end
            figure.judged += 1
            if not account.covers(run):
                figure.take(explains(case, task, run), f'task {task} ({run.kind}), run of '
                            f'{case.time(run.begin)}, life {run.life}')
    return figure


def explains(case, task, run):
    """The server crashed before the row was durable; the task's row went with the run in it; or the life
    had two definitions of the task, whose runs overlap, and a row can hold one attempt."""
    gone = case.tasks[task].gone
    return (any(begin - NOT_DURABLE <= run.begin <= end for begin, end in case.windows('server')) or
            gone is not None and (run.end or run.begin) >= gone - NOTICED or
            case.has_twin(case.tasks[task], run.life, run.begin))
