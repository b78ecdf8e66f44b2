/** Times, always with their zone: the browser's, or UTC after a switch that is kept for the next visit. */

import { el } from './dom.js';

const kKey = 'kodu-zone';
let isUtc = localStorage.getItem(kKey) === 'UTC';
const formats = new Map();

const kFields = { year: 'numeric', month: '2-digit', day: '2-digit', hour: '2-digit', minute: '2-digit',
  second: '2-digit', hourCycle: 'h23', timeZoneName: 'short' };

function format() {
  if (!formats.has(isUtc)) {
    formats.set(isUtc, new Intl.DateTimeFormat('en-GB', isUtc ? { ...kFields, timeZone: 'UTC' } : kFields));
  }
  return formats.get(isUtc);
}

function partsOf(date) {
  const parts = Object.fromEntries(format().formatToParts(date).map((part) => [part.type, part.value]));
  return { day: `${parts.year}-${parts.month}-${parts.day}`, zone: parts.timeZoneName,
    minute: `${parts.hour}:${parts.minute}`, second: parts.second };
}

/** True when times are shown in UTC because the reader asked for it. */
export function showsUtc() {
  return isUtc;
}

/** "CET": the zone in which a time of now is shown. */
export function zoneName() {
  return partsOf(new Date()).zone;
}

/** The text of a time: "14:03:05 CET" today, "2026-11-21 14:03:05 CET" on other days. */
export function timeText(time) {
  const date = new Date(time);
  if (Number.isNaN(date.getTime())) {
    return '-';
  }
  const { day, minute, second, zone } = partsOf(date);
  return `${day === partsOf(new Date()).day ? '' : `${day} `}${minute}:${second} ${zone}`;
}

/** A time for a narrow column: "14:03:05 CET" today, "11-21 14:03 CET" on another day, "2025-11-21 CET". */
function shortText(time) {
  const { day, minute, second, zone } = partsOf(new Date(time));
  const today = partsOf(new Date()).day;
  if (day === today) {
    return `${minute}:${second} ${zone}`;
  }
  return day.slice(0, 4) === today.slice(0, 4) ? `${day.slice(5)} ${minute} ${zone}` : `${day} ${zone}`;
}

/** "14:03" for an axis, whose caption names the zone. */
export function minuteText(time) {
  return partsOf(new Date(time)).minute;
}

const kTexts = { time: timeText, short: shortText, minute: minuteText };

/** An element with a time, which the switch of the zone changes; "-" for null. `form`: "time" or "short". */
export function moment(time, form = 'time') {
  return time ? el('time', { datetime: time, 'data-time': time, 'data-form': form }, kTexts[form](time)) : '-';
}

/** Switches between the browser's zone and UTC, and changes every time on the page. */
export function switchZone() {
  isUtc = !isUtc;
  localStorage.setItem(kKey, isUtc ? 'UTC' : 'browser');
  for (const element of document.querySelectorAll('[data-time]')) {
    element.textContent = kTexts[element.dataset.form](element.dataset.time);
  }
  for (const element of document.querySelectorAll('[data-zone]')) {
    element.textContent = zoneName();
  }
}

/** A name of the zone that follows the switch. */
export function zone() {
  return el('span', { 'data-zone': '' }, zoneName());
}

/** The sentence's parts, with a time element for each "2026-11-21 14:03:05 UTC" in it. */
export function withTimes(sentence, text) {
  return sentence.split(/(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} UTC)/).map((part, index) =>
    index % 2 ? moment(part.replace(' UTC', 'Z').replace(' ', 'T')) : text(part));
}

const kUnits = [['d', 86400], ['h', 3600], ['m', 60], ['s', 1]];

/** "5m", "1h30m", "2d3h": the two largest units of a number of seconds; "-" for null. */
export function duration(seconds) {
  if (seconds === null || seconds === undefined) {
    return '-';
  }
  let rest = Math.round(seconds);
  const first = kUnits.findIndex(([, size]) => rest >= size);
  return first < 0 ? '0s' : kUnits.slice(first, first + 2).map(([unit, size]) => {
    const count = Math.floor(rest / size);
    rest -= count * size;
    return count ? `${count}${unit}` : '';
  }).join('');
}
