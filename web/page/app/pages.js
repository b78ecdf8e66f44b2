/**
 * A list of tasks in pages, each found by the key of the last task of the page before it. A page of the middle
 * costs the server as little as the first one. Only some pages are kept, so a million rows take the browser
 * no more memory than a thousand.
 */

import { get } from './api.js';

export const kPageRows = 200;
const kKeptPages = 12;

export class Pages {
  #query;
  #keys;             // the key before each page that is known; [0] is where the list begins
  #rows = new Map();  // page number to its rows; the page used last stands last
  #reads = new Map();  // page number to the promise of its rows
  #end = Infinity;   // the number of rows once the last page has been read
  #abort = new AbortController();

  /** `query`: conditions and order; `start`: the key of a page, or "" for the beginning. */
  constructor(query, start) {
    this.#query = query;
    this.#keys = [start];
  }

  /** The number of rows known so far, and whether it is the whole list. */
  get length() {
    return this.isComplete ? this.#end : (this.#keys.length - 1) * kPageRows;
  }
  get isComplete() {
    return this.#end !== Infinity;
  }

  /** The key before the page of a row, for a URL that leads back to it. */
  keyOf(index) {
    return this.#keys[Math.floor(index / kPageRows)] ?? '';
  }

  /** A row, or undefined when its page is not kept. */
  row(index) {
    return this.#rows.get(Math.floor(index / kPageRows))?.[index % kPageRows];
  }

  /** Reads what is missing of the pages of these rows. Resolves to true when something was read. */
  async need(first, last) {
    let isNew = false;
    for (const page of this.#pagesOf(first, last)) {
      const rows = this.#rows.get(page);
      if (rows) {
        this.#keep(page, rows);
      } else {
        await this.#read(page);
        isNew = true;
      }
    }
    return isNew;
  }

  #pagesOf(first, last) {
    const pages = [];
    for (let page = Math.floor(first / kPageRows); page <= Math.floor(last / kPageRows); ++page) {
      if (page >= 0 && page * kPageRows < this.#end) {
        pages.push(page);
      }
    }
    return pages.filter((page) => page < this.#keys.length);
  }

  #read(page) {
    if (!this.#reads.has(page)) {
      this.#reads.set(page, this.#fetch(page)
        .then((answer) => this.#store(page, answer))
        .finally(() => this.#reads.delete(page)));
    }
    return this.#reads.get(page);
  }

  #fetch(page) {
    const query = new URLSearchParams(this.#query);
    query.set('limit', kPageRows);
    if (this.#keys[page]) {
      query.set('after', this.#keys[page]);
    }
    return get(`tasks?${query}`, this.#abort.signal);
  }

  // A different key after this page means that the pages behind it begin elsewhere now.
  #store(page, { tasks, next }) {
    this.#keep(page, tasks);
    if (this.#keys[page + 1] !== (next ?? undefined)) {
      this.#keys.length = page + 1;
      [...this.#rows.keys()].filter((other) => other > page).forEach((other) => this.#rows.delete(other));
    }
    if (next === null) {
      this.#end = page * kPageRows + tasks.length;
    } else {
      this.#end = Infinity;
      this.#keys[page + 1] = next;
    }
  }

  #keep(page, rows) {
    this.#rows.delete(page);
    this.#rows.set(page, rows);
    if (this.#rows.size > kKeptPages) {
      this.#rows.delete(this.#rows.keys().next().value);
    }
  }

  /**
   * Reads the pages of these rows again. With `mayMove`, rows take their new places. Otherwise each row keeps
   * its place and gets its new values; `moved` marks those that would now stand elsewhere. Resolves to true
   * when the order has changed and was kept.
   */
  async refresh(first, last, mayMove) {
    const answers = [];
    for (const page of this.#pagesOf(first, last)) {
      answers.push([page, await this.#fetch(page)]);
    }
    const isSame = answers.every(([page, { tasks }]) => {
      const old = this.#rows.get(page) ?? [];
      return old.length === tasks.length && old.every((row, at) => row.id === tasks[at].id);
    });
    if (isSame || mayMove()) {
      answers.forEach(([page, answer]) => page < this.#keys.length && this.#store(page, answer));
      return false;
    }
    const fresh = new Map(answers.flatMap(([, { tasks }]) => tasks.map((row) => [row.id, row])));
    for (const [page] of answers) {
      this.#rows.get(page)?.forEach((row, at, rows) => {
        rows[at] = fresh.get(row.id) ?? { ...row, moved: true };
      });
    }
    return true;
  }

  /** Ends the requests in progress. */
  close() {
    this.#abort.abort();
  }
}
