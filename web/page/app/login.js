/** The login: a role of the database with its password. */

import { login } from './api.js';
import { el } from './dom.js';

export class LoginView {
  title = 'Log in';

  /** Calls `done` after a login. */
  constructor(container, done) {
    const role = el('input', { id: 'role', name: 'username', autocomplete: 'username', required: true,
      autocapitalize: 'none', spellcheck: 'false' });
    const password = el('input', { id: 'password', name: 'password', type: 'password', required: true,
      autocomplete: 'current-password' });
    const failure = el('p', { role: 'alert', class: 'failure' });
    const button = el('button', { type: 'submit', class: 'primary' }, 'Log in');
    const submit = async (event) => {
      event.preventDefault();
      failure.textContent = '';
      button.disabled = true;
      try {
        await login(role.value, password.value);
        done();
      } catch (error) {
        failure.textContent = error.message;
        button.disabled = false;
        password.select();
      }
    };
    container.append(el('h1', { tabindex: -1 }, 'Log in'),
      el('form', { class: 'login', onsubmit: submit },
        el('p', {}, el('label', { for: 'role' }, 'Role of the database'), role),
        el('p', {}, el('label', { for: 'password' }, 'Password'), password),
        failure, el('p', {}, button)));
  }

  close() {}
}
