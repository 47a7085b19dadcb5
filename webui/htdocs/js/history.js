// The scans that were made: their list, and one of them with what it found. The address's fragment names the one.
import { BY_PAGE, getJson, PATIENT } from './api.js';
import { byId, showFailure } from './form.js';
import { cell, makeList, textElement } from './table-list.js';
import { durationText, fill, malwareAbout, malwareText, numberText, scanKindText, showName, sizeText, splitPath, timeText, visible } from './wording.js';

const RUNNING = 4;
const REFRESH = 5000;
/** Finds that one page holds; the file that can be saved has all. */
const MOST_FINDS = 20_000;

let scans = [];
let current = '';
let finds = [];
/** Counts what was shown, so that an answer that comes too late is told. */
let visit = 0;
let reading = -1;

const lengthOf = (scan) => (scan.ended || Math.floor(Date.now() / 1000)) - scan.started;
const unsureIn = (scan) => scan.notFullyScanned + scan.skipped;

function showState(tag, scan) {
  const state = document.querySelector(`#scan-states [data-state="${CSS.escape(String(scan.state))}"]`);
  tag.textContent = state?.textContent ?? '';
  tag.className = `tag outcome ${state?.dataset.look ?? ''}`;
}

function makeScan(scan) {
  const link = textElement('a', '', scanKindText(scan.kind));
  link.href = `#${scan.id}`;
  const name = textElement('p', 'name', '');
  name.append(link);
  const tag = textElement('span', 'tag', '');
  showState(tag, scan);
  const texts = byId('count').dataset;
  const result = textElement('span', 'result', fill(unsureIn(scan) ? texts.unsure : texts.line,
    { scanned: scan.scanned, found: scan.found, unsure: unsureIn(scan) }));
  result.classList.toggle('found', scan.found > 0);
  return [cell('', name), cell('when', timeText(scan.started)), cell('number', durationText(lengthOf(scan))), cell('', tag),
    cell('', result)];
}

const list = makeList(byId('scan-list'), {
  columns: [{ value: ({ kind }) => scanKindText(kind) }, { value: ({ started }) => started, down: true },
    { value: lengthOf, down: true }, { value: ({ state }) => state }, { value: ({ found }) => found, down: true }],
  row: makeScan,
  first: 1,
  onShow: () => showCount(),
});

function showCount() {
  const shown = list.matching().length;
  byId('count').textContent = fill(byId('count').dataset.text, { shown, total: scans.length });
  byId('count').hidden = scans.length === 0;
  byId('tools').hidden = scans.length === 0;
  byId('nothing').hidden = scans.length !== 0;
  byId('no-match').hidden = scans.length === 0 || shown !== 0;
}

function makePath(find) {
  const { name, folder } = splitPath(find.path);
  const title = textElement('p', 'name', '');
  const place = textElement('p', 'hint folder', '');
  showName(title, name);
  showName(place, folder);
  return cell('', title, place);
}

function makeFind(find) {
  const kind = textElement('span', 'tag bad kind', malwareText(find.type));
  kind.title = malwareAbout(find.type);
  const malware = textElement('p', '', '');
  malware.append(kind);
  return [makePath(find), cell('', malware, textElement('p', 'hint signature', visible(find.signature))),
    cell('detail', visible(find.detail))];
}

const byPath = { value: ({ path }) => splitPath(path).name };
const findList = makeList(byId('find-list'), {
  columns: [byPath, { value: ({ signature }) => signature }, { value: ({ detail }) => detail }],
  row: makeFind,
  id: ({ number }) => number,
  onShow: () => showNoMatch(),
});
const unsureList = makeList(byId('unsure-list'), {
  columns: [byPath, { value: ({ detail }) => detail }],
  row: (find) => [makePath(find), cell('detail', [find.signature, find.detail].filter(Boolean).map(visible).join(' · '))],
  id: ({ number }) => number,
});

function showNoMatch() {
  byId('no-find-match').hidden = findList.matching().length > 0 || !finds.some(({ infected }) => infected);
}

function showFinds(done) {
  const infected = finds.filter((find) => find.infected);
  findList.set(infected);
  unsureList.set(finds.filter((find) => !find.infected));
  byId('no-finds').hidden = infected.length > 0 || !byId('finds-failed').hidden;
  byId('unsure-card').hidden = infected.length === finds.length;
  byId('reading').hidden = done;
  byId('reading').textContent = fill(byId('reading').dataset.text, { count: finds.length });
}

/** All further finds of the scan that is shown, a part at a time, unless they are on their way. */
async function readFinds(headers) {
  if (reading === visit) return;
  const asked = visit;
  reading = asked;
  const failed = byId('finds-failed');
  try {
    for (let goOn = true; goOn;) {
      const { finds: part, more } = await getJson(`./history.cgi?RequestID=${encodeURIComponent(current)}&From=${finds.length}`,
        PATIENT, headers);
      if (asked !== visit) return;
      finds.push(...part.map((find, at) => ({ ...find, number: finds.length + at })));
      failed.hidden = true;
      goOn = more && part.length > 0 && finds.length < MOST_FINDS;
      showFinds(!goOn);
    }
  } catch (error) {
    if (asked !== visit) return;
    showFailure(failed, error);
    showFinds(true);
  } finally {
    if (reading === asked) reading = -1;
  }
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
  finds = [];
  byId('search').value = '';
  for (const one of [findList, unsureList]) one.filter(() => true);
  showFinds(true);
  byId('no-finds').hidden = true;
  await readFinds();
}

async function load(headers) {
  const failed = byId('load-failed');
  try {
    ({ scans } = await getJson('./history.cgi?list=1', undefined, headers));
    failed.hidden = true;
    list.set(scans);
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
    if (scan && unsureIn(scan) + scan.found > finds.length) await readFinds(BY_PAGE);
  }
  setTimeout(refresh, REFRESH);
}

byId('finds-only').addEventListener('change', ({ target }) => list.filter(({ found }) => !target.checked || found > 0));
byId('search').addEventListener('input', ({ target }) => {
  const words = target.value.trim().toLocaleLowerCase();
  const fits = ({ path, signature, detail }) => `${path}\n${signature}\n${detail}`.toLocaleLowerCase().includes(words);
  for (const one of [findList, unsureList]) one.filter(fits);
});
window.addEventListener('hashchange', async () => {
  const left = current;
  await route();
  if (current) byId('scan-title').focus();
  else byId('scans').querySelector(`a[href="#${CSS.escape(left)}"]`)?.focus();
});

await load();
await route();
setTimeout(refresh, REFRESH);
