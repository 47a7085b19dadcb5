// The scans that were made: their list, and one of them with what it found. The address's fragment names the one.
import { BY_PAGE, getJson, PATIENT } from './api.js';
import { byId, copyOf, showFailure } from './form.js';
import { durationText, fill, malwareAbout, malwareText, numberText, scanKindText, showName, sizeText, splitPath, timeText } from './wording.js';

const RUNNING = 4;
const REFRESH = 5000;

let scans = [];
let current = '';
let read = 0;
/** Counts what was shown, so that an answer that comes too late is told. */
let visit = 0;
let reading = -1;

const lengthOf = (scan) => (scan.ended || Math.floor(Date.now() / 1000)) - scan.started;
const unsureIn = (scan) => scan.notFullyScanned + scan.skipped;
const shown = () => scans.filter((scan) => !byId('finds-only').checked || scan.found > 0);

function showState(tag, scan) {
  const state = document.querySelector(`#scan-states [data-state="${CSS.escape(String(scan.state))}"]`);
  tag.textContent = state?.textContent ?? '';
  tag.className = `tag outcome ${state?.dataset.look ?? ''}`;
}

function makeScan(scan) {
  const entry = copyOf('scan');
  const link = entry.querySelector('a');
  const result = entry.querySelector('.result');
  link.textContent = scanKindText(scan.kind);
  link.href = `#${scan.id}`;
  entry.querySelector('.when').textContent = `${timeText(scan.started)} · ${durationText(lengthOf(scan))}`;
  showState(entry.querySelector('.outcome'), scan);
  result.textContent = fill(unsureIn(scan) ? result.dataset.unsure : result.dataset.text,
    { scanned: scan.scanned, found: scan.found, unsure: unsureIn(scan) });
  result.classList.toggle('found', scan.found > 0);
  return entry;
}

function showList() {
  byId('scans').replaceChildren(...shown().map(makeScan));
  byId('count').textContent = fill(byId('count').dataset.text,
    { shown: shown().length, total: scans.length });
  byId('count').hidden = scans.length === 0;
  byId('tools').hidden = scans.length === 0;
  byId('nothing').hidden = scans.length !== 0;
  byId('no-match').hidden = scans.length === 0 || shown().length !== 0;
}

function makeFind(find) {
  const entry = copyOf('find');
  const { name, folder } = splitPath(find.path);
  showName(entry.querySelector('.name'), name);
  showName(entry.querySelector('.folder'), folder);
  entry.querySelector('.kind').textContent = find.infected ? malwareText(find.type) : '';
  entry.querySelector('.kind').hidden = !find.infected;
  entry.querySelector('.kind').title = find.infected ? malwareAbout(find.type) : '';
  entry.querySelector('.detail').textContent = [find.signature, find.detail].filter(Boolean).join(' · ');
  return entry;
}

/** The next finds of the scan that is shown, unless they are under way: the button asks, and so does the clock. */
async function readFinds(headers) {
  if (reading === visit) return;
  const asked = visit;
  reading = asked;
  const failed = byId('finds-failed');
  try {
    const { finds, more } = await getJson(`./history.cgi?RequestID=${encodeURIComponent(current)}&From=${read}`,
      PATIENT, headers);
    if (asked !== visit) return;
    read += finds.length;
    byId('finds').append(...finds.filter(({ infected }) => infected).map(makeFind));
    byId('unsure').append(...finds.filter(({ infected }) => !infected).map(makeFind));
    byId('more').hidden = !more;
    failed.hidden = true;
  } catch (error) {
    if (asked !== visit) return;
    showFailure(failed, error);
  } finally {
    if (reading === asked) reading = -1;
  }
  byId('no-finds').hidden = byId('finds').childElementCount > 0 || !failed.hidden;
  byId('unsure-card').hidden = byId('unsure').childElementCount === 0;
}

function showFigures(scan) {
  const title = byId('scan-title');
  title.textContent = fill(title.dataset.text, { kind: scanKindText(scan.kind), time: timeText(scan.started) });
  showState(byId('scan-state'), scan);
  byId('scan-message').textContent = scan.message;
  byId('scan-scanned').textContent = numberText(scan.scanned);
  byId('scan-found').textContent = numberText(scan.found);
  byId('scan-found').classList.toggle('found', scan.found > 0);
  byId('scan-unsure').textContent = numberText(scan.notFullyScanned);
  byId('scan-skipped').textContent = numberText(scan.skipped);
  byId('scan-duration').textContent = durationText(lengthOf(scan));
  byId('scan-bytes').textContent = sizeText(scan.bytes);
  byId('scan-live').hidden = scan.state !== RUNNING;
  byId('scan-live').href = `./scanoption.cgi?id=scan_progress_query&RequestID=${encodeURIComponent(scan.id)}`;
  byId('scan-export').href = `./history.cgi?csv=1&RequestID=${encodeURIComponent(scan.id)}`;
  byId('scan-quarantine').hidden = scan.found === 0;
}

/** Shows the scan that the address names, else the list. */
async function route() {
  const scan = scans.find(({ id }) => `#${id}` === location.hash);
  byId('all-scans').hidden = Boolean(scan);
  byId('one-scan').hidden = !scan;
  current = scan?.id ?? '';
  visit += 1;
  if (!scan) return;
  showFigures(scan);
  read = 0;
  byId('finds').replaceChildren();
  byId('unsure').replaceChildren();
  await readFinds();
}

async function load(headers) {
  const failed = byId('load-failed');
  try {
    ({ scans } = await getJson('./history.cgi?list=1', undefined, headers));
    failed.hidden = true;
    showList();
  } catch (error) {
    showFailure(failed, error);
    byId('count').hidden = true;
  }
}

/** Keeps a running scan's figures current. */
async function refresh() {
  if (!document.hidden && scans.some(({ state }) => state === RUNNING)) {
    await load(BY_PAGE);
    const scan = scans.find(({ id }) => id === current);
    if (scan) showFigures(scan);
    if (scan && unsureIn(scan) + scan.found > read) await readFinds(BY_PAGE);
  }
  setTimeout(refresh, REFRESH);
}

byId('finds-only').addEventListener('change', showList);
byId('more').addEventListener('click', () => readFinds());
window.addEventListener('hashchange', async () => {
  const left = current;
  await route();
  if (current) byId('scan-title').focus();
  else byId('scans').querySelector(`a[href="#${CSS.escape(left)}"]`)?.focus();
});

await load();
await route();
setTimeout(refresh, REFRESH);
