"""Information about a process from /proc and ps."""

import os
import re
import subprocess
import time
from pathlib import Path


def is_running(pid):
    """False for a zombie too."""
    try:
        return Path(f'/proc/{pid}/stat').read_text().rsplit(')', 1)[1].split()[0] != 'Z'
    except (FileNotFoundError, ProcessLookupError):
        return False


def resident_memory(pid):
    """KiB, or None when the process is gone."""
    try:
        match = re.search(r'VmRSS:\s+(\d+)', Path(f'/proc/{pid}/status').read_text())
    except (FileNotFoundError, ProcessLookupError):
        return None
    return int(match[1]) if match else None


def children_of(pid):
    """(pid, state) of each child."""
    listed = subprocess.run(['ps', '-o', 'pid=,stat=', '--ppid', str(pid)],
                            capture_output=True, text=True, check=False).stdout
    return {(int(line.split()[0]), line.split()[1][0]) for line in listed.splitlines()}


def descriptors_of(pid):
    """(number, target) of each open descriptor."""
    found = set()
    for entry in Path(f'/proc/{pid}/fd').iterdir():
        try:
            found.add((entry.name, os.readlink(entry)))
        except FileNotFoundError:
            pass  # closed meanwhile
    return found


def stat_of(pid):
    """The numbers of /proc/PID/stat from its state's successor on."""
    text = Path(f'/proc/{pid}/stat').read_text()
    return [0] + [int(field) for field in text.rsplit(')', 1)[1].split()[1:]]


def cpu_seconds_of(pid):
    """CPU time of a process by its own clock: a tick of /proc is two percent of a burst."""
    cpu_clock = ~pid << 3 | 2
    return time.clock_gettime(cpu_clock)
