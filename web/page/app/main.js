/** The page's start: the session, the header, and the view that the address names. */

import { events, logout, resume, session } from './api.js';
import { unwatch, watch } from './banner.js';
import { announce, data, el } from './dom.js';
import { LoginView } from './login.js';
import { closeMenu } from './menu.js';
import { OverviewView } from './overview.js';
import { go, place, router } from './router.js';
import { end, start } from './stream.js';
import { TaskView } from './task.js';
import { TasksView } from './tasks.js';
import { showsUtc, switchZone, zone } from './time.js';

const main = document.getElementById('main');
const kRetryMilliseconds = 2000;

let view = null;
let path = null;

/** Replaces the view. The focus moves to its heading, except when the page has just been opened. */
function show(make, isFirst) {
  view?.close();
  closeMenu();
  document.querySelectorAll('dialog').forEach((dialog) => dialog.close());
  announce('');
  main.className = '';
  main.replaceChildren();
  view = make();
  document.title = `${view.title} · koducron`;
  if (!isFirst) {
    main.querySelector('h1')?.focus();
  }
}

function viewOf(name, params) {
  const task = /^\/tasks\/(\d{1,10})$/.exec(name);
  if (task) {
    return new TaskView(main, Number(task[1]));
  }
  return name === '/tasks' ? new TasksView(main, params) : new OverviewView(main);
}

function route() {
  const { path: name, params } = place();
  const isFirst = path === null;
  if (!session || name === '/login') {
    path = '/login';
    show(() => new LoginView(main, enter), isFirst);
  } else if (name === path && view?.update) {
    view.update(params);
  } else if (name !== path) {
    path = name;
    show(() => viewOf(name, params), isFirst);
  }
  header();
}

function header() {
  const link = (address, text, isCurrent) => el('li', {},
    el('a', { href: `#${address}`, 'aria-current': isCurrent ? 'page' : null }, text));
  document.getElementById('header').replaceChildren(
    el('a', { href: '#/', class: 'brand' }, 'koducron'),
    session && path !== '/login' ? el('nav', { 'aria-label': 'Views' }, el('ul', {},
      link('/', 'Overview', path === '/'), link('/tasks', 'Tasks', path.startsWith('/tasks')))) : '',
    el('div', { class: 'person' }, zoneSwitch(), ...person()));
}

function zoneSwitch() {
  return el('button', { type: 'button', role: 'switch', id: 'utc', 'aria-checked': String(showsUtc()),
    onclick: (event) => {
      switchZone();
      event.currentTarget.setAttribute('aria-checked', String(showsUtc()));
    } }, 'UTC', el('span', { class: 'knob', 'aria-hidden': 'true' }),
  el('span', { class: 'unseen' }, '. Times are in '), el('small', {}, ' now ', zone()));
}

function person() {
  if (!session || path === '/login') {
    return [];
  }
  return session.anonymous
    ? [el('a', { href: '#/login' }, 'Log in')]
    : [data(session.role), el('button', { type: 'button', onclick: leave }, 'Log out')];
}

async function leave() {
  try {
    await logout();
  } catch (error) {
    announce(error.message);
  }
}

/** Begins a session after a login, at the address that was asked for. */
function enter() {
  start();
  watch();
  if (place().path === '/login') {
    go('/', {}, true);
  } else {
    path = '';
    route();
  }
}

events.addEventListener('logout', () => {
  end();
  unwatch();
  route();
});
router.addEventListener('go', route);
// Not as a link's own: its address would replace that of the view.
document.querySelector('.skip').addEventListener('click', (event) => {
  event.preventDefault();
  main.focus();
});

/** Reads the session; tries again until the server answers. */
async function open() {
  try {
    if (await resume()) {
      start();
      watch();
    }
    route();
  } catch (error) {
    main.replaceChildren(el('h1', {}, 'koducron'), el('p', { role: 'alert' }, error.message));
    setTimeout(open, kRetryMilliseconds);
  }
}

open();
