// What happened on this server: searched and filtered by the service, read a part at a time.
import { getJson, PATIENT } from './api.js';
import { byId, showFailure } from './form.js';
import { cell, makeList, textElement } from './table-list.js';
import { fill, scanKindText, showName, timeText, visible } from './wording.js';

const PROGRAM = './events.cgi';
const DAY = 24 * 3600;
const PAUSE = 300;
/** Events read first, then with each further question, and the most that the page holds. */
const FIRST = 200;
const STEP = 1000;
const MOST = 10_000;
const LOOKS = { alert: 'bad', warning: 'warn', info: '' };
const NAMES = { search: 'text', kind: 'kinds', severity: 'severity' };

let events = [];
let total = 0;
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

const paragraph = (className, text) => textElement('p', className, text);

/** Only words of ours begin with a capital: names of files and malware stay as they are. */
const capital = (text) => text.charAt(0).toLocaleUpperCase() + text.slice(1);

/** The words of an event: the file, what was found, what was done. */
function story(event) {
  const parts = [];
  if (event.path) {
    const path = paragraph('name', '');
    showName(path, event.path);
    parts.push(path);
  }
  const scan = event.kind === 'update' || /^\d+_\d+$/.test(event.task) ? '' : event.task && scanKindText(event.task);
  const times = event.count > 1 ? fill(byId('event-words').dataset.times, { count: event.count }) : '';
  const action = scan || event.signature || event.path ? event.action : capital(event.action);
  const facts = [scan, event.signature, action, event.detail, times].filter(Boolean).map(visible);
  if (facts.length) parts.push(paragraph(event.path ? 'hint' : 'name', facts.join(' · ')));
  return parts;
}

function who({ user, address }) {
  const words = byId('event-words').dataset;
  if (!user && !address) return words.itself;
  return [user, address === 'local' ? words.local : address].filter(Boolean).map(visible).join(' · ');
}

const kindText = (kind) => byId('kind').querySelector(`option[value="${CSS.escape(kind)}"]`)?.textContent ?? kind;

function makeRow(event) {
  const tag = textElement('span', `tag ${LOOKS[event.severity] ?? ''}`, kindText(event.kind));
  return [cell('when', timeText(event.time)), cell('', tag), cell('', ...story(event)), cell('who', who(event))];
}

const list = makeList(byId('events'), {
  columns: [{ value: ({ id }) => id, down: true }, { value: ({ kind }) => kindText(kind) },
    { value: ({ path, signature, detail }) => path || signature || detail }, { value: ({ user, address }) => user || address }],
  row: makeRow,
  onReach: () => readOn(),
});

async function readPart(count) {
  const wanted = filters();
  if (events.length) wanted.set('before', events.at(-1).id);
  wanted.set('count', count);
  return getJson(`${PROGRAM}?list=1&${wanted}`, PATIENT);
}

function showEvents() {
  list.set(events);
  byId('count').textContent = fill(byId('count').dataset.text, { shown: events.length, total });
  byId('count').hidden = events.length === 0;
  byId('nothing').hidden = events.length !== 0;
}

/** Says how far the reading is, or that the page holds no more. */
function showReading(text) {
  byId('reading').hidden = !text;
  byId('reading').textContent = fill(text, { count: events.length });
}

/** Runs `read` for what is asked for now; a later question makes its answer worthless. */
async function reading(read) {
  visit += 1;
  const asked = visit;
  const failed = byId('load-failed');
  try {
    await read(() => asked === visit);
    if (asked === visit) failed.hidden = true;
  } catch (error) {
    if (asked !== visit) return;
    showFailure(failed, error);
  }
}

/** Reads the newest events that the filters let through. */
function load() {
  byId('export').href = `${PROGRAM}?csv=1&${filters()}`;
  return reading(async (stillAsked) => {
    events = [];
    showReading('');
    const answer = await readPart(FIRST);
    if (!stillAsked()) return;
    ({ events, total } = answer);
    showEvents();
  });
}

/** Reads what lies behind, since another order or the last page shows it. */
function readOn() {
  if (events.length >= Math.min(total, MOST) || !byId('reading').hidden) return;
  const texts = byId('reading').dataset;
  reading(async (stillAsked) => {
    while (events.length < Math.min(total, MOST)) {
      showReading(texts.text);
      const part = await readPart(Math.min(STEP, MOST - events.length));
      if (!stillAsked()) return;
      if (!part.events.length) break;
      events.push(...part.events);
    }
    showReading(events.length < total ? texts.most : '');
    showEvents();
  });
}

/** The address may name what to show: a kind, a severity, words. */
function takeAddress() {
  const wanted = new URLSearchParams(location.search);
  for (const id of Object.keys(NAMES)) {
    const value = wanted.get(id) ?? '';
    if (byId(id).tagName !== 'SELECT' || [...byId(id).options].some((option) => option.value === value)) byId(id).value = value;
  }
}

takeAddress();
let typing = 0;
byId('filter').addEventListener('input', () => {
  clearTimeout(typing);
  typing = setTimeout(load, PAUSE);
});
byId('filter').addEventListener('submit', (event) => {
  event.preventDefault();
  load();
});
await load();
