"""Calendars drawn at random, all of them valid."""

from lab.calendar.walk import MONTHS, SHORTHANDS, WEEKDAYS


class Generator:
    """Draws from a random.Random, so that a seed repeats a run."""

    def __init__(self, random):
        self.random = random

    def cased(self, word):
        return self.random.choice([word, word.upper(), word.capitalize()])

    def value(self, low, high, names=()):
        value = self.random.randint(low, high)
        if value < len(names) and self.random.random() < 0.5:
            return value, self.cased(names[value])
        return value, self.random.choice(['{}', '{:02}']).format(value)

    def range(self, low, high, names=()):
        """first-last, always in order: Sunday is the last day as well as the first."""
        if names == WEEKDAYS and self.random.random() < 0.2:
            return f'{self.value(1, 6, names)[1]}-{self.cased("sun")}'
        (first, first_word), (last, last_word) = sorted(
            [self.value(low, high, names), self.value(low, high, names)], key=lambda pair: pair[0])
        return f'{first_word}-{last_word}'

    def item(self, low, high, names=(), specials=()):
        kind = self.random.random()
        if specials and kind < 0.35:
            return self.random.choice(specials)()
        if kind < 0.6:
            return self.value(low, high, names)[1]
        if kind < 0.75:
            return self.range(low, high, names)
        step = self.random.randint(1, max(2, (high - low) // 2))
        body = self.random.choice([lambda: '*', lambda: self.range(low, high, names),
                                   lambda: self.value(low, high, names)[1]])()
        return f'{body}/{step}'

    def field(self, low, high, names=(), specials=(), star=0.5):
        if self.random.random() < star:
            return '*'
        count = self.random.choice([1, 1, 1, 2, 3])
        return ','.join(self.item(low, high, names, specials) for _ in range(count))

    def weekday_of_month(self):
        name = self.value(0, 7, WEEKDAYS)[1]
        return name + self.random.choice(['L', 'l', '#1', '#2', '#3', '#4', '#5'])

    def rare_expression(self):
        """On the last days of February, which some years or all years have."""
        return ' '.join([self.field(0, 59, star=0.1), self.field(0, 23, star=0.1),
                         self.random.choice(['29', '29', '30', '*/28']), self.cased('feb'),
                         self.random.choice(['*', '*/2', '*/5', '*/7', 'wed'])])

    def expression(self):
        if self.random.random() < 0.05:
            return self.rare_expression()
        if self.random.random() < 0.05:
            return self.cased(self.random.choice(list(SHORTHANDS)))
        return self.random.choice([' ', '  ', '\t']).join([
            self.field(0, 59, star=0.15),
            self.field(0, 23, star=0.3),
            self.field(1, 31, specials=[lambda: 'L', lambda: 'l'], star=0.5),
            self.field(1, 12, ['', *MONTHS], star=0.7),
            self.field(0, 7, WEEKDAYS, [self.weekday_of_month], star=0.5)])

    def calendar(self):
        count = self.random.choice([1, 1, 1, 1, 2, 3])
        return self.random.choice([';', '; ', ' ; ']).join(self.expression() for _ in range(count))
