// What happened on this server: searched and filtered by the service, read a part at a time.
import { getJson, PATIENT } from './api.js';
import { byId, showFailure } from './form.js';
import { fill, scanKindText, showName, timeText, visible } from './wording.js';

const PROGRAM = './events.cgi';
const DAY = 24 * 3600;
const PAUSE = 300;
const LOOKS = { alert: 'bad', warning: 'warn', info: '' };
const NAMES = { search: 'text', kind: 'kinds', severity: 'severity' };

let read = 0;
let last = 0;
let visit = 0;

/** A day of the calendar as seconds since the epoch, by the browser's clock. */
const dayStart = (text) => Math.floor(new Date(`${text}T00:00:00`).getTime() / 1000);

function filters() {
  const wanted = new URLSearchParams();
  for (const [id, name] of Object.entries(NAMES)) if (byId(id).value.trim()) wanted.set(name, byId(id).value.trim());
  if (byId('since').value) wanted.set('since', dayStart(byId('since').value));
  if (byId('until').value) wanted.set('until', dayStart(byId('until').value) + DAY);
  return wanted;
}

function cell(label, ...content) {
  const made = document.createElement('td');
  made.dataset.label = label;
  made.append(...content);
  return made;
}

function paragraph(className, text) {
  return Object.assign(document.createElement('p'), { className, textContent: text });
}

/** The words of an event: the file, what was found, what was done. */
function story(event) {
  const parts = [];
  if (event.path) {
    const path = paragraph('name', '');
    showName(path, event.path);
    parts.push(path);
  }
  const scan = /^\d+_\d+$/.test(event.task) ? '' : event.task && scanKindText(event.task);
  const times = event.count > 1 ? fill(byId('event-words').dataset.times, { count: event.count }) : '';
  const facts = [scan, event.signature, event.action, event.detail, times].filter(Boolean).map(visible);
  if (facts.length) parts.push(paragraph(event.path ? 'hint' : 'name', facts.join(' · ')));
  return parts;
}

function who({ user, address }) {
  const words = byId('event-words').dataset;
  if (!user && !address) return words.itself;
  return [user, address === 'local' ? words.local : address].filter(Boolean).map(visible).join(' · ');
}

function makeRow(event) {
  const row = document.createElement('tr');
  const [when, kind, what, by] = [...document.querySelectorAll('#events th')].map((head) => head.textContent);
  const tag = document.createElement('span');
  tag.className = `tag ${LOOKS[event.severity] ?? ''}`;
  tag.textContent = byId('kind').querySelector(`option[value="${CSS.escape(event.kind)}"]`)?.textContent ?? event.kind;
  row.append(cell(when, timeText(event.time)), cell(kind, tag), cell(what, ...story(event)), cell(by, who(event)));
  return row;
}

/** Reads on behind what is shown; from the beginning after the filter was changed. */
async function load(fresh) {
  visit += 1;
  const asked = visit;
  const failed = byId('load-failed');
  const wanted = filters();
  byId('export').href = `${PROGRAM}?csv=1&${wanted}`;
  if (!fresh && last) wanted.set('before', last);
  try {
    const { total, events } = await getJson(`${PROGRAM}?list=1&${wanted}`, PATIENT);
    if (asked !== visit) return;
    const body = byId('events').tBodies[0];
    if (fresh) {
      body.replaceChildren();
      read = 0;
    }
    body.append(...events.map(makeRow));
    const before = fresh ? 0 : read;
    read += events.length;
    last = events.at(-1)?.id ?? last;
    byId('count').textContent = fill(byId('count').dataset.text, { shown: read, total: total + before });
    byId('count').hidden = read === 0;
    byId('events').hidden = read === 0;
    byId('nothing').hidden = read !== 0;
    byId('more').hidden = events.length === 0 || read >= total + before;
    failed.hidden = true;
  } catch (error) {
    if (asked !== visit) return;
    showFailure(failed, error);
  }
}

let typing = 0;
byId('filter').addEventListener('input', () => {
  clearTimeout(typing);
  typing = setTimeout(() => load(true), PAUSE);
});
byId('filter').addEventListener('submit', (event) => {
  event.preventDefault();
  load(true);
});
byId('more').addEventListener('click', () => load(false));
await load(true);
