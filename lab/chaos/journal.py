"""The driver's log: every fault and every end of the daemon. No excuse counts without an event."""

import json
import threading
import time


class Journal:
    """Events in memory for the judge, and a line of JSON for each in a file."""

    def __init__(self, path):
        self._file = open(path, 'w', encoding='utf-8')
        self._events = []
        self._lock = threading.Lock()

    def add(self, kind, **details):
        """Records an event of this moment, or of details['time']; returns it, to be completed."""
        event = {'time': time.time(), 'kind': kind, **details}
        with self._lock:
            self._events.append(event)
            self._write(event)
        return event

    def complete(self, event, **details):
        """Adds later details to an event."""
        with self._lock:
            event.update(details)
            self._write(event)

    def all(self, *kinds):
        """The events of these kinds, by time."""
        with self._lock:
            chosen = [event for event in self._events if event['kind'] in kinds]
        return sorted(chosen, key=lambda event: event['time'])

    def close(self):
        """Closes the journal: no more events can be added."""
        self._file.close()

    def _write(self, event):
        self._file.write(json.dumps(event) + '\n')
        self._file.flush()
