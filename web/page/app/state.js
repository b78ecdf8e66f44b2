/** The state of a task as one word with a symbol, so that no meaning hangs on a colour. */

import { el } from './dom.js';

const kStates = {
  deleting: '⌫',
  paused: '‖',
  running: '▶',
  failed: '✗',
  retrying: '↻',
  'never ran': '○',
  ok: '✓',
};

/** The word for a task's state: the most urgent that applies. */
export function stateOf(task) {
  if (task.deleted) {
    return 'deleting';
  }
  if (task.running) {
    return 'running';
  }
  if (task.paused) {
    return 'paused';
  }
  if (task.status === 'PROCESS') {
    return task.retry_due ? 'retrying' : 'running';
  }
  if (task.status === 'FAILED') {
    return 'failed';
  }
  return task.status === null ? 'never ran' : 'ok';
}

/** A badge for a state. */
export function badge(state) {
  return el('span', { class: `state state-${state.replace(' ', '-')}` },
    el('span', { 'aria-hidden': 'true' }, `${kStates[state] ?? '·'} `), state);
}
