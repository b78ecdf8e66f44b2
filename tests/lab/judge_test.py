"""Tests of the judge: it detects each loss, and accepts only the loss's own event as an excuse."""

import os
import tempfile
import unittest
from pathlib import Path
from types import SimpleNamespace

from lab.chaos.account import Account
from lab.chaos.case import Case
from lab.chaos.evidence import longest_stretch
from lab.chaos.journal import Journal
from lab.chaos.judge import Judge
from lab.chaos.ledger import Run
from lab.chaos.population import Task

BEGUN, END = 1000.0, 1300.0
LIFE = 77


class JudgeTest(unittest.TestCase):
    """One task with an interval of 5 s in one life of 300 s, which each test changes."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.home = Path(folder.name)
        self.journal = Journal(self.home / 'journal')
        self.addCleanup(self.journal.close)
        self.journal.add('ready', time=BEGUN, pid=LIFE)
        self.task = Task(id=1, kind='ok', interval=5, retries=0, retry_interval=3,
                         anchor=1000, born=BEGUN)
        self.runs = [self.run_at(at) for at in range(1005, 1300, 5)]
        self.facts = {'begun': BEGUN, 'end': END, 'gone': [], 'history': [],
                      'next': {1: (1305, 'OK')}, 'judges_memory': True,
                      'before': {'zombies': 0}, 'after': {'zombies': 0}, 'left': {}}
        self.memory = [(at, LIFE, 1000) for at in range(1001, 1300)]

    @staticmethod
    def run_at(begin, end=None, life=LIFE, code=0, kind='ok'):
        return Run(1, kind, int(begin), life, float(begin), end or begin + 0.1, code)

    def judge(self):
        target = SimpleNamespace(
            journal=self.journal, population=SimpleNamespace(tasks={1: self.task}),
            output=self.home, daemon=SimpleNamespace(memory=self.memory))
        runs = sorted(self.runs, key=lambda run: run.begin)
        return Judge(Case(target, {**self.facts, 'runs': runs}))

    def violations(self, question):
        figures = getattr(self.judge(), question)()
        figures = figures if isinstance(figures, tuple) else (figures,)
        return [len(figure.violations) for figure in figures]

    def copy_of(self, run, name='1_a.txt'):
        folder = self.home / 'archive/1'
        folder.mkdir(parents=True, exist_ok=True)
        text = '' if run.kind == 'silent' else f'run 1 {run.pid} {run.begin:.6f}\n'
        (folder / name).write_text(text, encoding='ascii')
        os.utime(folder / name, (run.end + 1, run.end + 1))

    def test_finds_nothing_in_a_quiet_run(self):
        for figure in self.judge().figures():
            self.assertEqual([], figure.violations, figure.name)

    def record(self, *lacking):
        """The ledger of the database has all runs but these."""
        account = Account()
        account.attempts[1] = [(run.begin - 0.01, run.end + 0.01) for run in self.runs
                               if run.begin not in lacking]
        self.facts['account'] = account
        return account

    def test_accepts_a_ledger_with_every_attempt(self):
        self.record()
        self.assertEqual([0, 0, 0, 0], self.violations('accounts'))

    def test_sees_an_attempt_that_the_ledger_lacks(self):
        self.record(1100)
        self.assertEqual([0, 0, 0, 1], self.violations('accounts'))

    def test_sees_an_attempt_that_began_after_a_recorded_one_had_ended(self):
        self.record()
        self.runs.append(self.run_at(1100.2))
        self.assertEqual([0, 0, 0, 1], self.violations('accounts'))

    def test_excuses_a_lacking_attempt_by_a_crash_of_the_server_within_a_second(self):
        self.record(1100)
        self.journal.add('server', time=1101.0, until=1103.0)
        self.assertEqual([0, 0, 0, 0], self.violations('accounts'))

    def test_does_not_excuse_a_lacking_attempt_by_a_later_crash(self):
        self.record(1100)
        self.journal.add('server', time=1102.0, until=1104.0)
        self.assertEqual([0, 0, 0, 1], self.violations('accounts'))

    def test_sees_contradictions_sums_and_unwritten_rows_of_the_ledger(self):
        account = self.record()
        account.gaps = [['1', '7', 'expected', 'found']]
        account.sums = [['1', '10', '8', '1', '1']]
        account.unwritten = 3
        self.assertEqual([1, 1, 1, 0], self.violations('accounts'))

    def test_sees_a_missing_run(self):
        self.runs = [run for run in self.runs if not 1100 < run.begin < 1130]
        self.assertEqual([1], self.violations('missed'))

    def test_sees_a_task_that_stops_for_good(self):
        self.runs = [run for run in self.runs if run.begin < 1280]
        self.assertEqual([1], self.violations('missed'))

    def test_excuses_a_silence_by_a_fault_of_that_time(self):
        self.runs = [run for run in self.runs if not 1100 < run.begin < 1130]
        self.journal.add('fault', time=1102.0, name='x', until=1122.0)
        self.assertEqual([0], self.violations('missed'))

    def test_does_not_excuse_a_silence_by_a_fault_of_another_time(self):
        self.runs = [run for run in self.runs if not 1100 < run.begin < 1130]
        self.journal.add('fault', time=1062.0, name='x', until=1082.0)
        self.assertEqual([1], self.violations('missed'))

    def test_expects_nothing_of_a_flagged_task(self):
        self.runs = [run for run in self.runs if run.begin < 1200]
        self.task.gone = 1199.0
        self.assertEqual([0], self.violations('missed'))

    def test_sees_an_overlap(self):
        self.runs.append(self.run_at(1102, 1111))
        self.assertEqual([2], self.violations('overlaps'))

    def test_does_not_count_an_overlap_of_two_lives(self):
        self.runs.append(self.run_at(1102, 1111, life=78))
        self.assertEqual([0], self.violations('overlaps'))

    def test_excuses_an_overlap_by_an_update_during_the_run(self):
        self.runs.append(self.run_at(1102, 1106))
        self.task.updates = [1103.0]
        self.assertEqual([0], self.violations('overlaps'))

    def test_does_not_excuse_an_overlap_by_a_later_update(self):
        self.runs.append(self.run_at(1102, 1106))
        self.task.updates = [1110.0]
        self.assertEqual([1], self.violations('overlaps'))

    def test_sees_a_next_time_off_the_grid(self):
        self.facts['next'] = {1: (1306, 'OK')}
        self.assertEqual([1], self.violations('next_times'))

    def test_sees_a_row_left_at_process(self):
        self.facts['next'] = {1: (1200, 'PROCESS')}
        self.runs = [run for run in self.runs if run.begin < 1200]
        self.assertEqual([1], self.violations('unfinished'))

    def test_sees_a_failed_run_without_copy_and_row(self):
        self.runs.append(self.run_at(1152, code=2))
        self.assertEqual([1, 1], self.violations('archives'))

    def test_sees_a_copy_without_row(self):
        self.runs.append(self.run_at(1152, code=2))
        self.copy_of(self.runs[-1])
        self.assertEqual([0, 1], self.violations('archives'))
        self.facts['history'] = [['1', '1_a.txt']]
        self.assertEqual([0, 0], self.violations('archives'))

    def test_excuses_a_missing_copy_by_the_end_of_its_life(self):
        self.runs.append(self.run_at(1152, code=2))
        self.journal.add('end', time=1153.0, pid=LIFE, how='ended by SIGKILL', words='')
        self.assertEqual([0, 0], self.violations('archives'))

    def test_does_not_excuse_a_missing_copy_by_a_later_end(self):
        self.runs.append(self.run_at(1152, code=2))
        self.journal.add('end', time=1170.0, pid=LIFE, how='ended by SIGKILL', words='')
        self.assertEqual([1, 1], self.violations('archives'))

    def test_counts_three_attempts_without_output_as_one_failed_run(self):
        self.runs = [self.run_at(at, kind='silent') for at in (1150, 1151, 1152, 1160, 1161)]
        self.copy_of(self.runs[2])
        self.facts['history'] = [['1', '1_a.txt']]
        self.assertEqual([0, 0], self.violations('archives'))

    def test_sees_an_end_of_the_daemon_without_a_cause(self):
        self.journal.add('end', time=1153.0, pid=LIFE, how='ended by SIGSEGV', words='')
        self.assertEqual([1], self.violations('restarts'))

    def test_accepts_an_end_only_for_the_cause_in_its_message(self):
        self.journal.add('end', time=1153.0, pid=LIFE, how='ended by SIGABRT',
                         words='terminate called: what(): cannot copy: No space left on device')
        self.journal.add('server', time=1152.0, until=1153.0)
        self.assertEqual([1], self.violations('restarts'))
        self.journal.add('directory', time=1152.0, until=1155.0)
        self.assertEqual([0], self.violations('restarts'))

    def test_accepts_an_end_without_a_message_only_for_a_fatal_fault_of_that_moment(self):
        self.journal.add('end', time=1153.0, pid=LIFE, how='ended by SIGABRT',
                         words='terminate called recursively')
        self.journal.add('step', time=1152.0, seconds=3)
        self.assertEqual([1], self.violations('restarts'))
        self.journal.add('terminate', time=1152.0)
        self.assertEqual([0], self.violations('restarts'))

    def test_never_excuses_a_corrupted_heap(self):
        self.journal.add('terminate', time=1152.0)
        self.journal.add('end', time=1153.0, pid=LIFE, how='ended by SIGABRT',
                         words='double free or corruption (fasttop)')
        self.assertEqual([1], self.violations('restarts'))

    def test_ignores_a_copy_without_its_first_line(self):
        self.runs.append(self.run_at(1152, code=2))
        self.copy_of(self.runs[-1])
        self.copy_of(self.run_at(1160, kind='silent'), '1_b.txt')
        self.facts['history'] = [['1', '1_a.txt']]
        self.assertEqual([0, 0], self.violations('archives'))

    def test_excuses_two_failures_in_one_second_by_a_second_definition_only(self):
        self.journal.add('end', time=1153.0, pid=LIFE, how='ended by SIGABRT',
                         words='terminate called what() File exists [/o/archive/1/1_a.txt]')
        self.task.updates = [1051.0]
        self.assertEqual([1], self.violations('restarts'))
        self.task.additions = [1053.0]
        self.assertEqual([0], self.violations('restarts'))

    def test_excuses_two_failures_in_one_second_by_a_backlog(self):
        self.journal.add('end', time=1153.0, pid=LIFE, how='ended by SIGABRT',
                         words='terminate called what() File exists [/o/archive/1/1_a.txt]')
        self.journal.add('stopped', time=1142.0, until=1147.0)
        self.assertEqual([0], self.violations('restarts'))

    def test_sees_a_run_after_the_purge(self):
        self.facts['gone'] = [(1, True, True, 1200.0)]
        self.runs = [self.run_at(1199), self.run_at(1200.4), self.run_at(1205)]
        self.assertEqual([1], self.violations('after_purge'))

    def test_sees_a_leak(self):
        self.facts['after'] = {'zombies': 1}
        self.assertEqual([1], self.violations('resources'))

    def test_sees_growth_of_the_last_life(self):
        self.memory = ([(at, LIFE, 1000) for at in range(1001, 1100)] +
                       [(at, 78, 1101) for at in range(1100, 1300)])
        self.assertEqual([1], self.violations('memory'))

    def test_sees_growth_of_the_only_life(self):
        self.memory = [(at, LIFE, 1000 if at < 1200 else 1101) for at in range(1001, 1300)]
        self.assertEqual([1], self.violations('memory'))

    def test_reports_a_last_life_that_is_too_young(self):
        self.memory = ([(at, LIFE, 1000) for at in range(1001, 1280)] +
                       [(at, 78, 1000) for at in range(1280, 1300)])
        self.assertEqual([1], self.violations('memory'))

    def test_finds_the_longest_period_outside_all_windows(self):
        self.assertEqual((5, 15), longest_stretch(10, 20, [(13, 15), (14, 15), (8, 11)]))


if __name__ == '__main__':
    unittest.main()
