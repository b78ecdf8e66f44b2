/** Performance data of the plugin convention: "text | label=value[unit];warning;critical;minimum;maximum ...". */

import { data, el } from './dom.js';

const kItem = /(?:'((?:[^']|'')+)'|([^\s'=]+))=(-?[\d.]+(?:e[-+]?\d+)?)([^\s;\d]*)((?:;[^\s;]*)*)/giu;
const kMostItems = 50;

/** The figures behind the first "|" of an output. */
export function performanceOf(output) {
  const text = output.split('|', 2)[1]?.slice(0, 20000) ?? '';
  return [...text.matchAll(kItem)].slice(0, kMostItems).map(([, quoted, plain, value, unit, rest]) => {
    const [, warning = '', critical = '', minimum = '', maximum = ''] = rest.split(';');
    return { label: quoted ?? plain, value: Number(value), unit, warning, critical,
      minimum: bound(minimum), maximum: bound(maximum) };
  }).filter(({ value }) => Number.isFinite(value));
}

function bound(text) {
  return text === '' || Number.isNaN(Number(text)) ? null : Number(text);
}

/** True when a range such as "10", "10:", "~:10" or "@10:20" says that the value is to be reported. */
export function isOutside(range, value) {
  const parts = /^(@?)(?:(~|-?[\d.]+)?:)?(-?[\d.]+)?$/.exec(range);
  if (!parts || range === '') {
    return false;
  }
  const low = parts[2] === '~' ? -Infinity : Number(parts[2] ?? 0);
  const high = parts[3] === undefined ? Infinity : Number(parts[3]);
  const isBetween = value >= low && value <= high;
  return parts[1] ? isBetween : !isBetween;
}

function verdict({ value, warning, critical }) {
  return isOutside(critical, value) ? '✗ critical' : isOutside(warning, value) ? '⚠ warning' : '✓ ok';
}

/** The number at which a range ends, for the scale of a gauge. */
function limit(range) {
  const number = Number(range.replace('@', '').split(':').at(-1));
  return range !== '' && Number.isFinite(number) ? number : null;
}

function gauge(item) {
  const ends = [limit(item.warning), limit(item.critical)].filter((end) => end !== null);
  const low = item.minimum ?? Math.min(0, item.value);
  const high = item.maximum ?? (item.unit === '%' ? 100 : Math.max(item.value, ...ends) * 1.1);
  if (!(high > low)) {
    return '';
  }
  const element = el('meter', { min: low, max: high, value: item.value, 'aria-label': 'value within its range' });
  if (ends.length === 2 && ends[0] < ends[1]) {
    element.low = ends[0];
    element.high = ends[1];
    element.optimum = low;
  }
  return element;
}

/** A table of the figures with their thresholds; null when the output has none. */
export function gauges(output) {
  const items = performanceOf(output);
  if (!items.length) {
    return null;
  }
  const head = ['Figure', 'Value', 'Verdict', 'Gauge', 'Warning', 'Critical'];
  return el('table', {}, el('caption', {}, 'Figures of the latest output'),
    el('thead', {}, el('tr', {}, head.map((text) => el('th', { scope: 'col' }, text)))),
    el('tbody', {}, items.map((item) => el('tr', {}, el('td', {}, data(item.label)),
      el('td', {}, `${item.value} `, data(item.unit)), el('td', {}, verdict(item)), el('td', {}, gauge(item)),
      el('td', {}, data(item.warning || '-')), el('td', {}, data(item.critical || '-'))))));
}
