/**
 * The table of tasks. Only the rows in view exist as elements. A row that is there changes in place, and not
 * at all while a menu is open or something is selected.
 */

import { mayChange } from './api.js';
import { actionsOf } from './actions.js';
import { data, el, hasSelection, whenUnselected } from './dom.js';
import { isMenuOpen, showMenu } from './menu.js';
import { Pages, kPageRows } from './pages.js';
import { badge, stateOf } from './state.js';
import { duration, moment } from './time.js';

const kSpareRows = 8;
// Browsers limit the height of an element; the part of the list that can be scrolled is moved instead.
const kReachRows = 10000;

/** Each column: its key, heading, the server's key for sorting, and its content for a task. */
const kColumns = [
  ['state', 'State', 'status', (task) => task.moved
    ? [badge(stateOf(task)), el('small', { class: 'moved' }, ' moved')] : badge(stateOf(task))],
  ['name', 'Task', 'name', (task) => [
    el('a', { href: `#/tasks/${Number(task.id)}`, tabindex: -1 }, data(task.name || '(no name)'))]],
  ['id', 'Id', 'id', (task) => String(task.id)],
  ['plugin', 'Plugin', 'plugin', (task) => data(task.plugin)],
  ['late', 'Late', 'late', (task) => task.late_seconds ? `⚠ ${duration(task.late_seconds)}` : '-'],
  ['last', 'Last due', 'last', (task) => moment(task.last_due, 'short')],
  ['next', 'Next due', 'next', (task) => moment(task.due, 'short')],
  ['every', 'Every', 'every', (task) => task.calendar ? data(task.calendar) : duration(task.every_seconds)],
  ['failures', 'Failed 24 h', 'failures', (task) => String(task.failures_day)],
  ['failing', 'Failing since', 'failing', (task) => moment(task.failing_since, 'short')],
];

/** The keys that a list can be sorted by, with their headings. */
export const kSortKeys = kColumns.map(([, heading, key]) => [key, heading]);

export class Grid {
  element;
  #settings;
  #pages;
  #total = -1;         // the number of tasks in the list; -1: not known
  #base = 0;           // the row at the top of the part that can be scrolled
  #rowHeight = 36;
  #active = 0;         // the row that the keyboard is on
  #shown = new Map();  // index to its element
  #body;
  #isWaiting = false;  // a change waits for a menu or a selection

  /** `settings`: open(task), changed(), sort(key), search(), position(key), stale(isStale), failed(error). */
  constructor(settings) {
    this.#settings = settings;
    this.#body = el('div', { role: 'rowgroup', class: 'rows' });
    this.element = el('div', { role: 'grid', class: 'grid', 'aria-label': 'Tasks', 'aria-rowcount': -1,
      onkeydown: (event) => this.#key(event), onscroll: () => this.#scrolled() },
      el('div', { role: 'rowgroup', class: 'heads' }, el('div', { role: 'row', class: 'row' },
        kColumns.map(([name, heading, key]) => this.#head(name, heading, key)),
        el('div', { role: 'columnheader', class: 'cell-menu' },
          el('span', { class: 'unseen' }, 'Actions')))),
      this.#body);
    new ResizeObserver(() => requestAnimationFrame(() => this.#measure())).observe(this.element);
  }

  #head(name, heading, key) {
    return el('div', { role: 'columnheader', class: `cell-${name}`, 'data-key': key },
      el('button', { type: 'button', onclick: () => this.#settings.sort(key) }, heading));
  }

  /** Shows another list from its beginning, or from the page after the key `start`. */
  load(query, start) {
    this.#pages?.close();
    this.#pages = new Pages(query, start);
    this.#total = -1;
    this.#base = 0;
    this.#active = 0;
    const [key, direction] = (query.get('sort') || 'id').split(',');
    for (const head of this.element.querySelectorAll('[role=columnheader][data-key]')) {
      head.setAttribute('aria-sort', head.dataset.key !== key ? 'none'
        : direction === 'desc' ? 'descending' : 'ascending');
    }
    this.element.setAttribute('aria-busy', 'true');
    return this.#read(0, 0).then(() => {
      this.element.scrollTop = 0;
      this.#clear();
      this.render();
      this.element.setAttribute('aria-busy', 'false');
    });
  }

  /** The number of tasks in the list, once the server has counted them. */
  set total(count) {
    this.#total = count;
    this.element.setAttribute('aria-rowcount', count < 0 ? -1 : count + 1);
  }

  get isEmpty() {
    return this.#pages.isComplete && this.#pages.length === 0;
  }

  async #read(first, last) {
    const pages = this.#pages;
    try {
      return await pages.need(first, last) && pages === this.#pages;
    } catch (error) {
      if (pages === this.#pages) {
        this.#settings.failed(error);
      }
      return false;
    }
  }

  #clear() {
    this.#shown.forEach((row) => row.remove());
    this.#shown.clear();
  }

  #measure() {
    const probe = el('div', { role: 'row', class: 'row task' });
    this.#body.append(probe);
    const height = probe.getBoundingClientRect().height;
    probe.remove();
    if (height && height !== this.#rowHeight) {
      this.element.scrollTop *= height / this.#rowHeight;
      this.#rowHeight = height;
    }
    if (this.#pages) {
      this.render();
    }
  }

  // The rows in view, as indexes of the whole list; `last` may lie behind its end.
  #view() {
    const top = Math.max(0, this.element.scrollTop);
    const first = this.#base + Math.floor(top / this.#rowHeight);
    return { first, last: first + Math.ceil(this.element.clientHeight / this.#rowHeight) };
  }

  #scrolled() {
    this.#rebase();
    this.render();
    const { first, last } = this.#view();
    this.#settings.position(first < kPageRows ? '' : this.#pages.keyOf(first));
    // One page ahead, so that a reader who scrolls steadily does not wait.
    this.#read(Math.max(0, first - kSpareRows), last + kPageRows).then((isNew) => isNew && this.render());
  }

  #rebase() {
    const row = Math.floor(this.element.scrollTop / this.#rowHeight);
    const shift = row > kReachRows * 0.9 ? kReachRows / 2 : row < kReachRows * 0.1 ? -kReachRows / 2 : 0;
    const base = Math.max(0, this.#base + shift);
    if (base !== this.#base) {
      const moved = base - this.#base;
      this.#base = base;
      this.#setHeight();
      this.element.scrollTop -= moved * this.#rowHeight;
    }
  }

  #setHeight() {
    const rows = Math.min(kReachRows, this.#pages.length - this.#base);
    this.#body.style.height = `${Math.max(0, rows) * this.#rowHeight}px`;
  }

  /** Makes, places and fills the rows in view, and removes the others. */
  render() {
    this.#setHeight();
    const view = this.#view();
    const first = Math.max(0, view.first - kSpareRows);
    const last = Math.min(this.#pages.length - 1, view.last + kSpareRows);
    for (const [index, row] of this.#shown) {
      // The row with the focus stays, so that the keyboard does not lose its place.
      if ((index < first || index > last) &&
          (index >= this.#pages.length || !row.contains(document.activeElement))) {
        row.remove();
        this.#shown.delete(index);
      }
    }
    this.#active = Math.min(this.#active, Math.max(0, this.#pages.length - 1));
    const isHeld = this.isHeld;
    for (let index = first; index <= last; ++index) {
      this.#place(index, isHeld);
    }
    this.#setTabStop(view);
  }

  #place(index, isHeld) {
    let row = this.#shown.get(index);
    const isNew = !row;
    if (isNew) {
      row = el('div', { role: 'row', class: 'row task', tabindex: -1, 'aria-rowindex': index + 2 },
        kColumns.map(([name]) => el('div', { role: 'gridcell', class: `cell-${name}` })),
        el('div', { role: 'gridcell', class: 'cell-menu' }));
      row.addEventListener('focusin', () => this.#activate(index));
      this.#shown.set(index, row);
      const next = [...this.#shown.keys()].filter((other) => other > index);
      this.#body.insertBefore(row, next.length ? this.#shown.get(Math.min(...next)) : null);
    }
    row.style.top = `${(index - this.#base) * this.#rowHeight}px`;
    if (isNew || !isHeld) {
      this.#fill(row, this.#pages.row(index));
    }
  }

  /** True while rows must not change: a menu or a dialog is open, or a text of the list is selected. */
  get isHeld() {
    return isMenuOpen() || document.querySelector('dialog[open]') !== null || hasSelection(this.#body);
  }

  #fill(row, task) {
    if (row.task === task) {
      return;
    }
    const before = row.task;
    row.task = task;
    row.classList.toggle('is-waiting', !task);
    kColumns.forEach(([, , , content], at) => {
      const cell = row.children[at];
      const nodes = task ? [content(task)].flat() : ['…'];
      const text = nodes.map((node) => node.textContent ?? node).join('');
      const isFocused = before && cell.contains(document.activeElement);
      if (before?.id !== task?.id || (cell.textContent !== text && !isFocused)) {
        cell.replaceChildren(...nodes);
      }
    });
    const menu = row.lastChild;
    if (task && mayChange() && !menu.firstChild) {
      menu.append(el('button', { type: 'button', tabindex: -1, class: 'more', 'aria-haspopup': 'menu',
        'aria-expanded': 'false', onclick: () => this.#openMenu(row) }, '⋯'));
    }
    menu.firstChild?.setAttribute('aria-label', `Actions for task ${task?.id}`);
  }

  #openMenu(row) {
    const task = row.task;
    showMenu(row.lastChild.firstChild, `Task ${task.id}`, actionsOf(task, this.#settings.changed),
      () => this.#release());
  }

  #release() {
    if (this.#isWaiting && !this.isHeld) {
      this.#isWaiting = false;
      this.render();
    }
  }

  #activate(index) {
    this.#active = index;
    this.#setTabStop();
  }

  // One row can be reached by Tab, and what is in it: the active one, or the first in view.
  #setTabStop(view = this.#view()) {
    const active = this.#shown.has(this.#active) ? this.#active : view.first;
    for (const [index, row] of this.#shown) {
      const stop = index === active ? 0 : -1;
      row.tabIndex = stop;
      row.querySelectorAll('a, button').forEach((inner) => { inner.tabIndex = stop; });
    }
  }

  #key(event) {
    if (!this.#body.contains(event.target) || event.ctrlKey || event.metaKey || event.altKey) {
      return;
    }
    const row = this.#shown.get(this.#active);
    const page = Math.max(1, Math.floor(this.element.clientHeight / this.#rowHeight) - 2);
    const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -Infinity,
      End: Infinity };
    if (event.key in steps) {
      this.#go(this.#active + steps[event.key]);
    } else if (event.key === 'Enter' && event.target === row && row.task) {
      this.#settings.open(row.task);
    } else if ((event.key === 'm' || event.key === 'ContextMenu') && row?.lastChild.firstChild) {
      this.#openMenu(row);
    } else if (event.key === '/') {
      this.#settings.search();
    } else {
      return;
    }
    event.preventDefault();
  }

  async #go(target) {
    const index = Math.max(0, target);
    if (index >= this.#pages.length && !this.#pages.isComplete) {
      await this.#read(this.#pages.length, this.#pages.length);
    }
    this.#active = Math.min(index, this.#pages.length - 1);
    this.#reveal(this.#active);
    this.#shown.get(this.#active)?.focus({ preventScroll: true });
  }

  #reveal(index) {
    if (index < this.#base || index >= this.#base + kReachRows) {
      this.#base = Math.max(0, index - kReachRows / 2);
    }
    this.#setHeight();
    const top = (index - this.#base) * this.#rowHeight;
    const room = this.element.clientHeight - this.#rowHeight - this.element.firstChild.offsetHeight;
    if (top < this.element.scrollTop) {
      this.element.scrollTop = top;
    } else if (top > this.element.scrollTop + room) {
      this.element.scrollTop = top - room;
    }
    this.render();
  }

  /** True when one of the tasks is in view. */
  shows(ids) {
    const wanted = new Set(ids);
    return [...this.#shown.values()].some((row) => wanted.has(row.task?.id));
  }

  /** Reads the rows in view again; their order changes only while the reader does not use the list. */
  async refresh(mayMove = () => this.#isIdle) {
    const pages = this.#pages;
    const { first, last } = this.#view();
    const isStale = await pages.refresh(first, Math.min(last, Math.max(0, pages.length - 1)), mayMove);
    if (pages !== this.#pages) {
      return;
    }
    this.#settings.stale(isStale);
    this.#isWaiting = this.isHeld;
    this.render();
    if (this.#isWaiting) {
      whenUnselected(this.#body, () => this.#release());
    }
  }

  get #isIdle() {
    return !this.isHeld && !this.#body.matches(':hover') && !this.#body.contains(document.activeElement);
  }

  close() {
    this.#pages?.close();
  }
}
