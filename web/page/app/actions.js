/** What a person can do with a task: pause it with an end and a reason, resume it, run it now. */

import { post } from './api.js';
import { announce, data, el } from './dom.js';
import { showsUtc, zoneName } from './time.js';

const kPeriods = [['1h', '1 hour'], ['4h', '4 hours'], ['1d', '1 day'], ['7d', '7 days'],
  ['time', 'Until a time'], ['', 'Until someone resumes it']];

/** The words of the menu for a task, each with what it does. `done` is called after a change. */
export function actionsOf(task, done) {
  return [
    ['Run now', () => runNow(task).then(done, done)],
    task.paused
      ? ['Resume', () => resume(task).then(done, done)]
      : ['Pause…', () => pause(task).then((isPaused) => isPaused && done())],
  ];
}

/** Asks the daemon to run the task now. Says in the status line what came of it. True when accepted. */
export function runNow(task) {
  return change(task, 'run', {}, `Task ${task.id}: run requested.`);
}

/** Ends the task's pause. True when accepted. */
export function resume(task) {
  return change(task, 'resume', {}, `Task ${task.id} is resumed.`);
}

async function change(task, verb, body, success) {
  try {
    await post(`tasks/${task.id}/${verb}`, body);
    announce(success);
    return true;
  } catch (error) {
    announce(`Task ${task.id}: ${error.message}`);
    return false;
  }
}

/** Asks for an end and a reason, and pauses the task. Resolves to true when it is paused. */
export function pause(task) {
  return new Promise((resolve) => {
    const dialog = pauseDialog(task);
    dialog.addEventListener('close', () => {
      dialog.remove();
      resolve(dialog.returnValue === 'paused');
    });
    document.body.append(dialog);
    dialog.showModal();
  });
}

function pauseDialog(task) {
  const period = el('select', { id: 'pause-period', onchange: () => showTime() },
    kPeriods.map(([value, text]) => el('option', { value }, text)));
  const time = el('input', { id: 'pause-time', type: 'datetime-local' });
  const timeField = el('p', { hidden: true },
    el('label', { for: 'pause-time' }, `Until (${zoneName()})`), time);
  const reason = el('input', { id: 'pause-reason', type: 'text', maxlength: 1000, autocomplete: 'off' });
  const failure = el('p', { role: 'alert', class: 'failure' });
  const showTime = () => {
    timeField.hidden = period.value !== 'time';
    time.required = !timeField.hidden;
  };
  const submit = async (event) => {
    event.preventDefault();
    failure.textContent = '';
    try {
      await post(`tasks/${task.id}/pause`, { until: untilOf(period.value, time.value), reason: reason.value });
      announce(`Task ${task.id} is paused.`);
      dialog.close('paused');
    } catch (error) {
      failure.textContent = error.message;
    }
  };
  const dialog = el('dialog', { 'aria-labelledby': 'pause-title' },
    el('form', { onsubmit: submit },
      el('h2', { id: 'pause-title' }, `Pause task ${task.id}`), el('p', {}, data(task.name)),
      el('p', {}, el('label', { for: 'pause-period' }, 'For'), period), timeField,
      el('p', {}, el('label', { for: 'pause-reason' }, 'Reason, for those who see the pause'), reason),
      failure,
      el('p', { class: 'buttons' }, el('button', { type: 'submit', class: 'primary' }, 'Pause'),
        el('button', { type: 'button', onclick: () => dialog.close() }, 'Cancel'))));
  return dialog;
}

// An interval is counted by the server's clock, which may differ from the browser's.
function untilOf(period, time) {
  if (period !== 'time') {
    return period || null;
  }
  return new Date(showsUtc() ? `${time}Z` : time).toISOString().replace(/\.\d+Z$/, 'Z');
}
