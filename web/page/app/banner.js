/** The red banner: what has been silent for five seconds, and since when. */

import { el } from './dom.js';
import { contact } from './stream.js';
import { moment } from './time.js';

const kSilentMilliseconds = 5000;
const kTexts = {
  server: 'The console has had no answer since ',
  database: 'The database has not answered since ',
  daemon: 'The daemon has given no sign since ',
};
const kAdvice = {
  server: '. What you see is from then. Check koduweb and the network.',
  database: '. What you see is from then. Check PostgreSQL.',
  daemon: '. No task runs until it is back. Check koducron.service.',
};

let shown = '';
let timer = null;

/** What is silent and since when, or null. The server first: without it nothing is known of the others. */
function silence() {
  if (Date.now() - contact.last >= kSilentMilliseconds) {
    return { what: 'server', since: new Date(contact.last).toISOString() };
  }
  return contact.silent && { what: contact.silent.what ?? 'daemon', since: contact.silent.since };
}

// The element's text is set only when something changes, since each change of it is announced.
function show() {
  const silent = silence();
  const key = silent ? `${silent.what} ${silent.since}` : '';
  if (key === shown) {
    return;
  }
  shown = key;
  const banner = document.getElementById('banner');
  const since = silent?.since ? moment(silent.since) : 'its start';
  banner.replaceChildren(...(silent
    ? [el('strong', {}, '⚠ '), kTexts[silent.what] ?? kTexts.daemon, since, kAdvice[silent.what] ?? '.']
    : []));
}

/** Watches from now on. */
export function watch() {
  timer ??= setInterval(show, 250);
}

/** Hides the banner and stops watching. */
export function unwatch() {
  clearInterval(timer);
  timer = null;
  shown = '';
  document.getElementById('banner').replaceChildren();
}
