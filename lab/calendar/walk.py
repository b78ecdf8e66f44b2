"""A calendar followed minute by minute: slow, plain, and nothing like sql/calendar.sql."""

import calendar
from datetime import date, datetime, timedelta, timezone

MINUTE = timedelta(minutes=1)
DAY = timedelta(days=1)
MONTHS = 'jan feb mar apr may jun jul aug sep oct nov dec'.split()
WEEKDAYS = 'sun mon tue wed thu fri sat'.split()
SHORTHANDS = {'@hourly': '0 * * * *', '@daily': '0 0 * * *', '@midnight': '0 0 * * *',
              '@weekly': '0 0 * * 0', '@monthly': '0 0 1 * *', '@yearly': '0 0 1 1 *',
              '@annually': '0 0 1 1 *'}


def number(word, names=()):
    """The value of a number or a name."""
    return names.index(word) if word in names else int(word)


def values(item, low, high, names=()):
    """The values of *, 5, 5-9, each with or without a step; a step alone runs to the field's end."""
    body, _, step = item.partition('/')
    first, _, last = body.partition('-')
    if first == '*':
        begin, end = low, high
    else:
        begin = number(first, names)
        end = number(last, names) if last else high if step else begin
        if last == 'sun' and begin > 0:
            end = 7
    return set(range(begin, end + 1, int(step or 1)))


class Expression:
    """One of a calendar's expressions: which readings of a clock it means."""

    def __init__(self, text):
        text = text.strip().lower()
        fields = SHORTHANDS.get(text, text).split()
        minute, hour, self.day_field, month, self.weekday_field = fields
        self.minutes = set().union(*(values(item, 0, 59) for item in minute.split(',')))
        self.hours = set().union(*(values(item, 0, 23) for item in hour.split(',')))
        self.months = set().union(*(values(item, 1, 12, ['', *MONTHS])
                                    for item in month.split(',')))
        self.is_wall_clock = minute[0] != '*' and hour[0] != '*'
        self.takes_either = self.day_field[0] != '*' and self.weekday_field[0] != '*'
        self.known = {}

    def has_day(self, day):
        for item in self.day_field.split(','):
            if item == 'l':
                if (day + DAY).month != day.month:
                    return True
            elif day.day in values(item, 1, 31):
                return True
        return False

    def has_weekday(self, day):
        weekday = day.isoweekday() % 7
        for item in self.weekday_field.split(','):
            name, mark, which = item.partition('#')
            if mark:
                if number(name, WEEKDAYS) % 7 == weekday and (day.day - 1) // 7 + 1 == int(which):
                    return True
            elif item[-1] == 'l':
                is_last = (day + 7 * DAY).month != day.month
                if number(item[:-1], WEEKDAYS) % 7 == weekday and is_last:
                    return True
            elif weekday in {value % 7 for value in values(item, 0, 7, WEEKDAYS)}:
                return True
        return False

    def has_date(self, day):
        if day not in self.known:
            found = [self.has_day(day), self.has_weekday(day)]
            self.known[day] = (day.month in self.months
                               and (any if self.takes_either else all)(found))
        return self.known[day]

    def matches(self, reading):
        return (reading.minute in self.minutes and reading.hour in self.hours
                and self.has_date(reading.date()))


def parse(text):
    return [Expression(part) for part in text.split(';')]


class Clock:
    """What a zone's clock shows, minute by minute."""

    def __init__(self, zone):
        self.zone = zone

    def at(self, moment):
        """The reading, and whether the clock has shown it an hour, or whatever, before."""
        local = moment.astimezone(self.zone)
        return local.replace(tzinfo=None, fold=0), local.fold == 1


def fires(expression, previous, reading, is_second):
    """Whether the expression fires as the clock goes on from one reading to the next."""
    if not expression.is_wall_clock:
        return expression.matches(reading)
    skipped = previous + MINUTE
    while skipped < reading:  # times that do not exist: they fire now, at the end of the gap
        if expression.matches(skipped):
            return True
        skipped += MINUTE
    return not is_second and expression.matches(reading)


def steps(zone, begin, end):
    """(moment, previous reading, reading, is second) of each minute in [begin, end)."""
    clock = Clock(zone)
    previous, _ = clock.at(begin - MINUTE)
    moment = begin
    while moment < end:
        reading, is_second = clock.at(moment)
        yield moment, previous, reading, is_second
        previous = reading
        moment += MINUTE


def firings(text, walked):
    """The moments at which a calendar fires among walked steps."""
    expressions = parse(text)
    return [moment for moment, *step in walked
            if any(fires(expression, *step) for expression in expressions)]


def eight_years_after(moment):
    year = moment.year + 8
    day = min(moment.day, calendar.monthrange(year, moment.month)[1])
    return moment.replace(year=year, day=day)


def next_firing(text, zone, after):
    """The first firing after `after` and within eight years, or None."""
    expressions = parse(text)
    moment = after.replace(second=0, microsecond=0) + MINUTE
    end = eight_years_after(after)
    while moment <= end:
        # A day on the clock of no zone is further than a day from UTC's: most days need no walk.
        today = moment.date()
        if any(expression.has_date(today + away * DAY)
               for expression in expressions for away in (-1, 0, 1)):
            midnight = datetime(today.year, today.month, today.day, tzinfo=timezone.utc) + DAY
            for at, *step in steps(zone, moment, min(midnight, end + MINUTE)):
                if any(fires(expression, *step) for expression in expressions):
                    return at
        moment = datetime.combine(today + DAY, datetime.min.time(), timezone.utc)
    return None
