// The overview: how well the server is protected, and the one thing to do next. Kept current while it is open.
import { getJson } from './api.js';
import { findEntry } from './finds.js';
import { byId } from './form.js';
import { fill } from './poll.js';
import { watch } from './watch.js';
import { numberText, timeText } from './wording.js';

const DAY = 24 * 3600;
const ago = new Intl.RelativeTimeFormat(document.documentElement.lang || 'en-US', { numeric: 'auto' });
const UPDATE = '/NorvLinux/showpage.cgi?page=update_manual.html';
const progressOf = (id) => `./scanoption.cgi?id=scan_progress_query&RequestID=${encodeURIComponent(id)}`;

/** What is wrong, gravest first: its name, whether it is so, and the page that mends it. */
const FAULTS = [
  ['configuration', (report) => !report.configured],
  ['loading', ({ signatures }) => !signatures.loaded && signatures.loading],
  ['signatures', ({ signatures }) => !signatures.loaded, () => UPDATE],
  ['unloaded', ({ signatures }) => signatures.unloaded, () => UPDATE],
  ['age', ({ signatures, now }) => now - signatures.time > 7 * DAY, () => UPDATE],
  ['untreated', ({ untreated }) => untreated > 0,
    ({ untreatedScan }) => `/NorvLinux/history.cgi#${encodeURIComponent(untreatedScan)}`],
  ['realtime', ({ realtime }) => realtime.possible && !realtime.running, () => './scanoption.cgi?id=realtime_scan'],
  ['schedule', ({ nextScan }) => !nextScan, () => './scanoption.cgi?id=scheduled_scan'],
  ['update', ({ update }) => !update.next, () => './scanoption.cgi?id=scheduled_update'],
];
const GRAVE = ['down', 'configuration', 'signatures', 'unloaded', 'untreated'];

/** Writes a text only when it is another one, so that assistive technology says it once. */
function write(id, text) {
  if (byId(id).textContent !== text) byId(id).textContent = text;
}

function state(id, text, look) {
  write(id, text);
  byId(id).classList.toggle('good', look === 'good');
  byId(id).classList.toggle('bad', look === 'bad');
}

function judge(result, remedy, values = {}) {
  const element = byId('verdict');
  const good = ['good', 'partly'].includes(result);
  write('verdict-text', fill(element.dataset[result], values));
  element.classList.toggle('success', good);
  element.classList.toggle('danger', GRAVE.includes(result));
  element.classList.toggle('warning', !good && !GRAVE.includes(result));
  byId('next').hidden = !remedy;
  byId('next').href = remedy ?? '#content';
  byId('state').classList.toggle('stale', result === 'down');
}

const kindText = (kind) => document.querySelector(`#scan-kinds [data-kind="${CSS.escape(kind)}"]`)?.textContent ?? kind;

function runningText(scan) {
  const texts = byId('scan-card').dataset;
  const percent = scan.total ? Math.floor((scan.scanned * 100) / scan.total) : 0;
  return fill(scan.total ? texts.running : texts.counting,
    { kind: kindText(scan.kind), percent: String(percent), found: numberText(scan.found) });
}

/** With one scan the button leads to it; further ones get a link each. */
function showScans({ running, lastScan }) {
  const texts = byId('scan-card').dataset;
  const [first, ...others] = running;
  state('scan-now', first ? runningText(first) : texts.none, '');
  write('scan-go', first ? texts.progress : texts.start);
  byId('scan-go').href = first ? progressOf(first.id) : './scanoption.cgi?id=manual_scan';
  byId('running').replaceChildren(...others.map((scan) => {
    const entry = document.createElement('li');
    const link = document.createElement('a');
    link.href = progressOf(scan.id);
    link.textContent = runningText(scan);
    entry.append(link);
    return entry;
  }));
  const last = byId('last-scan').dataset;
  write('last-scan', lastScan
    ? fill(last.text, {
      kind: kindText(lastScan.kind), time: timeText(lastScan.ended), found: numberText(lastScan.found),
      scanned: numberText(lastScan.scanned),
    })
    : last.never);
}

function showRealtime({ realtime }) {
  const texts = byId('realtime-card').dataset;
  const text = realtime.running ? texts.on : texts.off;
  const lookOf = realtime.running ? 'good' : 'bad';
  state('realtime-now', realtime.possible ? text : texts.impossible, realtime.possible ? lookOf : '');
}

function showSignatures({ signatures, update, now }) {
  const texts = byId('signature-card').dataset;
  const days = Math.floor((now - signatures.time) / DAY);
  state('signatures-now', signatures.loaded ? fill(texts.age, { ago: ago.format(-days, 'day') }) : texts.none,
    signatures.loaded && !signatures.unloaded && days <= 7 ? 'good' : 'bad');
  const next = update.next ? fill(texts.next, { time: timeText(update.next) }) : texts.off;
  write('update-now', update.running ? fill(texts.running, { percent: String(update.progress) }) : next);
  const followed = update.running && update.id;
  write('update-go', followed ? texts.progress : texts.start);
  byId('update-go').href = followed ? `./scanoption.cgi?id=update_progress&RequestID=${encodeURIComponent(update.id)}` : UPDATE;
}

function showSchedule({ nextScan }) {
  const texts = byId('schedule-card').dataset;
  state('schedule-now', nextScan ? fill(texts.next, { time: timeText(nextScan) }) : texts.off, nextScan ? 'good' : 'bad');
}

let listed = '';
function showFinds({ finds, quarantined }) {
  write('quarantined', numberText(quarantined));
  if (JSON.stringify(finds) === listed) return;
  listed = JSON.stringify(finds);
  byId('no-finds').hidden = finds.length > 0;
  byId('finds').replaceChildren(...finds.map(findEntry));
}

function show(report) {
  const [result, , remedy] = FAULTS.find(([, holds]) => holds(report))
    ?? [report.realtime.running ? 'good' : 'partly'];
  judge(result, remedy?.(report), { count: numberText(report.untreated) });
  showScans(report);
  showRealtime(report);
  showSchedule(report);
  showSignatures(report);
  showFinds(report);
}

let busy = false;
watch(async () => {
  try {
    const report = await getJson('/NorvLinux/overview.cgi');
    busy = report.running.length > 0 || report.update.running;
    show(report);
  } catch {
    judge('down');
  }
}, () => (busy ? 2 : 5));
