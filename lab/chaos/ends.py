"""Whether an end of the daemon has its cause among the events."""

import re

from lab.chaos.case import NOTICED, PASS_END
from lab.chaos.evidence import covers

# The daemon's messages when it ends itself, and the events that explain them.
CAUSES = {
    r'returned no row': lambda case, event: ran_without_row(case, event),
    r'File exists': lambda case, event: may_fail_twice(case, event),
    # A copy that fits only partly ends with the input/output error.
    r'No space left|Input/output error|Read-only file system|supplies \d+ parameters':
        lambda case, event: covers(case.windows('directory', after=10), event['time']),
    r'convertible|Json::|requires objectValue|type to be':
        lambda case, event: covers(case.windows('deadly', after=10), event['time']),
    # The server's message is empty when the listener was the first to notice the session's end.
    r'prepareRequest failed: +\n|server closed|terminating connection|connection':
        lambda case, event: covers(case.windows('server', 'terminate', after=5), event['time']),
    # Several threads ended it at once, and their messages overlap.
    r'terminate called recursively':
        lambda case, event: covers(case.windows('server', 'terminate', 'directory', 'deadly',
                                                after=5), event['time']),
}


def explains_end(case, event):
    """True when an event at that moment explains how the daemon ended."""
    if event['how'] == 'ended by SIGKILL':
        return any(kill['pid'] == event['pid'] for kill in case.journal.all('kill'))
    if event['how'] == 'ended with exit status 1':  # a start without the server
        return covers(case.windows('server', 'terminate', after=5), event['time'])
    # An abort without the terminate handler means a corrupted heap, whatever else happened.
    if event['how'] != 'ended by SIGABRT' or 'terminate called' not in event['words']:
        return False
    return any(explains(case, event) for words, explains in CAUSES.items()
               if re.search(words, event['words']))


def ran_without_row(case, event):
    """True when the life has just run a task whose row was deleted during the run."""
    birth = case.birth(event['pid'])
    return any(birth - NOTICED <= gone_at <= event['time'] and
               any(run.life == event['pid'] and run.end is not None and
                   event['time'] - PASS_END <= run.end <= event['time']
                   for run in case.runs[task])
               for task, _, _, gone_at in case.facts['gone'])


def may_fail_twice(case, event):
    """Two failures of a task within one second have one name. That takes two definitions of it, a
    second that comes twice, or a backlog in which the retry is due at once."""
    match = re.search(r'archive/(\d+)/', event['words'])
    task = case.tasks.get(int(match[1])) if match else None
    if task is None:
        return False
    backlogs = case.windows('stopped', 'step', 'stall', after=15)
    return covers(backlogs, event['time']) or case.has_twin(task, event['pid'], event['time'])
