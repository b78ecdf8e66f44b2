"""Arithmetic on runs, moments and copies that the judge needs."""

import re
from bisect import bisect_right
from collections import defaultdict

ATTEMPTS = 3
PER_ATTEMPT = 'killed', 'silent'  # kinds of which one pass makes three attempts
RUN_LINE = re.compile(rb'run (\d+) (\d+) ([\d.]+)\n')


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
