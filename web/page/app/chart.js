/** Small charts as SVG, each with a caption that says what it shows and a table of the same values. */

import { el, svg } from './dom.js';
import { minuteText, moment, zone } from './time.js';

const kHeight = 150;
const kMargin = { left: 52, right: 8, top: 14, bottom: 22 };
let charts = 0;

/**
 * `points`: objects with `at` (a time) and `value`, in the order of time; a value of null is left out.
 * `kind`: "bars" or "dots"; `format`: the text of a value; `marks`: class of a point, or "".
 */
export function chart({ title, points, kind = 'bars', format = String, marks = () => '' }) {
  const known = points.filter((point) => point.value !== null && point.value !== undefined);
  const id = `chart-${++charts}`;
  const caption = el('figcaption', { id }, title, known.length ? summary(known, format) : ': no data yet');
  const figure = el('figure', { class: 'chart' }, caption);
  if (!known.length) {
    return figure;
  }
  const room = el('div', { class: 'drawing' });
  let drawn = 0;
  const draw = () => {
    const width = Math.round(room.clientWidth);
    if (width && width !== drawn) {
      drawn = width;
      room.replaceChildren(drawing({ id, points, known, kind, format, marks, width }));
    }
  };
  // In the next frame: what is drawn changes sizes, which an observer must not do.
  new ResizeObserver(() => requestAnimationFrame(draw)).observe(room);
  figure.append(room, table(title, known, format));
  return figure;
}

function summary(points, format) {
  const top = points.reduce((best, point) => point.value > best.value ? point : best);
  if (top.value === 0) {
    return [': none. Times on the axis are in ', zone(), '.'];
  }
  return [': highest ', format(top.value), ' at ', moment(top.at), '. Times on the axis are in ', zone(), '.'];
}

function table(title, points, format) {
  return el('details', {}, el('summary', {}, 'As a table', el('span', { class: 'unseen' }, `: ${title}`)),
    el('div', { class: 'scroll', tabindex: 0, role: 'region', 'aria-label': `Table: ${title}` },
      el('table', {}, el('thead', {}, el('tr', {}, el('th', { scope: 'col' }, 'Time'),
        el('th', { scope: 'col' }, 'Value'))),
      el('tbody', {}, points.map((point) => el('tr', {}, el('td', {}, moment(point.at)),
        el('td', {}, format(point.value))))))));
}

function drawing({ id, points, known, kind, format, marks, width }) {
  const first = Date.parse(points[0].at);
  const last = Date.parse(points.at(-1).at);
  const step = points.length > 1 ? (last - first) / (points.length - 1) : 1;
  const span = Math.max(1, last - first + (kind === 'bars' ? step : 0));
  const top = Math.max(...known.map((point) => point.value), 0) || 1;
  const room = { width: width - kMargin.left - kMargin.right, height: kHeight - kMargin.top - kMargin.bottom };
  const x = (at) => kMargin.left + (Date.parse(at) - first) / span * room.width;
  const y = (value) => kMargin.top + (1 - value / top) * room.height;
  const wide = Math.max(1, room.width * step / span - 1);
  return svg('svg', { width, height: kHeight, role: 'img', 'aria-labelledby': id },
    axis(top, format, y, width), hours(points, x, width),
    known.map((point) => kind === 'bars'
      ? svg('rect', { x: x(point.at), y: y(point.value), width: wide,
        height: kHeight - kMargin.bottom - y(point.value), class: `bar ${marks(point)}` })
      : mark(x(point.at), y(point.value), marks(point))));
}

// A cross for a failure, a point for the rest: told apart without their colours.
function mark(x, y, name) {
  return name === 'failed'
    ? svg('path', { d: `M${x - 3} ${y - 3}l6 6m0-6l-6 6`, class: 'dot failed' })
    : svg('circle', { cx: x, cy: y, r: 2.5, class: `dot ${name}` });
}

function axis(top, format, y, width) {
  return [0, top / 2, top].map((value) => svg('g', {},
    svg('line', { x1: kMargin.left, x2: width - kMargin.right, y1: y(value), y2: y(value), class: 'rule' }),
    svg('text', { x: kMargin.left - 6, y: y(value) + 4, 'text-anchor': 'end' }, format(value))));
}

function hours(points, x, width) {
  const every = Math.ceil(points.length / Math.max(2, Math.floor(width / 90)));
  return points.filter((_, index) => index % every === 0 && x(points[index].at) < width - 40).map((point) =>
    svg('text', { x: x(point.at), y: kHeight - 6, 'data-time': point.at, 'data-form': 'minute' },
      minuteText(point.at)));
}
