/** The view of one task: why it is as it is, its runs, its outputs, its definition, and what can be done. */

import { get, mayChange } from './api.js';
import { pause, resume, runNow } from './actions.js';
import { chart } from './chart.js';
import { data, el, escaped, whenUnselected } from './dom.js';
import { gauges } from './performance.js';
import { badge, stateOf } from './state.js';
import { stream } from './stream.js';
import { duration, moment, withTimes } from './time.js';

const kRefreshMilliseconds = 1000;
const kSlowMilliseconds = 15000;  // also without an event: lateness grows
const kShownCharacters = 20000;   // of an output, until the reader asks for the rest
const kStripRuns = 120;
const kMarks = { ok: '✓', failed: '✗', retried: '↻', interrupted: '!', skipped: '–' };

export class TaskView {
  title;
  #id;
  #task = null;
  #heading = el('h1', { tabindex: -1 });
  #state = el('span');
  #failure = el('p', { role: 'alert', class: 'failure' });
  #watching = el('p', { role: 'status' });
  #buttons = el('p', { class: 'buttons', hidden: true });
  #run;
  #pause;
  #resume;
  #sections = new Map();
  #abort = new AbortController();
  #timer = 0;
  #latest = null;    // the end of the latest run that is known
  #watched = null;   // the same when the reader asked for a run
  #onTasks = (event) => event.detail?.ids?.includes(this.#id) && this.#soon(kRefreshMilliseconds / 10);
  #onOpen = () => this.#soon(kRefreshMilliseconds);

  constructor(container, id) {
    this.#id = id;
    this.title = `Task ${id}`;
    this.#heading.textContent = this.title;
    this.#makeButtons();
    container.append(el('div', { class: 'head' }, this.#heading, this.#state), this.#failure, this.#buttons,
      this.#watching, el('div', { class: 'panels' }, this.#section('explanation', 'What it does, and why'),
        this.#section('outputs', 'Outputs'), this.#section('runs', 'Runs', 'is-wide'),
        this.#section('next', 'Next runs'), this.#section('definition', 'Definition')));
    stream.addEventListener('tasks', this.#onTasks);
    stream.addEventListener('open', this.#onOpen);
    this.#read();
  }

  #makeButtons() {
    const after = (isDone) => isDone && this.#read();
    this.#run = el('button', { type: 'button', onclick: () => this.#runAndWatch() }, 'Run now');
    this.#pause = el('button', { type: 'button', onclick: () => pause(this.#task).then(after) }, 'Pause…');
    this.#resume = el('button', { type: 'button', onclick: () => resume(this.#task).then(after) }, 'Resume');
    this.#buttons.append(this.#run, ' ', this.#pause, this.#resume);
  }

  #section(name, heading, style = null) {
    const content = el('div');
    this.#sections.set(name, { content, key: '' });
    return el('section', { class: style, 'aria-labelledby': `heading-${name}` },
      el('h2', { id: `heading-${name}` }, heading), content);
  }

  // Only what differs is made again, and not while a text of it is selected.
  #fill(name, values, make) {
    const section = this.#sections.get(name);
    const key = JSON.stringify(values);
    if (key !== section.key) {
      section.key = key;
      whenUnselected(section.content, () => section.key === key && renew(section.content, make(values)));
    }
  }

  async #read() {
    clearTimeout(this.#timer);
    const path = `tasks/${this.#id}`;
    const read = (what) => get(path + what, this.#abort.signal);
    try {
      const [task, history, logs, next] = await Promise.all([read(''), read('/history'), read('/logs'), read('/next')]);
      this.#failure.textContent = '';
      this.#show(task, history, logs, next);
    } catch (error) {
      if (this.#abort.signal.aborted) {
        return;
      }
      this.#failure.textContent = error.message;
    }
    this.#soon(this.#watched === null ? kSlowMilliseconds : kRefreshMilliseconds);
  }

  #soon(milliseconds) {
    clearTimeout(this.#timer);
    this.#timer = setTimeout(() => this.#read(), milliseconds);
  }

  #show(task, history, logs, next) {
    this.#task = task;
    this.#showHead(task);
    this.#fill('explanation', task.explanation ?? [], explanation);
    this.#fill('outputs', logs, outputs);
    this.#fill('runs', history, runs);
    this.#fill('next', next, nextRuns);
    this.#fill('definition', definitionOf(task), definition);
    const run = history.find(({ outcome }) => outcome !== 'skipped');
    this.#latest = run?.ended_at ?? '';
    this.#showWatched(run);
  }

  #showHead(task) {
    const title = `${escaped(task.name || '(no name)')}`;
    if (this.#heading.textContent !== title) {
      this.#heading.replaceChildren(data(task.name || '(no name)'));
    }
    this.title = `${title} (task ${task.id})`;
    document.title = `${this.title} · koducron`;
    this.#state.replaceChildren(badge(stateOf(task)),
      task.late_seconds ? ` ⚠ late ${duration(task.late_seconds)}` : '');
    this.#buttons.hidden = !mayChange() || task.deleted;
    const hadFocus = document.activeElement === this.#pause || document.activeElement === this.#resume;
    this.#pause.hidden = task.paused;
    this.#resume.hidden = !task.paused;
    if (hadFocus) {
      (task.paused ? this.#resume : this.#pause).focus();
    }
  }

  async #runAndWatch() {
    const before = this.#latest;
    if (await runNow(this.#task)) {
      this.#watched = before;
      this.#watching.textContent = 'Waiting for the run to end …';
      this.#soon(kRefreshMilliseconds / 4);
    }
  }

  #showWatched(run) {
    if (this.#watched === null || !run || run.ended_at === this.#watched) {
      return;
    }
    this.#watched = run.outcome === 'retried' ? run.ended_at : null;
    this.#watching.replaceChildren('The run ended at ', moment(run.ended_at), `: ${outcomeText(run)}`,
      run.seconds === null || run.seconds === undefined ? '' : `, after ${seconds(run.seconds)}`, '.');
  }

  close() {
    clearTimeout(this.#timer);
    this.#abort.abort();
    stream.removeEventListener('tasks', this.#onTasks);
    stream.removeEventListener('open', this.#onOpen);
  }
}

// Details that the reader has opened stay open.
function renew(content, nodes) {
  const wasOpen = new Set([...content.querySelectorAll('details[open]')].map((details) => details.dataset.key));
  content.replaceChildren(...nodes.filter((node) => node !== null));
  for (const details of content.querySelectorAll('details')) {
    details.open ||= wasOpen.has(details.dataset.key);
  }
}

function explanation(sentences) {
  return sentences.map((sentence) => el('p', {}, el('bdi', {}, withTimes(sentence, escaped))));
}

function seconds(value) {
  return value < 60 ? `${value.toLocaleString('en', { maximumSignificantDigits: 3 })} s` : duration(value);
}

function outcomeText({ outcome, reason }) {
  return escaped(reason ? `${outcome} (${reason})` : outcome);
}

function outputs(logs) {
  if (!logs.length) {
    return [el('p', {}, 'No output is kept.')];
  }
  const latest = logs.toReversed();
  return [gauges(latest[0].output ?? ''), ...latest.map((log, at) => el('details',
    { open: at === 0, 'data-key': `${log.time} ${log.path}` },
    el('summary', {}, badge(log.failed ? 'failed' : 'ok'), ' ', moment(log.time)), outputText(log)))];
}

function outputText({ output, path, time, cut }) {
  if (output === null) {
    return el('p', {}, 'The file cannot be read: ', data(path));
  }
  if (output === '') {
    return el('p', {}, 'The output is empty.');
  }
  const text = el('pre', { tabindex: 0, dir: 'auto', 'aria-label': `Output of ${time}`, role: 'region' },
    escaped(output.slice(0, kShownCharacters), true));
  const end = cut ? el('p', {}, 'The rest is in the file ', data(path), ' on the machine of the daemon.') : null;
  if (output.length <= kShownCharacters) {
    return el('div', {}, text, end);
  }
  // Breaking a line of a million characters takes the browser half a minute, so what is long is not wrapped.
  const all = el('button', { type: 'button', onclick: () => {
    text.classList.add('is-whole');
    text.textContent = escaped(output, true);
    all.remove();
    text.focus();
  } }, `Show all ${output.length.toLocaleString('en')} characters`);
  return el('div', {}, text, all, end);
}

function runs(history) {
  if (!history.length) {
    return [el('p', {}, 'No run is recorded.')];
  }
  const oldestFirst = history.toReversed();
  const ended = oldestFirst.filter((run) => run.started_at);
  const failed = (point) => point.outcome === 'ok' ? '' : 'failed';
  return [strip(oldestFirst.slice(-kStripRuns)),
    el('div', { class: 'pair' }, chart({ title: 'Duration', kind: 'dots', format: seconds, marks: failed,
      points: ended.map((run) => ({ at: run.ended_at, value: run.seconds, outcome: run.outcome })) }),
    chart({ title: 'Lateness', kind: 'dots', format: seconds, marks: failed,
      points: ended.filter((run) => run.due).map((run) => ({ at: run.ended_at, outcome: run.outcome,
        value: Math.max(0, (Date.parse(run.started_at) - Date.parse(run.due)) / 1000) })) })),
    el('details', { 'data-key': 'runs' }, el('summary', {}, 'All runs as a table'), runTable(history))];
}

// The table below says the same to those who do not see the strip.
function strip(history) {
  const counts = new Map();
  history.forEach(({ outcome }) => counts.set(outcome, (counts.get(outcome) ?? 0) + 1));
  return el('div', {},
    el('div', { class: 'strip', 'aria-hidden': 'true' }, history.map((run) =>
      el('span', { class: `run run-${run.outcome in kMarks ? run.outcome : 'other'}`, title: outcomeText(run) },
        kMarks[run.outcome] ?? '?'))),
    el('p', { class: 'legend' }, `The latest ${history.length}, the newest on the right: `,
      [...counts].map(([outcome, count]) => `${kMarks[outcome] ?? '?'} ${count} ${escaped(outcome)}`).join(', ')));
}

function runTable(history) {
  const head = ['Ended', 'Due', 'Took', 'Outcome', 'Attempt', 'Periods'];
  return el('div', { class: 'scroll', tabindex: 0, role: 'region', 'aria-label': 'All runs' },
    el('table', {}, el('thead', {}, el('tr', {}, head.map((text) => el('th', { scope: 'col' }, text)))),
      el('tbody', {}, history.map((run) => el('tr', {}, el('td', {}, moment(run.ended_at)),
        el('td', {}, moment(run.due)), el('td', {}, run.seconds === null || run.seconds === undefined
          ? '-' : seconds(run.seconds)),
        el('td', {}, `${kMarks[run.outcome] ?? '?'} ${outcomeText(run)}`),
        el('td', {}, String(run.attempt ?? '-')), el('td', {}, String(run.periods ?? '-')))))));
}

function nextRuns(times) {
  return [times.length ? el('ol', {}, times.slice(0, 10).map((time) => el('li', {}, moment(time))))
    : el('p', {}, 'None: the task is paused or being deleted.')];
}

function definitionOf(task) {
  return { Id: task.id, Plugin: task.plugin, Arguments: task.arguments ?? null, Parameters: task.parameters,
    Every: task.calendar ? task.calendar : duration(task.every_seconds), 'Time zone': task.zone,
    Retries: task.retries ? `${task.retries}, after ${duration(task.retry_after_seconds)}` : 'none',
    'Output file': task.output_file, Archive: task.archive,
    'Paused by': task.pause?.by || null, 'Reason of the pause': task.pause?.reason || null,
    'Paused until': task.pause ? task.pause.until ?? 'someone resumes it' : null };
}

function definition(values) {
  return [el('dl', {}, Object.entries(values).filter(([, value]) => value !== null && value !== undefined)
    .flatMap(([name, value]) => [el('dt', {}, name), el('dd', {}, valueOf(value))]))];
}

function valueOf(value) {
  if (Array.isArray(value)) {
    return value.length ? el('ol', { class: 'arguments' }, value.map((text) => el('li', {}, data(text)))) : 'none';
  }
  return /^\d{4}-\d{2}-\d{2}T[\d:]+Z$/.test(value) ? moment(value) : data(value);
}
