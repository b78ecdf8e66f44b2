/**
 * Elements made by code, with texts as text nodes. No module of this page takes markup, so a task's name or
 * output cannot become an element.
 */

const kSvg = 'http://www.w3.org/2000/svg';

/**
 * Makes an element. A function as an attribute "onclick" becomes a listener; true is an attribute without
 * a value; null, undefined and false leave it out. A child may be a node, a text, or null for none.
 */
export function el(tag, attributes = {}, ...children) {
  return filled(document.createElement(tag), attributes, children);
}

/** The same in the namespace of SVG. */
export function svg(tag, attributes = {}, ...children) {
  return filled(document.createElementNS(kSvg, tag), attributes, children);
}

function filled(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === 'function') {
      element.addEventListener(name.slice(2), value);
    } else if (value !== null && value !== undefined && value !== false) {
      element.setAttribute(name, value === true ? '' : String(value));
    }
  }
  element.append(...children.flat().filter((child) => child !== null && child !== undefined));
  return element;
}

// Control characters, marks and overrides of the writing direction, line separators, characters without a
// width, tags, and halves of surrogate pairs: all that would change how the text around them is shown.
const kHidden = new RegExp('[\\p{Cc}\\u00ad\\u034f\\u061c\\u115f\\u1160\\u17b4\\u17b5\\u180b-\\u180f' +
  '\\u200b-\\u200f\\u2028-\\u202e\\u2060-\\u206f\\u3164\\ufeff\\uffa0\\ufff9-\\ufffb' +
  '\\u{e0000}-\\u{e0fff}\\p{Cs}]', 'gu');

/** The text with a visible \u{...} for each character that is not seen. Keeps line ends and tabs if asked. */
export function escaped(text, keepsLines = false) {
  return String(text).replace(kHidden, (character) =>
    keepsLines && (character === '\n' || character === '\t')
      ? character
      : `\\u{${character.codePointAt(0).toString(16)}}`);
}

/** A text that came from the database or a plugin, isolated from the writing direction around it. */
export function data(text) {
  return el('bdi', {}, escaped(text ?? ''));
}

/** True when a part of the element is selected, so that its text must stay. */
export function hasSelection(element) {
  const selection = document.getSelection();
  return selection !== null && !selection.isCollapsed && selection.rangeCount > 0 &&
    selection.getRangeAt(0).intersectsNode(element);
}

/** Calls `action` once no part of the element is selected: at once, or when the selection is given up. */
export function whenUnselected(element, action) {
  if (!hasSelection(element)) {
    action();
    return;
  }
  const look = () => {
    if (!hasSelection(element)) {
      document.removeEventListener('selectionchange', look);
      action();
    }
  };
  document.addEventListener('selectionchange', look);
}

/** Says a sentence in the page's status line, which screen readers announce. */
export function announce(text) {
  document.getElementById('notice').textContent = escaped(text);
}
