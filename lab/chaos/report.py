"""The table at the end, and the verdict."""

from collections import defaultdict
from statistics import median

from lab.chaos.faults import FAULTS


def print_report(target, facts, figures):
    """Prints everything; true when there is no violation."""
    print_faults(target.journal)
    print_facts(target, facts)
    print_figures(figures)
    for figure in figures:
        for violation in figure.violations[:20]:
            print(f'VIOLATION: {figure.name}: {violation}')
        if len(figure.violations) > 20:
            print(f'VIOLATION: {figure.name}: {len(figure.violations) - 20} more')
    total = sum(len(figure.violations) for figure in figures)
    print(f'\n{total} violations', flush=True)
    return total == 0


def print_faults(journal):
    times = defaultdict(list)
    for event in journal.all('fault'):
        times[event['name']].append(event.get('recovered'))
    reasons = {event['name']: event['reason'] for event in journal.all('not injected')}
    print("\nRecovered: from the fault's end, or that of the life it ended, to the next run.\n")
    print(f'{"fault":<46}{"injected":>9}{"median s":>10}{"worst s":>9}')
    for name in FAULTS:
        known = [seconds for seconds in times[name] if seconds is not None]
        figures = f'{median(known):>10.1f}{max(known):>9.1f}' if known else f'{"-":>10}{"-":>9}'
        reason = f'  not injected: {reasons[name]}' if name in reasons else ''
        print(f'{name:<46}{len(times[name]):>9}{figures}{reason}')


def print_facts(target, facts):
    print(f'\nruns {len(facts["runs"])}, tasks {len(target.population.tasks)}, '
          f'lives {len(target.journal.all("ready"))}, '
          f'purged {sum(1 for gone in facts["gone"] if gone[1] and gone[2])}')
    if facts['memory']:
        first, last = facts['memory']
        print(f'resident memory at the same age: {first} KiB in the first life, {last} KiB in the '
              f'last')
    for name, count in facts['after'].items():
        print(f'{name}: {facts["before"][name]} at the start, {count} at the end')


def print_figures(figures):
    print(f'\n{"0 allowed":<58}{"judged":>8}{"explained":>11}{"violations":>12}')
    for figure in figures:
        judged = figure.judged if figure.judged else 'not'
        print(f'{figure.name:<58}{judged:>8}{figure.explained:>11}{len(figure.violations):>12}')
