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

function showUpdate(page) {
  const texts = byId('update-card').dataset;
  const on = readPageVariables(page).get('bEnableScheduledUpdate') === true;
  byId('pattern-version').textContent = page.getElementById('virus-pattern-version')?.textContent || '–';
  byId('pattern-date').textContent = page.getElementById('virus-pattern-date')?.textContent || '–';
  return state('update-now', on ? texts.on : texts.off, on);
}

/** One state: unknown when its page gave no answer. */
async function look(id, kind, show) {
  const page = await fetchPage(`./scanoption.cgi?id=${id}`);
  return page?.body.dataset.page === kind ? show(page) : undefined;
}

function verdict(states) {
  const element = byId('verdict');
  const missing = ['realtime', 'schedule', 'update'].find((name) => states[name] !== true);
  const unknown = Object.values(states).includes(undefined);
  element.textContent = element.dataset[unknown ? 'unknown' : missing ?? 'good'];
  element.classList.add(missing ? 'warning' : 'success');
}

const [realtime, schedule, update] = await Promise.all([
  look('realtime_scan', 'realtime', showRealtime),
  look('scheduled_scan', 'scheduled', showSchedule),
  look('scheduled_update', 'update-schedule', showUpdate),
]);
verdict({ realtime, schedule, update });
