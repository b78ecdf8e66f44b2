/** The first view: is the daemon well, how many tasks are not, and what is due. Every figure leads to its tasks. */

import { get } from './api.js';
import { chart } from './chart.js';
import { data, el, whenUnselected } from './dom.js';
import { address } from './router.js';
import { stream } from './stream.js';
import { duration, moment } from './time.js';

const kTotals = [['tasks', 'Tasks', {}, '■'], ['failing', 'Failing', { failed: 1, sort: 'failing' }, '✗'],
  ['late', 'Late', { late: 1, sort: 'late,desc' }, '⚠'], ['running', 'Running', { running: 1 }, '▶'],
  ['paused', 'Paused', { paused: 1 }, '‖'], ['deleting', 'Being deleted', { deleting: 1 }, '⌫']];
const kWorse = ['failing', 'late'];
const kRefreshMilliseconds = 60000;
const kReasons = ['ok', 'open', 'silent'];  // of the stream, to read everything again

export class OverviewView {
  title = 'Overview';
  #tiles = new Map();
  #yesterday = null;
  #daemon = el('p', { class: 'daemon' });
  #failure = el('p', { role: 'alert', class: 'failure' });
  #rest = el('div', { class: 'panels' });
  #abort = new AbortController();
  #shown = '';
  #timer;
  #onTotals = (event) => this.#showTotals(event.detail);
  #onReturn = () => this.#read();

  constructor(container) {
    container.append(el('h1', { tabindex: -1 }, 'Overview'), this.#failure, this.#daemon,
      el('ul', { class: 'tiles' }, kTotals.map((total) => this.#tile(...total))), this.#rest);
    stream.addEventListener('totals', this.#onTotals);
    kReasons.forEach((type) => stream.addEventListener(type, this.#onReturn));
    this.#timer = setInterval(() => this.#read(), kRefreshMilliseconds);
    this.#read();
  }

  #tile(name, text, params, symbol) {
    const count = el('strong', {}, '…');
    const change = el('small');
    const link = el('a', { href: address('/tasks', params) },
      el('span', { 'aria-hidden': 'true' }, `${symbol} `), `${text} `, count, ' ', change);
    this.#tiles.set(name, { count, change, link });
    return el('li', {}, link);
  }

  #showTotals(totals) {
    for (const [name, { count, change, link }] of this.#tiles) {
      count.textContent = (totals[name] ?? 0).toLocaleString('en');
      link.classList.toggle('is-bad', kWorse.includes(name) && totals[name] > 0);
      const old = this.#yesterday?.[name];
      change.textContent = old === null || old === undefined ? '' : changeText(totals[name] - old);
    }
  }

  async #read() {
    try {
      const overview = await get('overview', this.#abort.signal);
      this.#failure.textContent = '';
      this.#show(overview);
    } catch (error) {
      if (!this.#abort.signal.aborted) {
        this.#failure.textContent = error.message;
      }
    }
  }

  #show(overview) {
    this.#yesterday = overview.yesterday;
    this.#showTotals(overview.totals);
    this.#daemon.replaceChildren(...daemonText(overview.daemon));
    const { day, failures_by_plugin: plugins, due } = overview;
    const key = JSON.stringify([day, plugins, due]);
    if (key !== this.#shown) {
      this.#shown = key;
      whenUnselected(this.#rest, () => this.#rest.replaceChildren(...panels(day, plugins, due)));
    }
  }

  close() {
    clearInterval(this.#timer);
    this.#abort.abort();
    stream.removeEventListener('totals', this.#onTotals);
    kReasons.forEach((type) => stream.removeEventListener(type, this.#onReturn));
  }
}

function changeText(change) {
  const size = Math.abs(change).toLocaleString('en');
  return change === 0 ? 'same as yesterday' : `${change > 0 ? '+' : '−'}${size} since yesterday`;
}

function daemonText(daemon) {
  if (!daemon) {
    return ['Nothing is known of the daemon.'];
  }
  return daemon.alive
    ? [el('strong', {}, '✓ The daemon is running'), ...(daemon.since ? [' since ', moment(daemon.since)] : []), '.']
    : [el('strong', { class: 'bad' }, '✗ The daemon is not running'),
      ...(daemon.last_sign ? ['. Its last sign was at ', moment(daemon.last_sign)] : []), '.'];
}

function rate(value) {
  return value.toLocaleString('en', { maximumSignificantDigits: 3 });
}

function panels(day, plugins, due) {
  return [
    panel('Runs a second, by hour', { sort: 'last,desc' }, 'the tasks that ran last', chart({
      title: 'Runs a second', format: rate,
      points: day.map(({ at, runs }) => ({ at, value: runs === null ? null : runs / 3600 })) })),
    panel('Failed runs, by hour', { failed_today: 1, sort: 'failures,desc' }, 'the tasks that failed today', chart({
      title: 'Failed runs', points: day.map(({ at, failures }) => ({ at, value: failures })), format: rate,
      marks: () => 'failed' })),
    panel('Greatest lateness, by hour', { late: 1, sort: 'late,desc' }, 'the tasks that are late now', chart({
      title: 'Lateness', points: day.map((hour) => ({ at: hour.at, value: hour.late_max_seconds })),
      format: duration })),
    panel('Due in the next day, by quarter of an hour', { sort: 'next' }, 'the tasks that are due next', chart({
      title: 'Due tasks', points: due.map(({ at, tasks }) => ({ at, value: tasks })), format: rate })),
    el('section', {}, el('h2', {}, 'Failing tasks by plugin'), plugins.length ? pluginTable(plugins)
      : el('p', {}, 'No task is failing.')),
  ];
}

function panel(heading, params, linkText, content) {
  return el('section', {}, el('h2', {}, heading), content,
    el('p', {}, el('a', { href: address('/tasks', params) }, `Show ${linkText}`)));
}

// In a pattern, a backslash takes the next character literally.
function pattern(text) {
  return text.replace(/[\\*?]/g, '\\$&');
}

function pluginTable(plugins) {
  return el('table', {}, el('thead', {}, el('tr', {}, el('th', { scope: 'col' }, 'Plugin'),
    el('th', { scope: 'col' }, 'Failing'))),
  el('tbody', {}, plugins.map(({ plugin, failing }) => el('tr', {},
    el('td', {}, el('a', { href: address('/tasks', { plugin: pattern(plugin), failed: 1 }) }, data(plugin))),
    el('td', {}, failing.toLocaleString('en'))))));
}
