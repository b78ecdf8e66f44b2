"""Compares kodu_calendar_next with the walk, and with systemd where both can say the same.

    python3 -m lab.calendar.compare FOLDER DATABASE [--short] [--seed S]

FOLDER is one of scripts/cluster, whose DATABASE has sql/calendar.sql. Prints a line for each kind of
case, and the first cases of each kind that differ. Exit status: 0 all agree; 1 otherwise.
"""

import argparse
import random
import re
import shutil
import subprocess
import sys
import time
from datetime import datetime, timedelta, timezone
from zoneinfo import ZoneInfo, available_timezones

from lab.calendar.generate import Generator
from lab.calendar.walk import MINUTE, firings, next_firing, steps
from lab.shared.database import Database

HOUR = timedelta(hours=1)
# Changes by half an hour, four times a year, by two hours, 45 minutes from the hour, in the south, by a
# negative summer time, at midnight.
SHORT_ZONES = ['Australia/Lord_Howe', 'Africa/Casablanca', 'Africa/El_Aaiun', 'Antarctica/Troll',
               'Pacific/Chatham', 'America/Santiago', 'Europe/Dublin', 'Europe/Paris',
               'America/New_York', 'Asia/Gaza', 'America/Havana', 'Asia/Beirut']
# Where the clock skipped a day, or was moved once, for good, by half an hour or by three hours.
ODD_DAYS = [('Pacific/Apia', 2011), ('Pacific/Kwajalein', 1993), ('Pacific/Kiritimati', 1994),
            ('Antarctica/Casey', 2010), ('Antarctica/Casey', 2020), ('America/Caracas', 2007),
            ('America/Caracas', 2016), ('Asia/Pyongyang', 2015), ('Asia/Pyongyang', 2018),
            ('Antarctica/Vostok', 1994), ('America/Boa_Vista', 2000), ('Asia/Kathmandu', 1985)]
# The server reads these as abbreviations with one shift for the whole year.
ABBREVIATIONS = {'CET', 'EET', 'EST', 'HST', 'MET', 'MST', 'WET'}
# Made by the installation, or for those who have not chosen a zone.
NOT_COMPARED = {'localtime', 'posixrules', 'Factory'}


def utc(year, month=1, day=1):
    return datetime(year, month, day, tzinfo=timezone.utc)


def text_of(moment):
    return '\\N' if moment is None else moment.isoformat(' ')


class Family:
    """Cases of one kind, and what the server says of them. Cases are sent in portions."""

    def __init__(self, database, name, kind):
        self.database, self.name, self.kind = database, name, kind
        self.rows, self.count, self.wrong = [], 0, []
        self.begin = time.monotonic()

    def add(self, expression, zone, after, expected):
        self.rows.append('\t'.join([expression.replace('\t', '\\t'), zone, text_of(after),
                                    text_of(expected)]))
        if len(self.rows) == 50_000:
            self.send()

    def send(self):
        sql = (r"""SET client_min_messages = warning;
            CREATE TEMP TABLE sample (expression text, zone text, after timestamptz,
                                      expected timestamptz);
            COPY sample FROM STDIN;
            """ + ''.join(row + '\n' for row in self.rows) + r"""\.
            WITH parsed AS MATERIALIZED (
                SELECT *, kodu_calendar_parse(expression) AS calendar
                FROM (SELECT DISTINCT expression FROM sample) AS texts
            ), found AS MATERIALIZED (
                SELECT *, kodu_calendar_next_parsed(calendar, zone, after) AS found
                FROM sample JOIN parsed USING (expression)
            )
            SELECT expression, zone, after, expected, found FROM found
            WHERE found IS DISTINCT FROM expected ORDER BY zone, after""")
        self.wrong += self.database.query("SET timezone = 'UTC'; SET datestyle = 'ISO';" + sql,
                                          self.name)
        self.count += len(self.rows)
        self.rows = []

    def report(self):
        """Prints the family's line; whether all of its cases agree."""
        if self.rows:
            self.send()
        print(f'{self.kind:<26}{self.count:>9} cases {len(self.wrong):>6} wrong'
              f' {time.monotonic() - self.begin:>8.1f} s', flush=True)
        for expression, zone, after, expected, found in self.wrong[:10]:
            print(f'  {expression!r} {zone} after {after}: {found or "none"},'
                  f' expected {expected or "none"}')
        return not self.wrong


def zones_of(database, name):
    """The zones that server and Python read alike."""
    named = {row[0] for row in database.query('SELECT name FROM pg_timezone_names', name)}
    return sorted((named & available_timezones()) - ABBREVIATIONS - NOT_COMPARED)


def changes(zone, begin, end):
    """The moments from `begin` to `end` at which the zone's clock changes."""
    found = []
    low = begin
    while low < end:
        high = low + 12 * HOUR
        if low.astimezone(zone).utcoffset() != high.astimezone(zone).utcoffset():
            before, behind = low, high
            while behind - before > MINUTE:
                middle = before + (behind - before) // MINUTE // 2 * MINUTE
                if middle.astimezone(zone).utcoffset() == before.astimezone(zone).utcoffset():
                    before = middle
                else:
                    behind = middle
            found.append(behind)
        low = high
    return found


def expressions_near(local, draw):
    """Calendars that fire around a local time, of both rules, and a union of both."""
    hour, near = local.hour, (local.hour + draw.choice([-1, 1, 2])) % 24
    minute = draw.choice([0, 1, 15, 29, 30, 31, 45, 59])
    day = local.day
    return [f'{minute} {hour} * * *', f'{minute} {near} * * *', f'{minute},30 {hour},{near} * * *',
            f'{minute}/7 0-23 * * *', f'*/{draw.choice([5, 7, 10, 30])} * * * *',
            f'*/15 {hour} * * *', f'{minute} * * * *', f'*/10 {near} * * *',
            f'{minute} */{draw.choice([1, 2, 3])} * * *', '@daily', '@hourly',
            f'{minute} {hour} {day} * *; */20 {near} * * *; 0 12 * * *',
            f'30 {hour} * * {draw.randrange(7)}; {minute} * {day} * *; 17 5 * * *']


def compare_changes(family, zones, draw, every):
    """(zone, year) of each of `zones`: each `every` minutes of the hours around each change."""
    for name, year in zones:
        zone = ZoneInfo(name)
        for change in changes(zone, utc(year), utc(year + 1)):
            walked = list(steps(zone, change - 5 * HOUR, change + 53 * HOUR))
            shift = max(abs(change.astimezone(zone).utcoffset()
                            - (change - MINUTE).astimezone(zone).utcoffset()), HOUR)
            for text in expressions_near((change - MINUTE).astimezone(zone), draw):
                fired = firings(text, walked)
                after = change - min(shift + HOUR, 4 * HOUR)
                end = change + min(shift + HOUR, 26 * HOUR)
                while after < end:
                    for exact in (after, after + timedelta(seconds=draw.choice([-1e-6, 1, 59]))):
                        expected = next(moment for moment in fired if moment > exact)
                        family.add(text, name, exact, expected)
                    after += every * MINUTE
    return family.report()


def compare_random(family, zones, draw, count):
    """Random calendars, each zone in its turn, at a random time; then what follows the answer."""
    generator = Generator(draw)
    for i in range(count):
        name = zones[i % len(zones)]
        text = generator.calendar()
        after = utc(1975) + timedelta(seconds=draw.randrange(130 * 365 * 86400))
        for _ in range(3):
            expected = next_firing(text, ZoneInfo(name), after)
            family.add(text, name, after, expected)
            if expected is None:
                break
            after = expected
    return family.report()


def systemd_calendar(draw):
    """One calendar in both languages; no day of the month and weekday together, which differ."""
    def both(low, high):
        value = draw.randint(low, high - 2)
        step = draw.randint(2, high - value)  # systemd refuses a step out of the field
        forms = [(f'{value}', f'{value}'), ('*', '*'), (f'{low}-{value}', f'{low}..{value}'),
                 (f'{value}/{step}', f'{value}/{step}'), (f'*/{step}', f'{low}/{step}')]
        return draw.choice(forms)
    minute, hour, month = both(0, 59), both(0, 23), draw.choice([('*', '*'), both(1, 12)])
    day, weekday = draw.choice([('*', '*'), both(1, 28), ('L', '~01')]), ('*', '')
    if day == ('*', '*'):
        names = 'Sun Mon Tue Wed Thu Fri Sat'.split()
        first = draw.randint(1, 6)
        last = draw.randint(first, 6)
        weekday = draw.choice([('*', ''), (f'{first}', names[first]),
                               (f'{first}-{last}', f'{names[first]}..{names[last]}')])
    if day[1] == '~01':
        date = f'*-{month[1]}~01'
    else:
        date = f'*-{month[1]}-{day[1]}'
    return (f'{minute[0]} {hour[0]} {day[0]} {month[0]} {weekday[0]}',
            f'{weekday[1]} {date} {hour[1]}:{minute[1]}:00'.strip())


def systemd_times(event, after):
    """The next five times of systemd's event, or fewer: in some zones it finds none."""
    done = subprocess.run(
        ['systemd-analyze', 'calendar', '--iterations=5', f'--base-time={after:%F %T} UTC', event],
        env={'TZ': 'UTC', 'LC_ALL': 'C.UTF-8', 'PATH': '/usr/bin:/bin'},
        capture_output=True, text=True, check=False)
    if 'Failed to parse' in done.stderr:
        raise RuntimeError(done.stderr)
    return [datetime.fromisoformat(f'{day} {clock}+00:00') for day, clock in
            re.findall(r'(?:Next elapse|Iter\. #\d+): \w+ (\S+) (\S+) UTC', done.stdout)]


def is_said_alike(event, name, begin, end):
    """Whether systemd 252 should find `end` as the event's next time after `begin`."""
    zone, two_days = ZoneInfo(name), 48 * HOUR
    # From one month to another it leaves out the first value of a step: 00:50 of 0/22:50.
    months = {f'{moment.astimezone(zone):%Y-%m}' for moment in (begin, end)}
    if '/' in event and len(months) > 1:
        return False
    # Where clocks change, its rule is another.
    return name == 'UTC' or (end - begin < 60 * two_days
                             and not changes(zone, begin - two_days, end + two_days))


def compare_systemd(family, zones, draw, count):
    """Random calendars in UTC and in zones."""
    for i in range(count):
        text, event = systemd_calendar(draw)
        name = draw.choice(zones) if i % 2 else 'UTC'
        after = utc(2000) + timedelta(seconds=draw.randrange(50 * 365 * 86400))
        for expected in systemd_times(f'{event} {name}', after):
            if expected > after + 8 * timedelta(days=365):
                break
            if is_said_alike(event, name, after, expected):
                family.add(text, name, after, expected)
            after = expected
    return family.report()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('folder')
    parser.add_argument('database')
    parser.add_argument('--short', action='store_true')
    parser.add_argument('--seed', type=int, default=random.randrange(1, 10**6))
    given = parser.parse_args()
    database = Database(given.folder)
    draw = random.Random(given.seed)
    zones = zones_of(database, given.database)
    print(f'{len(zones)} zones, seed {given.seed}', flush=True)

    def family(kind):
        return Family(database, given.database, kind)

    if given.short:
        results = [
            compare_changes(family('changes of the clock'),
                            [(zone, 2026) for zone in SHORT_ZONES], draw, 20),
            compare_changes(family('odd changes'), ODD_DAYS, draw, 60),
            compare_random(family('random calendars'), zones, draw, 300)]
    else:
        results = [
            compare_changes(family('changes of the clock'),
                            [(zone, year) for zone in zones for year in (2025, 2026, 2027)],
                            draw, 10),
            compare_changes(family('odd changes'), ODD_DAYS, draw, 10),
            compare_random(family('random calendars'), zones, draw, 5000)]
    if shutil.which('systemd-analyze'):
        results.append(compare_systemd(family('systemd'), zones, draw, 50 if given.short else 1000))
    else:
        print('systemd                     not installed')
    sys.exit(0 if all(results) else 1)


if __name__ == '__main__':
    main()
