// The first steps on a fresh server: what is guarded and how, then the first update and the first scan.
import { getJson, PATIENT, postJson } from './api.js';
import { post } from './csrf.js';
import { leaveTo, sessionEnded } from './draft.js';
import { byId } from './form.js';
import { joinPathList, splitPathList } from './path-list.js';
import { fetchPage } from './poll.js';
import { bindShares } from './shares.js';
import { fill } from './wording.js';

const PROGRAM = './setup.cgi';
const SETTINGS = './settings.cgi';
const LOOK = 1500;
const LONGEST_WAIT = 900_000;

let shares = null;
const pause = (milliseconds) => new Promise((resolve) => { setTimeout(resolve, milliseconds); });

async function load() {
  const failed = byId('load-failed');
  try {
    const state = await getJson(`${PROGRAM}?list=1`, PATIENT);
    shares = bindShares(splitPathList(state.roots), state.proposals);
    byId('realtime').checked = state.realtimePossible;
    byId('realtime').disabled = !state.realtimePossible;
    byId('realtime-impossible').hidden = state.realtimePossible;
    if (state.scan) byId('scan-time').value = state.scanTime.slice(0, 5);
    byId('notices-on').hidden = !state.notices;
    byId('form').hidden = false;
    failed.hidden = true;
  } catch (error) {
    failed.textContent = error.message || failed.dataset.text;
    failed.hidden = false;
  }
}

async function store() {
  await postJson(SETTINGS, { settings: JSON.stringify({ 'shares.roots': joinPathList(shares.roots()) }), expected: '{}' });
  await shares.useInScans();
  const chosen = Object.fromEntries(['realtime', 'scan', 'update'].filter((id) => byId(id).checked).map((id) => [id, '1']));
  await postJson(PROGRAM, { action: 'apply', scanTime: byId('scan-time').value, ...chosen });
}

/** Runs an update to its end. Returns what its last page says. */
async function update() {
  const id = `${Date.now()}_${crypto.getRandomValues(new Uint32Array(1))[0]}`;
  await post({ id: 'manual_update', VirusPattern: 'ON', SpywarePattern: 'ON', RequestID: id });
  for (const end = Date.now() + LONGEST_WAIT; Date.now() < end;) {
    const page = await fetchPage(`./scanoption.cgi?id=update_progress&RequestID=${id}`);
    if (page && page.body.dataset.page !== 'update-progress') return page.querySelector('main .notice')?.textContent.trim() ?? '';
    await pause(LOOK);
  }
  return '';
}

/** Whether there is anything to find malware with. */
async function hasSignatures() {
  const { signatures, reasons = [] } = await getJson('./overview.cgi');
  return signatures.loaded && !reasons.some(({ reason }) => reason === 'no_signatures');
}

async function startScan() {
  const answer = await post({ id: 'manual_scan', mode: 'Scan' });
  if (answer.redirected) sessionEnded();
  const id = answer.ok ? await answer.text() : '';
  return /^[0-9_]+$/.test(id) ? id : '';
}

const mark = (step, state) => { byId(`step-${step}`).dataset.state = state; };

/** The first update, and with what it brought the first scan. */
async function begin() {
  for (const id of ['update-failed', 'scan-failed', 'after']) byId(id).hidden = true;
  mark('update', 'busy');
  const reason = await update().catch(({ message }) => message);
  if (!await hasSignatures().catch(() => false)) {
    mark('update', 'bad');
    byId('update-reason').textContent = reason;
    byId('update-failed').hidden = false;
    byId('after').hidden = false;
    return;
  }
  mark('update', 'good');
  mark('scan', 'busy');
  const scan = await startScan().catch(() => '');
  if (scan) {
    leaveTo(`./scanoption.cgi?id=scan_progress_query&RequestID=${encodeURIComponent(scan)}`);
    return;
  }
  mark('scan', 'bad');
  byId('scan-failed').hidden = false;
  byId('after').hidden = false;
}

async function start() {
  byId('roots-none').hidden = shares.roots().length > 0;
  if (!shares.roots().length) {
    byId('share-path').focus();
    return;
  }
  byId('start').disabled = true;
  try {
    await store();
  } catch (error) {
    byId('refused').textContent = fill(byId('refused').dataset.text, { reason: error.message || byId('load-failed').dataset.text });
    byId('refused').hidden = false;
    byId('refused').focus();
    byId('start').disabled = false;
    return;
  }
  byId('refused').hidden = true;
  byId('form').hidden = true;
  byId('progress').hidden = false;
  byId('progress-title').focus();
  mark('settings', 'good');
  await begin();
}

byId('form').noValidate = true;
byId('form').addEventListener('submit', (event) => {
  event.preventDefault();
  start();
});
byId('again').addEventListener('click', begin);
await load();
