/** A menu of actions below a button: arrow keys move, Escape or a click elsewhere closes it. */

import { el } from './dom.js';

let open = null;  // { element, anchor, closed }

/** True while a menu is shown: what it belongs to must not change. */
export function isMenuOpen() {
  return open !== null;
}

/** Shows `items`, pairs of a text and a function, below `anchor`; calls `closed` at the end. */
export function showMenu(anchor, label, items, closed) {
  closeMenu();
  const element = el('div', { role: 'menu', class: 'menu', 'aria-label': label, popover: 'auto',
    onkeydown: move, ontoggle: (event) => event.newState === 'closed' && closeMenu() },
    items.map(([text, action]) => el('button', { role: 'menuitem', type: 'button', tabindex: -1,
      onclick: () => {
        closeMenu();
        action();
      } }, text)));
  document.getElementById('main').append(element);
  open = { element, anchor, closed };
  anchor.setAttribute('aria-expanded', 'true');
  element.showPopover();
  place(element, anchor.getBoundingClientRect());
  element.firstChild.focus();
}

function place(element, anchor) {
  const { width, height } = element.getBoundingClientRect();
  const top = anchor.bottom + height > innerHeight ? anchor.top - height : anchor.bottom;
  element.style.top = `${Math.max(0, top)}px`;
  element.style.left = `${Math.max(4, Math.min(anchor.right - width, innerWidth - width - 4))}px`;
}

/** Closes the menu, if one is open, and returns the focus to its button. */
export function closeMenu() {
  if (!open) {
    return;
  }
  const { element, anchor, closed } = open;
  open = null;
  const hadFocus = element.contains(document.activeElement) || document.activeElement === document.body;
  element.remove();
  anchor.setAttribute('aria-expanded', 'false');
  if (hadFocus) {
    anchor.focus();
  }
  closed?.();
}

const kSteps = { ArrowDown: 1, ArrowUp: -1 };

function move(event) {
  const items = [...event.currentTarget.children];
  const at = items.indexOf(document.activeElement);
  if (event.key in kSteps) {
    items.at((at + kSteps[event.key]) % items.length).focus();
  } else if (event.key === 'Home' || event.key === 'End') {
    items.at(event.key === 'Home' ? 0 : -1).focus();
  } else if (event.key === 'Escape' || event.key === 'Tab') {
    closeMenu();
  } else {
    return;
  }
  event.preventDefault();
  event.stopPropagation();
}
