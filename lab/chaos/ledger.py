"""The plugins' ledger: what really ran, and when."""

from dataclasses import dataclass
from typing import Optional


@dataclass
class Run:
    """One execution of a plugin; end and code are None when it was killed with its daemon."""

    task: int
    kind: str
    pid: int
    life: int
    begin: float
    end: Optional[float] = None
    code: Optional[int] = None

    @property
    def identity(self):
        """The identification in the first line of the run's output."""
        return self.pid, self.begin


def parse(line):
    """The run that a complete line describes."""
    task, kind, pid, life, begin, end, code = line.split()
    return Run(int(task), kind, int(pid), int(life), float(begin),
               None if end == '-' else float(end), None if code == '-' else int(code))


def read(path):
    """All runs, by their begin; a run's second line completes its first."""
    runs = {}
    with open(path, encoding='ascii') as lines:
        for line in lines:
            run = parse(line)
            known = runs.get((run.task, *run.identity))
            if known is None or known.end is None:
                runs[run.task, *run.identity] = run
    return sorted(runs.values(), key=lambda run: run.begin)


class Tail:
    """Reads the lines appended while the plugins run; incomplete lines wait."""

    def __init__(self, path):
        self._file = open(path, encoding='ascii')
        self._file.seek(0, 2)
        self._rest = ''

    def new_runs(self):
        """The runs that began since the last call."""
        lines = (self._rest + self._file.read()).split('\n')
        self._rest = lines.pop()
        return [run for run in map(parse, lines) if run.end is None]
