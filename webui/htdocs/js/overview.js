// The overview: how well the server is protected, and what to do next. Kept current while it is open.
import { getJson } from './api.js';
import { findEntry } from './finds.js';
import { byId } from './form.js';
import { showLastDays } from './last-days.js';
import { showVerdict } from './verdict.js';
import { watch } from './watch.js';
import { fill, numberText, percentOf, scanKindText, timeText } from './wording.js';

const DAY = 24 * 3600;
const OLD = 7;
const ago = new Intl.RelativeTimeFormat(document.documentElement.lang || 'en-US', { numeric: 'auto' });
const UPDATE = './showpage.cgi?page=update_manual.html';
const progressOf = (id) => `./scanoption.cgi?id=scan_progress_query&RequestID=${encodeURIComponent(id)}`;

/** Writes a text only when it is another one, so that assistive technology says it once. */
function write(id, text) {
  if (byId(id).textContent !== text) byId(id).textContent = text;
}

function state(id, text, look) {
  write(id, text);
  byId(id).classList.toggle('good', look === 'good');
  byId(id).classList.toggle('bad', look === 'bad');
}

function runningText(scan) {
  const texts = byId('scan-card').dataset;
  const percent = percentOf(scan);
  return fill(scan.total ? texts.running : texts.counting,
    { kind: scanKindText(scan.kind), percent: String(percent), found: scan.found });
}

function linkTo(scan) {
  const entry = document.createElement('li');
  const link = document.createElement('a');
  link.href = progressOf(scan.id);
  link.textContent = runningText(scan);
  entry.append(link);
  return entry;
}

/** The last scan of a kind in one sentence, what was not scanned included. */
function lastText(scan) {
  const texts = byId('last-scans').dataset;
  const unsure = scan.notFullyScanned + scan.skipped;
  return fill(unsure ? texts.unsure : texts.text, {
    kind: scanKindText(scan.kind), time: timeText(scan.ended), found: scan.found, scanned: scan.scanned, unsure,
  });
}

/** With one scan the button leads to it; further ones get a link each. A small scan by hand hides no scheduled one. */
function showScans({ running, lastScans }) {
  const texts = byId('scan-card').dataset;
  const [first, ...others] = running;
  state('scan-now', first ? runningText(first) : texts.none, '');
  write('scan-go', first ? texts.progress : texts.start);
  byId('scan-go').href = first ? progressOf(first.id) : './scanoption.cgi?id=manual_scan';
  byId('running').replaceChildren(...others.map(linkTo));
  const lasts = lastScans.length ? lastScans.map(lastText) : [byId('last-scans').dataset.never];
  if (byId('last-scans').innerText === lasts.join('\n')) return;
  byId('last-scans').replaceChildren(...lasts.map((text) =>
    Object.assign(document.createElement('li'), { textContent: text })));
}

function showRealtime({ realtime }) {
  const texts = byId('realtime-card').dataset;
  const text = realtime.running ? texts.on : realtime.wanted ? texts.broken : texts.off;
  state('realtime-now', realtime.possible ? text : texts.impossible, realtime.running ? 'good' : 'bad');
}

function showSignatures({ signatures, update, now, reasons = [] }) {
  const texts = byId('signature-card').dataset;
  // What is old is told by the service, which knows of parts that are older than the newest.
  const aged = reasons.find(({ reason }) => ['signatures_aging', 'signatures_outdated'].includes(reason));
  const days = aged?.count ?? Math.floor((now - signatures.time) / DAY);
  // What ships for trying out scanners is loaded too, and counts as none.
  const real = signatures.loaded && !reasons.some(({ reason }) => reason === 'no_signatures');
  state('signatures-now', real ? fill(texts.age, { ago: ago.format(-days, 'day') }) : texts.none,
    real && !signatures.unloaded && days <= OLD ? '' : 'bad');
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
function showLastFinds({ finds, quarantined }) {
  write('quarantined', numberText(quarantined));
  if (JSON.stringify(finds) === listed) return;
  listed = JSON.stringify(finds);
  byId('no-finds').hidden = finds.length > 0;
  byId('finds').replaceChildren(...finds.map(findEntry));
}

/**
 * Without a share nothing can be guarded: whoever comes here for the first time is led to the first steps, once. Until
 * there are signatures and a scan, they are offered.
 */
function offerFirstSteps({ reasons = [] }) {
  const has = (name) => reasons.some(({ reason }) => reason === name);
  byId('setup').hidden = !has('no_shares') && !has('no_signatures') && !has('never_scanned');
  if (!has('no_shares') || sessionStorage.getItem('keldra-setup')) return;
  sessionStorage.setItem('keldra-setup', 'shown');
  location.assign('./setup.cgi');
}

let pictured = '';
/** The picture of the last days follows what it is made of. */
function showDays({ lastScans, finds }) {
  const content = JSON.stringify([lastScans, finds, new Date().toDateString()]);
  if (content === pictured) return;
  pictured = content;
  showLastDays();
}

let busy = false;
watch(async () => {
  let report;
  try {
    report = await getJson('./overview.cgi');
  } catch {
    showVerdict(null, true);
    byId('setup').hidden = true;
    return;
  }
  offerFirstSteps(report);
  busy = report.running.length > 0 || report.update.running;
  for (const show of [(content) => showVerdict(content), showScans, showRealtime, showSchedule, showSignatures, showLastFinds, showDays]) show(report);
}, () => (busy ? 2 : 5));
