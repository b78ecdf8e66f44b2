/**
 * Live changes. One tab of the browser holds the stream and passes every event on to the others; when it is
 * closed, the next tab takes over. A browser that offers no locks, because the page came without TLS from
 * another machine, has a stream for each tab.
 */

import { resume } from './api.js';

const kTypes = ['alive', 'ok', 'silent', 'tasks', 'totals'];
const kName = 'kodu-stream';
const kRetryMilliseconds = 2000;

/**
 * Receives each event of the stream as a CustomEvent of its type, with its data as `detail`. "open" says that
 * the stream has begun: what happened before it was missed.
 */
export const stream = new EventTarget();

/** What the banner needs: when the last event came, and what the server calls silent, if anything. */
export const contact = { last: Date.now(), silent: null };

let channel = null;
let source = null;
let release = null;  // ends this tab's turn or its wait for it

function receive({ type, detail }) {
  contact.last = Date.now();
  if (type === 'silent' || type === 'ok') {
    contact.silent = type === 'silent' ? detail : null;
  }
  stream.dispatchEvent(new CustomEvent(type, { detail }));
}

function pass(message) {
  receive(message);
  channel.postMessage(message);
}

function open() {
  source = new EventSource('/api/v1/stream');
  for (const type of kTypes) {
    source.addEventListener(type, (event) =>
      pass({ type, detail: event.data ? JSON.parse(event.data) : null }));
  }
  source.addEventListener('open', () => pass({ type: 'open', detail: null }));
  source.addEventListener('error', reopenIfClosed);
}

// A lost connection is opened again by the browser. A refusal is not: the session may have ended.
async function reopenIfClosed() {
  if (source?.readyState !== EventSource.CLOSED) {
    return;
  }
  const refused = source;
  const isOver = await resume().then((session) => session === null, () => false);
  setTimeout(() => {
    if (source === refused && !isOver) {
      open();
    }
  }, kRetryMilliseconds);
}

// A tab that joins has missed the events that say what is silent.
function hear({ data }) {
  if (data.type === 'logout') {
    resume().catch(() => {});
  } else if (data.type !== 'hello') {
    receive(data);
  } else if (source && contact.silent) {
    channel.postMessage({ type: 'silent', detail: contact.silent });
  }
}

/** Begins to receive; call it once the person is logged in. */
export function start() {
  stop();
  contact.last = Date.now();
  contact.silent = null;
  channel = new BroadcastChannel(kName);
  channel.addEventListener('message', hear);
  channel.postMessage({ type: 'hello' });
  if (!navigator.locks) {
    open();
    return;
  }
  const wait = new AbortController();
  release = () => wait.abort();
  navigator.locks.request(kName, { signal: wait.signal }, () => new Promise((end) => {
    release = end;
    open();
  })).catch(() => {});
}

/** Ends the stream of this tab after a logout, and lets the other tabs find that they are logged out. */
export function end() {
  channel?.postMessage({ type: 'logout' });
  stop();
}

function stop() {
  source?.close();
  source = null;
  channel?.close();
  channel = null;
  release?.();
  release = null;
}
