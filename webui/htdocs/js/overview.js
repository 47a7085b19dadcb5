// The overview: reads the state of each kind of protection from its settings page.
import { byId } from './form.js';
import { readPageVariables } from './page-variables.js';
import { fetchPage, fill } from './poll.js';

const language = document.documentElement.lang || 'en-US';

function state(id, text, good) {
  const element = byId(id);
  element.textContent = text;
  element.classList.toggle('good', good);
  element.classList.toggle('bad', !good);
  return good;
}

/** The name of a week day in the console's language; 4 January 1970 was a Sunday. */
function dayInLanguage(number) {
  const format = new Intl.DateTimeFormat(language, { weekday: 'long', timeZone: 'UTC' });
  return format.format(new Date(Date.UTC(1970, 0, 4 + number)));
}

function showRealtime(page) {
  const variables = readPageVariables(page);
  const texts = byId('realtime-card').dataset;
  const on = variables.get('bRealTimeScanCheckbox') === true && variables.get('bRealTimeScanDisabled') !== true;
  return state('realtime-now', on ? texts.on : texts.off, on);
}

function scheduleInWords(variables) {
  const texts = byId('schedule-card').dataset;
  const time = (variables.get('ScheduledTime') ?? '').replace(/^(\d+:\d+):\d+$/, '$1');
  const kind = { 2: texts.daily, 3: texts.weekly, 4: texts.monthly }[variables.get('ScheduledFrequency')];
  const weekly = variables.get('ScheduledFrequency') === '3';
  const day = weekly ? dayInLanguage(variables.get('iScheduledWDay') ?? 0) : variables.get('ScheduledMDay');
  return fill(kind ?? texts.off, { time, day });
}

function showSchedule(page) {
  const variables = readPageVariables(page);
  return state('schedule-now', scheduleInWords(variables), variables.get('bScheduleScanCheckbox') === true);
}

const WEEK = 7 * 24 * 3600 * 1000;

/** What is wrong with the signatures: "signatures" when there are none, "age" when they are old, else nothing. */
function faultOfSignatures(version, date) {
  if (version === '') return 'signatures';
  const updated = Date.parse(date.replace(' ', 'T'));
  return Date.now() - updated > WEEK ? 'age' : undefined;
}

function showUpdate(page) {
  const texts = byId('update-card').dataset;
  const on = readPageVariables(page).get('bEnableScheduledUpdate') === true;
  const version = page.getElementById('virus-pattern-version')?.textContent ?? '';
  const date = page.getElementById('virus-pattern-date')?.textContent ?? '';
  byId('pattern-version').textContent = version;
  byId('pattern-date').textContent = date;
  if (version === '') byId('pattern-state').textContent = byId('pattern-state').dataset.none;
  state('update-now', on ? texts.on : texts.off, on);
  return faultOfSignatures(version, date) ?? on;
}

/** One state: unknown when its page gave no answer. */
async function look(id, kind, show) {
  const page = await fetchPage(`./scanoption.cgi?id=${id}`);
  return page?.body.dataset.page === kind ? show(page) : undefined;
}

const UPDATE_NOW = '/NorvLinux/showpage.cgi?page=update_manual.html';
const REMEDIES = {
  signatures: UPDATE_NOW,
  age: UPDATE_NOW,
  realtime: './scanoption.cgi?id=realtime_scan',
  schedule: './scanoption.cgi?id=scheduled_scan',
  update: './scanoption.cgi?id=scheduled_update',
};

/** The worst of what is wrong, if anything is. */
function worst({ realtime, schedule, update }) {
  if ([realtime, schedule, update].includes(undefined)) return 'unknown';
  if (typeof update === 'string') return update;
  if (!realtime) return 'realtime';
  if (!schedule) return 'schedule';
  return update ? 'good' : 'update';
}

function verdict(states) {
  const element = byId('verdict');
  const result = worst(states);
  byId('verdict-text').textContent = element.dataset[result];
  element.classList.add(result === 'good' ? 'success' : 'warning');
  byId('next').hidden = !(result in REMEDIES);
  byId('next').href = REMEDIES[result] ?? '#content';
}

const [realtime, schedule, update] = await Promise.all([
  look('realtime_scan', 'realtime', showRealtime),
  look('scheduled_scan', 'scheduled', showSchedule),
  look('scheduled_update', 'update-schedule', showUpdate),
]);
verdict({ realtime, schedule, update });
