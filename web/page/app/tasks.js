/** The view of all tasks: search, conditions, order, and the table. Its address holds all of them. */

import { get } from './api.js';
import { announce, data, el } from './dom.js';
import { Grid, kSortKeys } from './grid.js';
import { go, note } from './router.js';
import { stream } from './stream.js';

const kConditions = [['failed', 'Failed'], ['failed_today', 'Failed today'], ['late', 'Late'],
  ['running', 'Running'], ['paused', 'Paused'], ['deleting', 'Being deleted'], ['never_ran', 'Never ran']];
const kTexts = ['search', 'name', 'plugin'];
const kTypingMilliseconds = 250;
const kRefreshMilliseconds = 1000;  // between two refreshes of rows in view
const kQuietMilliseconds = 5000;    // the same when only other tasks have changed
const kCountMilliseconds = 10000;
const kSlowMilliseconds = 20000;    // without any event: lateness grows

/** The parameters that choose and order tasks, out of an address. */
function queryOf(params) {
  const names = [...kTexts, ...kConditions.map(([name]) => name), 'sort'];
  return new URLSearchParams(names.map((name) => [name, params.get(name) ?? ''])
    .filter(([, value]) => value !== ''));
}

const kKeys = [['↑ ↓ PgUp PgDn Home End', 'move'], ['Enter', 'opens the task'], ['m', 'shows what can be done with it'],
  ['/', 'leads to the search']];

function keys() {
  return el('details', { class: 'keys' }, el('summary', {}, 'Keys'), 'In the table: ',
    kKeys.map(([key, meaning], at) => [at ? ', ' : '', el('kbd', {}, key), ` ${meaning}`]).flat(), '.');
}

export class TasksView {
  title = 'Tasks';
  #params;
  #grid;
  #search;
  #sort;
  #count = el('span', { role: 'status' });
  #failure = el('p', { role: 'alert', class: 'failure' });
  #stale = el('button', { type: 'button', hidden: true, onclick: () => this.#update() }, 'Show the new order');
  #fromStart = el('button', { type: 'button', hidden: true, onclick: () => this.#change({ from: '' }) },
    'From the beginning');
  #pattern = el('span');
  #buttons = new Map();
  #typing = 0;
  #noting = 0;
  #timer = 0;
  #refreshed = 0;
  #counted = 0;
  #counting = null;
  #onTasks = (event) => this.#changed(event.detail?.ids ?? []);
  #slow = setInterval(() => this.#changed([]), kSlowMilliseconds);

  constructor(container, params) {
    this.#grid = new Grid({
      open: (task) => go(`/tasks/${task.id}`),
      changed: () => this.#refresh(),
      sort: (key) => this.#sortBy(key),
      search: () => this.#search.focus(),
      position: (key) => this.#notePosition(key),
      stale: (isStale) => { this.#stale.hidden = !isStale; },
      failed: (error) => { this.#failure.textContent = error.message; },
    });
    container.classList.add('is-full');
    container.append(el('h1', { tabindex: -1 }, 'Tasks'), this.#toolbar(), this.#failure, this.#grid.element);
    ['open', 'tasks'].forEach((type) => stream.addEventListener(type, this.#onTasks));
    this.update(params);
  }

  #toolbar() {
    this.#search = el('input', { type: 'search', id: 'search', autocomplete: 'off', spellcheck: 'false',
      oninput: () => this.#typed() });
    this.#sort = el('select', { id: 'sort', onchange: () => this.#change({ sort: this.#sort.value }) },
      kSortKeys.flatMap(([key, heading]) => [el('option', { value: key }, `${heading} ↑`),
        el('option', { value: `${key},desc` }, `${heading} ↓`)]));
    const conditions = kConditions.map(([name, text]) => {
      const button = el('button', { type: 'button', 'aria-pressed': 'false',
        onclick: () => this.#change({ [name]: this.#params.get(name) ? '' : '1' }) }, text);
      this.#buttons.set(name, button);
      return button;
    });
    return el('div', { class: 'toolbar' },
      el('div', { role: 'search' }, el('label', { for: 'search' }, 'Search '), this.#search),
      el('div', { role: 'group', 'aria-label': 'Only tasks that are' }, conditions),
      el('div', { class: 'narrow' }, el('label', { for: 'sort' }, 'Order '), this.#sort),
      el('div', { class: 'result' }, this.#pattern, this.#count, ' ', this.#fromStart, this.#stale), keys());
  }

  /** Shows what an address says. */
  update(params) {
    const isFirst = this.#params === undefined;
    const query = queryOf(params).toString();
    const isSame = !isFirst && query === queryOf(this.#params).toString();
    const from = params.get('from') ?? '';
    const isMoved = !isFirst && from !== (this.#params.get('from') ?? '');
    this.#params = params;
    if (isSame && !isMoved) {
      return;
    }
    this.#showConditions(params);
    this.#fromStart.hidden = from === '';
    this.#stale.hidden = true;
    this.#failure.textContent = '';
    this.#grid.load(queryOf(params), from).then(() => this.#countTasks());
  }

  #showConditions(params) {
    const search = params.get('search') ?? '';
    if (document.activeElement !== this.#search) {
      this.#search.value = search;
    }
    this.#buttons.forEach((button, name) =>
      button.setAttribute('aria-pressed', params.get(name) ? 'true' : 'false'));
    this.#sort.value = (params.get('sort') || 'id').replace(/,asc$/, '');
    this.#pattern.replaceChildren(...['name', 'plugin'].filter((name) => params.get(name)).map((name) =>
      el('button', { type: 'button', onclick: () => this.#change({ [name]: '' }) },
        `${name} `, data(params.get(name)), ' ✕')));
  }

  #typed() {
    clearTimeout(this.#typing);
    this.#typing = setTimeout(() => this.#change({ search: this.#search.value }, true), kTypingMilliseconds);
  }

  #sortBy(key) {
    const present = this.#params.get('sort') || 'id';
    this.#change({ sort: present === key ? `${key},desc` : key });
  }

  #change(changes, isReplaced = false) {
    const params = new URLSearchParams(this.#params);
    Object.entries({ from: '', ...changes }).forEach(([name, value]) => params.set(name, value));
    go('/tasks', params, isReplaced);
  }

  // Browsers refuse more than some notes a second.
  #notePosition(key) {
    clearTimeout(this.#noting);
    const wanted = key || (this.#fromStart.hidden ? '' : this.#params.get('from') ?? '');
    this.#noting = setTimeout(() => note('from', wanted), 400);
  }

  #countTasks() {
    this.#counted = Date.now();
    this.#counting?.abort();
    this.#counting = new AbortController();
    get(`tasks/count?${queryOf(this.#params)}`, this.#counting.signal).then(({ tasks }) => {
      this.#grid.total = this.#fromStart.hidden ? tasks : -1;
      this.#count.textContent = `${tasks.toLocaleString('en')} ${tasks === 1 ? 'task' : 'tasks'}`;
    }, () => {});
  }

  // Many tasks may change every second: the rows in view are read again soon, but not more often than needed.
  #changed(ids) {
    const pause = this.#grid.shows(ids) ? kRefreshMilliseconds : kQuietMilliseconds;
    const delay = Math.max(100, this.#refreshed + pause - Date.now());
    const due = Date.now() + delay;
    if (!this.#timer || due < this.#timer.due) {
      clearTimeout(this.#timer?.id);
      this.#timer = { due, id: setTimeout(() => this.#refresh(), delay) };
    }
  }

  async #refresh() {
    clearTimeout(this.#timer?.id);
    this.#timer = 0;
    this.#refreshed = Date.now();
    await this.#grid.refresh().catch(() => {});
    if (Date.now() - this.#counted > kCountMilliseconds) {
      this.#countTasks();
    }
  }

  async #update() {
    this.#stale.hidden = true;
    await this.#grid.refresh(() => true).catch((error) => announce(error.message));
    this.#countTasks();
  }

  close() {
    ['open', 'tasks'].forEach((type) => stream.removeEventListener(type, this.#onTasks));
    clearInterval(this.#slow);
    [this.#typing, this.#noting, this.#timer?.id].forEach(clearTimeout);
    this.#counting?.abort();
    this.#grid.close();
  }
}
