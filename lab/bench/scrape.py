"""What a scrape of koduexporter takes, while it counts all tasks and reads the ledger beside."""

import http.client
import socket
import subprocess
import time

from lab.bench.figures import percentile
from lab.shared.database import ROOT
from lab.shared.processes import cpu_seconds_of

SCRAPES, PAUSE = 300, 0.2  # a minute: all tasks are counted several times meanwhile
LIMIT = 0.05  # seconds, of 95% of the scrapes


def free_port():
    with socket.socket() as listener:
        listener.bind(('127.0.0.1', 0))
        return listener.getsockname()[1]


def scrape(port):
    """(seconds, text) of one scrape, or None while nothing listens."""
    begin = time.monotonic()
    connection = http.client.HTTPConnection('127.0.0.1', port, timeout=30)
    try:
        connection.request('GET', '/metrics')
        text = connection.getresponse().read().decode()
    except ConnectionRefusedError:
        return None
    finally:
        connection.close()
    return time.monotonic() - begin, text


def wait_for_count(port, limit=120):
    """Returns when the exporter has counted all tasks for the first time."""
    end = time.monotonic() + limit
    while time.monotonic() < end:
        found = scrape(port)
        if found is not None and '\nkoducron_tasks_read_timestamp_seconds' in found[1]:
            return
        time.sleep(PAUSE)
    raise TimeoutError(f'koduexporter has not counted the tasks within {limit} s')


def measure(workload, table, loaded):
    """True when 95% of the scrapes are answered in time."""
    workload.query((ROOT / 'sql/metrics.sql').read_text(encoding='utf-8'))
    port = free_port()
    command = [workload.home / 'koduexporter', '-f', workload.config, '--listen', f'127.0.0.1:{port}']
    with open(workload.home / 'exporter.log', 'wb') as log, \
            subprocess.Popen(command, stdin=subprocess.DEVNULL, stderr=log) as exporter:
        try:
            wait_for_count(port)
            cpu, begin, taken = cpu_seconds_of(exporter.pid), time.monotonic(), []
            for _ in range(SCRAPES):
                taken.append(scrape(port)[0])
                time.sleep(PAUSE)
            cpu = (cpu_seconds_of(exporter.pid) - cpu) / (time.monotonic() - begin)
        finally:
            exporter.terminate()
    table.add(loaded, 'a scrape, median', percentile(taken, 0.5), 's')
    table.add(loaded, 'a scrape, 95%', percentile(taken, 0.95), 's')
    table.add(loaded, "koduexporter's core", cpu * 100, '%')
    return percentile(taken, 0.95) <= LIMIT
