"""The daemon under ops/supervise, and everything that is visible of it from outside."""

import os
import re
import subprocess
import threading
import time
from pathlib import Path

from lab.shared.processes import children_of, descriptors_of, is_running, resident_memory

TERMINATED = b'terminate called'
LAST_WORDS = 600  # bytes that hold the whole of them
BLANKS = re.compile(rb' {16,}')
RESTART = re.compile(r'RESTART: pid (\d+) (ended .*?); restarting')


class SupervisedDaemon:
    """Starts the daemon, follows its lives and records each end in the journal."""

    def __init__(self, command, environment, log, journal):
        self._command, self._environment = command, environment
        self._log, self._journal = log, journal
        self._supervisor = None
        self._console = b''  # the end of the daemon's output; guarded by _lock
        self._words = b''  # its output from the terminate handler on; guarded by _lock
        self._pid = None  # guarded by _lock
        self._lock = threading.Lock()
        self._over = threading.Event()
        self.memory = []  # (time, pid, resident KiB), by time

    def start(self):
        """Starts the supervisor and the threads that watch."""
        self._log.touch()
        self._supervisor = subprocess.Popen(
            self._command, env=self._environment, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        for watch in (self._read_console, self._read_supervisor, self._read_log, self._sample):
            threading.Thread(target=watch, daemon=True).start()

    def stop(self):
        """Ends daemon and supervisor; the supervisor kills processes that do not end in time."""
        self._over.set()
        if self._supervisor and self._supervisor.poll() is None:
            self._supervisor.terminate()
            self._supervisor.wait(60)

    def pid(self):
        """The living daemon's pid, or None between two lives."""
        with self._lock:
            if self._pid is None or not is_running(self._pid):
                self._pid = self._find()
            return self._pid

    def signal(self, number):
        """Signals only the daemon; returns its pid, or None when it does not run."""
        pid = self.pid()
        try:
            if pid is not None:
                os.kill(pid, number)
        except ProcessLookupError:
            return None
        return pid

    def supervisor_pid(self):
        return self._supervisor.pid

    def _find(self):
        found = subprocess.run(
            ['pgrep', '--parent', str(self._supervisor.pid), '--exact', 'koducron',
             '--runstates', 'D,R,S,T,t'], capture_output=True, text=True, check=False)
        return int(found.stdout.split()[0]) if found.stdout else None

    def _read_console(self):
        """Keeps only the end: a task that prints a megabyte fills a disk within minutes."""
        while chunk := self._supervisor.stdout.read1(1 << 16):
            # A task's megabyte of spaces may be printed in the middle of the terminate handler's text.
            chunk = BLANKS.sub(b' ', chunk)
            with self._lock:
                if self._words:  # other threads may print a megabyte after it
                    self._words = (self._words + chunk)[:LAST_WORDS]
                text = self._console + chunk
                begin = text.find(TERMINATED)
                if begin >= 0 and b'what()' not in self._words:
                    self._words = text[begin:begin + LAST_WORDS]
                self._console = text[-LAST_WORDS:]

    def _read_supervisor(self):
        for raw in self._supervisor.stderr:
            now = time.time()
            line = raw.decode(errors='replace').strip()
            if match := RESTART.search(line):
                time.sleep(0.2)  # its last output may still be in the pipe
                self._journal.add('end', time=now, pid=int(match[1]), how=match[2],
                                  words=self._last_words())
                forget_shared_clock(int(match[1]))
            elif not self._over.is_set():
                self._journal.add('supervisor', line=line)
                print(f'  {line}', flush=True)

    def _last_words(self):
        with self._lock:
            words = self._words or self._console
            self._console = self._words = b''
        return words.decode(errors='replace')

    def _read_log(self):
        """A life is ready when its threads start; the times in the log may be wrong."""
        with open(self._log, encoding='utf-8', errors='replace') as lines:
            rest = ''
            while not self._over.wait(0.05):
                *whole, rest = (rest + lines.read()).split('\n')
                for line in whole:
                    if line.endswith('#NOTICE#Start Thread'):
                        self._journal.add('ready', pid=self.pid())

    def _sample(self):
        looked = time.time()
        while not self._over.wait(0.5):
            if time.time() > looked + 1.5:  # the machine was too busy
                self._journal.add('stall', time=looked, until=time.time())
            looked = time.time()
            pid = self.pid()
            resident = resident_memory(pid) if pid else None
            if resident:
                self.memory.append((time.time(), pid, resident))


def forget_shared_clock(pid):
    """The two files of libfaketime that a killed process did not remove."""
    for name in (f'faketime_shm_{pid}', f'sem.faketime_sem_{pid}'):
        Path('/dev/shm', name).unlink(missing_ok=True)


def held_resources(daemon, seconds=6):
    """The number of descriptors, children and zombies that the daemon keeps.

    A plugin runs for three seconds at most, so what all six samples contain belongs to no run.
    """
    pid, supervisor = daemon.pid(), daemon.supervisor_pid()
    looks = []
    end = time.time() + seconds
    while time.time() < end:
        children = children_of(pid)
        looks.append((descriptors_of(pid), {child for child, _ in children},
                      {child for child, state in children | children_of(supervisor)
                       if state == 'Z'}, descriptors_of(supervisor)))
        time.sleep(0.2)
    names = ('file descriptors of the daemon', 'child processes', 'zombies',
             'file descriptors of the supervisor')
    return {name: len(set.intersection(*(look[i] for look in looks)))
            for i, name in enumerate(names)}


def plugins_left(plugin):
    """Plugins that still run after their daemon and its supervisor have ended."""
    listed = subprocess.run(['pgrep', '--full', '--', f'^/bin/bash {plugin} '],
                            capture_output=True, text=True, check=False)
    return len(listed.stdout.split())
