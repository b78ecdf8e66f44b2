"""Judges the run: compares the ledger and the tables with the driver's journal.

Each figure counts what was judged, what a documented behaviour explains and what nothing explains.
An explanation always needs an event of its own moment.
"""

from collections import defaultdict
from dataclasses import dataclass, field

from lab.chaos import account
from lab.chaos.case import NOTICED, PASS_END
from lab.chaos.ends import explains_end
from lab.chaos.evidence import longest_stretch, match_copies, median_in, overlapping

IN_HAND = 0.5  # seconds: a run that a worker took before the purge may start this much later


@dataclass
class Figure:
    """One line of the verdict."""

    name: str
    judged: int = 0
    explained: int = 0
    violations: list = field(default_factory=list)

    def take(self, explained, violation):
        """Counts a deviation: explained, or one violation more."""
        if explained:
            self.explained += 1
        else:
            self.violations.append(violation)


class Judge:
    """Calculates each figure of the verdict."""

    def __init__(self, case):
        self.case = case

    def figures(self):
        return [self.recoveries(), self.restarts(), self.missed(), self.overlaps(),
                self.next_times(), self.unfinished(), *self.archives(), self.after_purge(),
                *self.accounts(), self.resources(), self.memory()]

    def recoveries(self):
        figure = Figure('faults without recovery')
        for event in self.case.journal.all('fault'):
            figure.judged += 1
            if event.get('recovered') is None:
                figure.take(False, f'{event["name"]} at {self.case.time(event["time"])}')
        return figure

    def restarts(self):
        figure = Figure('ends of the daemon that no event explains')
        for event in self.case.ends:
            figure.judged += 1
            figure.take(explains_end(self.case, event),
                        f'pid {event["pid"]} {event["how"]} at {self.case.time(event["time"])}: '
                        f'{event["words"]!r}')
        return figure

    def missed(self):
        """Outside of faults, no period without a run may be longer than the definition allows."""
        figure = Figure('silences of a task that the faults do not explain')
        outages = self.case.outages()
        for task in self.case.tasks.values():
            figure.judged += 1
            excuses = outages + self.case.excuses_of(task)
            for begin, end in self.case.pauses(task):
                silence, at = longest_stretch(begin, end, excuses)
                if silence > task.longest_silence():
                    figure.take(False, f'task {task.id} ({task.kind}, each {task.interval} s): '
                                f'nothing for {silence:.1f} s from {self.case.time(at)}')
        return figure

    def overlaps(self):
        figure = Figure('overlapping runs of a task within one life')
        for task in self.case.tasks.values():
            lives = defaultdict(list)
            for run in self.case.runs[task.id]:
                lives[run.life].append(run)
            for runs in lives.values():
                figure.judged += len(runs)
                for earlier, later in overlapping(runs):
                    figure.take(self._was_replaced(task, earlier, later),
                                f'task {task.id} ({task.kind}) at {self.case.time(later.begin)}, '
                                f'life {later.life}')
        return figure

    def _was_replaced(self, task, earlier, later):
        """The definition was replaced during the earlier run, or there are two definitions."""
        birth = self.case.birth(later.life) - NOTICED
        known = [sent for sent in task.updates if birth <= sent <= later.begin]
        return (any(earlier.begin <= sent + NOTICED for sent in known) or
                self.case.has_twin(task, later.life, later.begin))

    def next_times(self):
        figure = Figure('next times off their first value plus whole intervals')
        for task in self.case.tasks.values():
            figure.judged += 1
            off = list(task.off_grid)
            at, _ = self.case.facts['next'].get(task.id, (task.anchor, None))
            if (at - task.anchor) % task.interval:
                off.append((at, task.anchor, task.interval))
            for found, anchor, interval in off:
                figure.take(False, f'task {task.id}: {found}, not {anchor} + n * {interval}')
        return figure

    def unfinished(self):
        """A row at PROCESS whose run ended long ago."""
        figure = Figure('rows left at PROCESS')
        for task, (_, status) in self.case.facts['next'].items():
            figure.judged += 1
            last = max((run.begin for run in self.case.runs[task]), default=self.case.begun)
            silence = self.case.end - last
            if status == 'PROCESS' and silence > self.case.tasks[task].longest_silence():
                figure.take(False, f'task {task} since {self.case.time(last)}')
        return figure

    def archives(self):
        """Each failed run has a copy of its output, and each copy a row."""
        copies = Figure('failed runs without archive copy')
        rows = Figure('failed runs without history row')
        history = {(int(task), name) for task, name in self.case.facts['history']}
        for task, passes in self.case.passes.items():
            if task in self.case.purged:
                continue  # its copies and rows were deleted with it, as they should be
            found = match_copies(passes, self.case.output / 'archive' / str(task))
            for run in passes:
                if run.end > self.case.end - PASS_END:
                    continue  # the tables were read before its pass was over
                copies.judged += 1
                rows.judged += 1
                told = f'task {task} ({run.kind}), run of {self.case.time(run.begin)}'
                if run.identity not in found:
                    copies.take(self._explains_loss(run), told)
                    rows.take(self._explains_loss(run), told)
                elif (task, found[run.identity]) not in history:
                    rows.take(self._explains_loss(run), f'{told}, copy {found[run.identity]}')
        return copies, rows

    def _explains_loss(self, run):
        """The end of the life interrupted the pass, or its directory accepted no file. A crash of
        the server, which may roll back a row, ends the life as well."""
        return (self.case.death_of(run.life, run.end) is not None or
                any(begin - 1 <= run.end <= end for begin, end in self.case.windows('directory')))

    def after_purge(self):
        figure = Figure('runs of flagged tasks after their purge')
        for task, at in self.case.purged.items():
            figure.judged += 1
            for run in self.case.runs[task]:
                if run.begin > at + IN_HAND:
                    figure.take(self.case.has_twin(self.case.tasks[task], run.life, run.begin),
                                f'task {task} at {self.case.time(run.begin)}, purged at '
                                f'{self.case.time(at)}')
        return figure

    def accounts(self):
        """None without the ledger of the database."""
        known = self.case.facts.get('account')
        return account.figures(known, self.case, Figure) if known else ()

    def resources(self):
        figure = Figure('resources leaked')
        before, after = self.case.facts['before'], self.case.facts['after']
        for name in before:
            figure.judged += 1
            if after[name] > before[name]:
                figure.take(
                    False, f'{name}: {before[name]} at the start, {after[name]} at the end')
        for name, count in self.case.facts['left'].items():
            figure.judged += 1
            if count:
                figure.take(False, f'{name}: {count}')
        return figure

    def resident(self):
        """Resident KiB of the first life and of the last, both at the last one's age at the end,
        of a minute at the most; of the only life, after its first minute and at the end. None when
        one of them was too young."""
        memory, end = self.case.samples, self.case.end
        first, last = memory[0][1], memory[-1][1]
        age = min(60, end - self._born(last))
        if age < 30:
            return None
        at_end = end if last == first else self._born(last) + age
        both = tuple(median_in(memory, pid, at - 25, at)
                     for pid, at in ((first, self._born(first) + age), (last, at_end)))
        return both if all(both) else None

    def _born(self, pid):
        return next(at for at, owner, _ in self.case.samples if owner == pid)

    def memory(self):
        figure = Figure('resident memory more than 10% above the first minute')
        resident = self.resident()
        if self.case.facts['judges_memory']:
            figure.judged = 1
            if not resident:
                figure.take(False, 'the first life or the last one was too short to compare')
            elif resident[1] > resident[0] * 1.1:
                figure.take(False, f'{resident[0]} KiB, then {resident[1]} KiB')
        return figure
