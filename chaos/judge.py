"""What the run is judged by: the ledger and the tables against the driver's journal.

Each figure counts what was judged, what a documented behaviour explains and what nothing explains.
An explanation always needs an event: one of the driver's, or the evidence in the ledger itself.
"""

import re
from bisect import bisect_right
from collections import defaultdict
from dataclasses import dataclass, field

NOTICED = 5  # seconds until a notification is acted upon, at the latest, on a busy machine
TAKEN_UP = 2.5  # the same on a quiet one: the listener looks each second
IN_HAND = 0.5  # what a worker had taken before the purge may start as much later
PASS_END = 8  # seconds from a plugin's end to its history row, on a busy machine, at the most
ATTEMPTS = 3
PER_ATTEMPT = 'killed', 'silent'  # kinds of which one pass makes three attempts
RUN_LINE = re.compile(rb'run (\d+) (\d+) ([\d.]+)\n')

# What the daemon prints when it ends itself, and the events of which one must explain it.
CAUSES = [
    (r'returned no row', 'row gone'),
    (r'File exists', 'copy exists'),
    (r'No space left|Read-only file system|supplies \d+ parameters', 'directory'),
    (r'convertible|Json::|JsonCpp|requires objectValue|type to be', 'deadly'),
    # The server's own words are empty where the listener was the first to see the session's end.
    (r'prepareRequest failed: +\n|server closed|terminating connection|connection', 'session'),
]


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
    """Holds the run's facts in the shapes that the questions need."""

    def __init__(self, world, facts):
        self.world, self.facts = world, facts
        self.begun, self.end = facts['begun'], facts['end']
        self.tasks = world.population.tasks
        self.runs = defaultdict(list)
        for run in facts['runs']:
            self.runs[run.task].append(run)
        self.ends = world.journal.all('end')
        self.readies = world.journal.all('ready')
        self.purged = {task: at for task, flagged, by_daemon, at in facts['gone']
                       if flagged and by_daemon}
        self.passes = {task: failed_passes(self.runs[task]) for task in self.tasks}

    def figures(self):
        return [self.recoveries(), self.restarts(), self.missed(), self.overlaps(),
                self.next_times(), self.unfinished(), *self.archives(), self.after_purge(),
                self.resources(), self.memory()]

    def time(self, at):
        """A moment as people read it: seconds from the begin."""
        return f'{at - self.begun:.1f} s'

    def windows(self, *kinds, after=0.0):
        """From each such event to its end, and `after` seconds more."""
        return [(event['time'], event.get('until', event['time']) + after)
                for event in self.world.journal.all(*kinds)]

    def death_of(self, life, at):
        """The end of the life, when it came so soon after `at` that it cut the pass short."""
        stalls = self.windows('stopped')
        for event in self.ends:
            if event['pid'] == life and event['time'] >= at:
                length = sum(end - begin for begin, end in
                             covered_parts(at, event['time'], stalls))
                return event if event['time'] - at - length <= PASS_END else None
        return None

    # -- The daemon's lives ----------------------------------------------------------------------

    def recoveries(self):
        figure = Figure('faults without recovery')
        for event in self.world.journal.all('fault'):
            figure.judged += 1
            if event.get('recovered') is None:
                figure.take(False, f'{event["name"]} at {self.time(event["time"])}')
        return figure

    def restarts(self):
        figure = Figure('ends of the daemon that no event explains')
        for event in self.ends:
            figure.judged += 1
            figure.take(self._explains_end(event),
                        f'pid {event["pid"]} {event["how"]} at {self.time(event["time"])}: '
                        f'{event["words"]!r}')
        return figure

    def _explains_end(self, event):
        at = event['time']
        if event['how'] == 'ended by SIGKILL':
            return any(kill['pid'] == event['pid'] for kill in self.world.journal.all('kill'))
        if event['how'] == 'ended with exit status 1':
            return covers(self.windows('server', 'terminate', after=5), at)
        cause = next((cause for text, cause in CAUSES if re.search(text, event['words'])), None)
        if 'what()' not in event['words']:
            cause = 'unsaid'
        begin = self._birth(event['pid'])
        return {
            'row gone': lambda: self._ran_without_row(event, begin),
            'copy exists': lambda: self._may_fail_twice(event),
            'directory': lambda: covers(self.windows('directory', after=10), at),
            # Several threads ended it at once and took the word from one another.
            'unsaid': lambda: covers(self.windows('server', 'terminate', 'directory', 'deadly',
                                                  after=5), at),
            'deadly': lambda: covers(self.windows('deadly', after=10), at),
            'session': lambda: covers(self.windows('server', 'terminate', after=5), at),
        }.get(cause, lambda: False)()

    def _ran_without_row(self, event, birth):
        """The life has just run a task whose row went during it."""
        return any(birth - NOTICED <= gone_at <= event['time'] and
                   any(run.life == event['pid'] and run.end is not None and
                       event['time'] - PASS_END <= run.end <= event['time']
                       for run in self.runs[task])
                   for task, _, _, gone_at in self.facts['gone'])

    def _birth(self, pid):
        return max((ready['time'] for ready in self.readies if ready['pid'] == pid),
                   default=self.begun)

    def _may_fail_twice(self, event):
        """Two failures of a task within one second have one name. That takes two definitions of
        it, a second that comes twice, or a backlog that makes its retry due as soon as it fails."""
        match = re.search(r'archive/(\d+)/', event['words'])
        task = self.tasks.get(int(match[1])) if match else None
        if task is None:
            return False
        backlogs = self.windows('stopped', 'step', 'stall', after=15)
        return covers(backlogs, event['time']) or self._has_twin(task, event['pid'], event['time'])

    def _has_twin(self, task, life, at):
        """At that time the life still holds a definition of the task that was replaced: an ADD
        leaves it, and an UPDATE that came between a run's taking and its start."""
        birth = self._birth(life) - NOTICED
        begins = [run.begin for run in self.runs[task.id] if run.life == life]
        return (any(birth <= sent <= at for sent in task.additions) or
                any(birth <= sent <= at and sent <= begin <= sent + TAKEN_UP
                    for sent in task.updates for begin in begins))

    # -- Runs ------------------------------------------------------------------------------------

    def outages(self):
        """When no task, or not every task, could run."""
        found = self.windows('fault') + self.windows('directory', after=5)
        for event in self.ends:
            ready = min((ready['time'] for ready in self.readies if ready['time'] > event['time']),
                        default=event['time'] + 10)
            found.append((event['time'] - 1.5, ready + 1.5))
        for step in self.world.journal.all('step'):
            found.append((step['time'], step['time'] + max(0, -step['seconds']) + 2))
        return found

    def missed(self):
        """No stretch without faults may pass without a run for longer than the definition says."""
        figure = Figure('silences of a task that the faults do not explain')
        outages = self.outages()
        for task in self.tasks.values():
            figure.judged += 1
            excuses = outages + self._replacements(task) + self._unheard_addition(task)
            until = min(self.end, task.gone or self.end)
            moments = [task.born + NOTICED, *(run.begin for run in self.runs[task.id]), until]
            moments = [moment for moment in moments if moment <= until]
            for begin, end in zip(moments, moments[1:]):
                silence, at = longest_stretch(begin, end, excuses)
                if silence > task.longest_silence():
                    figure.take(False, f'task {task.id} ({task.kind}, each {task.interval} s): '
                                f'nothing for {silence:.1f} s from {self.time(at)}')
        return figure

    def _replacements(self, task):
        """A definition that is replaced or added again during a run moves the next time twice, so
        one interval more may pass."""
        longest = max(task.interval, task.longest_interval)
        return [(sent, sent + 2 * longest + NOTICED) for sent in task.updates + task.additions]

    def _unheard_addition(self, task):
        """An ADD between a life's load and its LISTEN reaches nobody: the next life loads the row.
        """
        for ready in self.readies:
            if task.born > self.begun + NOTICED and -2 <= task.born - ready['time'] <= 1:
                later = (other['time'] for other in self.readies if other['time'] > task.born + 1)
                return [(task.born, min(later, default=self.end))]
        return []

    def overlaps(self):
        figure = Figure('overlapping runs of a task within one life')
        for task in self.tasks.values():
            lives = defaultdict(list)
            for run in self.runs[task.id]:
                lives[run.life].append(run)
            for runs in lives.values():
                figure.judged += len(runs)
                for earlier, later in overlapping(runs):
                    figure.take(self._was_replaced(task, earlier, later),
                                f'task {task.id} ({task.kind}) at {self.time(later.begin)}, '
                                f'life {later.life}')
        return figure

    def _was_replaced(self, task, earlier, later):
        """The definition was replaced while the earlier run was under way, or there are two."""
        birth = self._birth(later.life) - NOTICED
        known = [sent for sent in task.updates if birth <= sent <= later.begin]
        return (any(earlier.begin <= sent + NOTICED for sent in known) or
                self._has_twin(task, later.life, later.begin))

    def next_times(self):
        figure = Figure('next times off their first value plus whole intervals')
        for task in self.tasks.values():
            if task.id in self.facts['next']:
                figure.judged += 1
                at, _ = self.facts['next'][task.id]
                if (at - task.anchor) % task.interval:
                    figure.take(
                        False, f'task {task.id}: {at}, {task.anchor} + n * {task.interval}')
        return figure

    def unfinished(self):
        """A row at PROCESS whose run is long over."""
        figure = Figure('rows left at PROCESS')
        for task, (_, status) in self.facts['next'].items():
            figure.judged += 1
            last = max((run.begin for run in self.runs[task]), default=self.begun)
            if status == 'PROCESS' and self.end - last > self.tasks[task].longest_silence():
                figure.take(False, f'task {task} since {self.time(last)}')
        return figure

    # -- What failed runs leave ------------------------------------------------------------------

    def archives(self):
        """Each failed run has a copy of its output, and each copy a row."""
        copies = Figure('failed runs without archive copy')
        rows = Figure('failed runs without history row')
        history = {(int(task), name) for task, name in self.facts['history']}
        for task, passes in self.passes.items():
            if task in self.purged:
                continue  # its copies and rows went with it, as they should
            found = match_copies(passes, self.world.output / 'archive' / str(task))
            for run in passes:
                if run.end > self.end - PASS_END:
                    continue  # the tables were read before its pass was over
                copies.judged += 1
                rows.judged += 1
                told = f'task {task} ({run.kind}), run of {self.time(run.begin)}'
                if run.identity not in found:
                    copies.take(self._explains_loss(run), told)
                    rows.take(self._explains_loss(run), told)
                elif (task, found[run.identity]) not in history:
                    rows.take(self._explains_loss(run), f'{told}, copy {found[run.identity]}')
        return copies, rows

    def _explains_loss(self, run):
        """The pass was cut short by the end of its life, or its directory took no file. A crash of
        the server, which may take back a row, ends the life as well."""
        return (self.death_of(run.life, run.end) is not None or
                any(begin - 1 <= run.end <= end for begin, end in self.windows('directory')))

    def after_purge(self):
        figure = Figure('runs of flagged tasks after their purge')
        for task, at in self.purged.items():
            figure.judged += 1
            for run in self.runs[task]:
                if run.begin > at + IN_HAND:
                    figure.take(self._has_twin(self.tasks[task], run.life, run.begin),
                                f'task {task} at {self.time(run.begin)}, purged at '
                                f'{self.time(at)}')
        return figure

    # -- Resources -------------------------------------------------------------------------------

    def resources(self):
        figure = Figure('resources leaked')
        before, after = self.facts['before'], self.facts['after']
        for name in before:
            figure.judged += 1
            if after[name] > before[name]:
                figure.take(
                    False, f'{name}: {before[name]} at the start, {after[name]} at the end')
        for name, count in self.facts['left'].items():
            figure.judged += 1
            if count:
                figure.take(False, f'{name}: {count}')
        return figure

    def resident(self):
        """Resident KiB of the first life and of the last, both at the last one's age at the end,
        of a minute at the most; None when one of them was too young."""
        memory = self.world.daemon.memory
        first, last = memory[0][1], memory[-1][1]
        age = min(60, self.end - self._born(last))
        if age < 30 or last == first:
            return None
        both = tuple(median_in(memory, pid, self._born(pid) + age - 25, self._born(pid) + age)
                     for pid in (first, last))
        return both if all(both) else None

    def _born(self, pid):
        return next(at for at, owner, _ in self.world.daemon.memory if owner == pid)

    def memory(self):
        figure = Figure('resident memory more than 10% above the first minute')
        resident = self.resident()
        if self.facts['judges_memory'] and resident:
            figure.judged = 1
            if resident[1] > resident[0] * 1.1:
                figure.take(False, f'{resident[0]} KiB, then {resident[1]} KiB')
        return figure


def median_in(memory, pid, begin, end):
    """The median of the life's resident KiB between the two moments; 0 when nothing was seen."""
    values = sorted(kib for at, owner, kib in memory if owner == pid and begin <= at <= end)
    return values[len(values) // 2] if values else 0


def covers(windows, at):
    return any(begin <= at <= end for begin, end in windows)


def covered_parts(begin, end, windows):
    """The parts of (begin, end) that lie inside the windows; these do not overlap."""
    return [(max(begin, left), min(end, right)) for left, right in windows
            if left < end and right > begin]


def longest_stretch(begin, end, windows):
    """(seconds, begin) of the longest part of (begin, end) outside all windows."""
    longest, at = 0.0, begin
    for left, right in sorted(windows):
        if right <= begin or left >= end:
            continue
        longest, at = max((longest, at), (left - begin, begin))
        begin = right
    return max((longest, at), (end - begin, begin))


def failed_passes(runs):
    """The runs that must leave a copy and a row; of three attempts, the last."""
    failed = [run for run in runs
              if run.kind not in PER_ATTEMPT and run.code not in (0, None)]
    attempts = defaultdict(list)
    for run in runs:
        if run.kind in PER_ATTEMPT and run.end is not None:
            attempts[run.life].append(run)
    for ended in attempts.values():
        failed += ended[ATTEMPTS - 1::ATTEMPTS]
    return sorted(failed, key=lambda run: run.end)


def overlapping(runs):
    """(earlier, later) of each run that begins before a former one has ended; runs by begin. A run
    without an end holds the place until its life's end."""
    longest = None
    for run in runs:
        if longest is not None and (longest.end is None or longest.end > run.begin):
            yield longest, run
        if longest is None or ends_later(run, longest):
            longest = run


def ends_later(run, other):
    return other.end is not None and (run.end is None or run.end > other.end)


def match_copies(passes, folder):
    """Archive names by the identity of the run whose output they hold.

    A copy says whose it is in its first line; the copy of a run without output belongs to the last
    run that had ended when it was made. File times are the kernel's, whatever the daemon's clock.
    """
    found = {}
    if not folder.is_dir():
        return found
    ends = [run.end for run in passes]
    for path in sorted(folder.iterdir(), key=lambda path: path.stat().st_mtime):
        with open(path, 'rb') as copy:
            match = RUN_LINE.match(copy.readline(200))
        if match:
            found[int(match[2]), float(match[3])] = path.name
        elif index := bisect_right(ends, path.stat().st_mtime):
            # Other kinds have a first line; where it is missing, the daemon ended while it copied.
            if passes[index - 1].kind in PER_ATTEMPT:
                found[passes[index - 1].identity] = path.name
    return found
