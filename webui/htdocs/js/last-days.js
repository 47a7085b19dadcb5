// A picture of the last days: files scanned as bars, finds and failures as signs above them, and the same as a table.
import { BY_PAGE, getJson, PATIENT } from './api.js';
import { byId } from './form.js';
import { fill, numberText } from './wording.js';

const SVG = 'http://www.w3.org/2000/svg';
const WIDTH = 600;
const HEIGHT = 120;
const SIGNS = 34;
const dayFormat = new Intl.DateTimeFormat(document.documentElement.lang || 'en-US', { day: 'numeric', month: 'short' });

function draw(name, attributes, className) {
  const made = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  made.setAttribute('class', className);
  return made;
}

const dayText = (day) => dayFormat.format(new Date(`${day}T12:00:00`));

/** A day: its bar, a cross for finds, a circle for failures. Few files among many days with thousands still show. */
function drawDay({ scanned, found, failed }, index, width, most) {
  const left = index * width;
  const middle = left + width / 2;
  const height = scanned ? Math.max(3, Math.sqrt(scanned / most) * (HEIGHT - SIGNS)) : 0;
  const parts = [draw('rect', { x: left + 2, y: HEIGHT - height, width: width - 4, height }, 'bar-scanned')];
  if (found) {
    const size = 5;
    parts.push(draw('path', { d: `M${middle - size} ${8 - size}l${2 * size} ${2 * size}m0 ${-2 * size}l${-2 * size} ${2 * size}` }, 'sign-found'));
  }
  if (failed) parts.push(draw('circle', { cx: middle, cy: 24, r: 4.5 }, 'sign-failed'));
  return parts;
}

function makeRow(day) {
  const row = document.createElement('tr');
  const head = Object.assign(document.createElement('th'), { scope: 'row', textContent: dayText(day.day) });
  row.append(head, ...[day.scanned, day.found, day.failed].map((count) =>
    Object.assign(document.createElement('td'), { textContent: numberText(count) })));
  return row;
}

function show(days) {
  const sum = (name) => days.reduce((total, day) => total + day[name], 0);
  const sums = { scanned: sum('scanned'), found: sum('found'), failed: sum('failed') };
  const anything = Object.values(sums).some(Boolean);
  const texts = byId('days-sum').dataset;
  byId('days-card').hidden = false;
  byId('days-sum').textContent = anything ? fill(texts.text, sums) : texts.none;
  byId('days-picture').hidden = !anything;
  byId('days-more').hidden = !anything;
  if (!anything) return;
  const picture = byId('days-chart');
  const width = WIDTH / days.length;
  const most = Math.max(1, ...days.map(({ scanned }) => scanned));
  picture.setAttribute('aria-label', fill(texts.text, sums));
  picture.replaceChildren(...days.flatMap((day, index) => drawDay(day, index, width, most)));
  byId('days-first').textContent = dayText(days[0].day);
  byId('days-last').textContent = dayText(days.at(-1).day);
  byId('days-rows').replaceChildren(...[...days].reverse().map(makeRow));
}

/** Shows the picture; without figures there is none. */
export async function showLastDays() {
  const { days } = await getJson('./events.cgi?figures=1', PATIENT, BY_PAGE).catch(() => ({ days: [] }));
  if (days.length) show(days);
}
