"""The data of a run, arranged for the judge's questions."""

from collections import defaultdict

from lab.chaos.evidence import covered_parts, failed_passes

NOTICED = 5  # seconds until a notification takes effect, at most, on a busy machine
TAKEN_UP = 2.5  # the same on an idle one: the listener checks each second
PASS_END = 4  # seconds from a plugin's end to its history row, at most; without output the worker sleeps first


class Case:
    """Ledger, tables and journal of a run that is over."""

    def __init__(self, target, facts):
        self.journal, self.facts = target.journal, facts
        self.output, self.samples = target.output, target.daemon.memory
        self.begun, self.end = facts['begun'], facts['end']
        self.tasks = target.population.tasks
        self.runs = defaultdict(list)  # by task, by begin
        for run in facts['runs']:
            self.runs[run.task].append(run)
        self.ends = target.journal.all('end')
        self.readies = [event['time'] for event in target.journal.all('ready')]
        self.purged = {task: at for task, flagged, by_daemon, at in facts['gone']
                       if flagged and by_daemon}
        self.passes = {task: failed_passes(self.runs[task]) for task in self.tasks}

    def time(self, at):
        """A moment in readable form: seconds since the start."""
        return f'{at - self.begun:.1f} s'

    def windows(self, *kinds, after=0.0):
        """From each such event to its end, and `after` seconds more."""
        return [(event['time'], event.get('until', event['time']) + after)
                for event in self.journal.all(*kinds)]

    def death_of(self, life, at):
        """The end of the life, when it followed `at` so soon that it interrupted the pass."""
        stalls = self.windows('stopped')
        for event in self.ends:
            if event['pid'] == life and event['time'] >= at:
                length = sum(end - begin for begin, end in
                             covered_parts(at, event['time'], stalls))
                return event if event['time'] - at - length <= PASS_END else None
        return None

    def birth(self, life):
        """The time at which the previous life had ended."""
        end = next((event['time'] for event in self.ends if event['pid'] == life), self.end)
        return max((event['time'] for event in self.ends if event['time'] < end),
                   default=self.begun)

    def has_twin(self, task, life, at):
        """True when the life still has a replaced definition of the task at that time: after an ADD,
        or after an UPDATE between the moment at which a worker took the run and its start."""
        birth = self.birth(life) - NOTICED
        begins = [run.begin for run in self.runs[task.id] if run.life == life]
        return (any(birth <= sent <= at for sent in task.additions) or
                any(birth <= sent <= at and sent <= begin <= sent + TAKEN_UP
                    for sent in task.updates for begin in begins))

    def outages(self):
        """The windows in which no task, or not every task, could run."""
        found = self.windows('fault') + self.windows('directory', after=5)
        for event in self.ends:
            ready = min((at for at in self.readies if at > event['time']),
                        default=event['time'] + 10)
            found.append((event['time'] - 1.5, ready + 1.5))
        for step in self.journal.all('step'):
            found.append((step['time'], step['time'] + max(0, -step['seconds']) + 2))
        return found

    def excuses_of(self, task):
        """The windows in which this task alone may have no run. A definition that is replaced or
        added again during a run moves the next time twice, so one interval more may pass. An ADD
        between a life's load and its LISTEN is not received, and the next life loads the row."""
        longest = max(task.interval, task.longest_interval)
        found = [(sent, sent + 2 * longest + NOTICED) for sent in task.updates + task.additions]
        was_added = task.born > self.begun + NOTICED
        if was_added and any(task.born - 1 <= at <= task.born + 2 for at in self.readies):
            later = (at for at in self.readies if at > task.born + 2)
            found.append((task.born, min(later, default=self.end)))
        return found

    def pauses(self, task):
        """From each run to the next, the begin and the end of the task's time included."""
        until = min(self.end, task.gone or self.end)
        moments = [task.born + NOTICED, *(run.begin for run in self.runs[task.id]), until]
        moments = [moment for moment in moments if moment <= until]
        return zip(moments, moments[1:])
