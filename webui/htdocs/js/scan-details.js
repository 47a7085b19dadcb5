// What a running scan tells beside its percentage: finds as they happen, what could not be scanned, where it is, how
// fast, and how long it will still take.
import { getJson } from './api.js';
import { findEntry } from './finds.js';
import { byId } from './form.js';
import { fill } from './poll.js';
import { watch } from './watch.js';
import { durationText, numberText, sizeText } from './wording.js';

const RUNNING = 4;
const SHOWN = 200;
const WINDOW = 15;

/**
 * Files and bytes per second over the last seconds and the seconds left, from one look at a scan after the other. No
 * time is left unsaid while files are still counted: `left` is then undefined.
 */
export function makeClock() {
  const looks = [];
  let total = -1;
  let steady = 0;
  return ({ scanned, skipped, bytes, total: files }, now) => {
    steady = files === total && files > 0 ? steady + 1 : 0;
    total = files;
    looks.push({ scanned: scanned + skipped, bytes, now });
    while (looks.length > 2 && now - looks[0].now > WINDOW) looks.shift();
    const [first] = looks;
    const time = now - first.now;
    if (time <= 0) return { files: 0, bytes: 0, left: undefined };
    const rate = (scanned + skipped - first.scanned) / time;
    const left = steady >= 2 && rate > 0 ? Math.max(0, total - scanned - skipped) / rate : undefined;
    return { files: rate, bytes: (bytes - first.bytes) / time, left };
  };
}

function list(id, entries) {
  byId(id).prepend(...entries.map(findEntry).reverse());
  while (byId(id).children.length > SHOWN) byId(id).lastElementChild.remove();
}

function showFinds(finds) {
  const infected = finds.filter((find) => find.infected);
  const unsure = finds.filter((find) => !find.infected);
  if (infected.length) byId('no-finds').hidden = true;
  if (unsure.length) byId('unsure-card').hidden = false;
  list('finds', infected);
  list('unsure', unsure);
}

function showFigures(scan, pace) {
  byId('not-fully').textContent = numberText(scan.notFullyScanned);
  byId('skipped').textContent = numberText(scan.skipped);
  byId('current').textContent = scan.currentFile.replace(/[^/]*$/, '') || '…';
  byId('rate').textContent = fill(byId('rate').dataset.text,
    { files: numberText(Math.round(pace.files)), size: sizeText(Math.round(pace.bytes)) });
  byId('time-left').textContent = pace.left === undefined ? '…'
    : fill(byId('time-left').dataset.about, { time: durationText(Math.ceil(pace.left)) });
}

/** Follows the scan of this id until it ends. */
export function showScanDetails(requestId) {
  const pace = makeClock();
  let read = 0;
  let more = false;
  const url = () => `/NorvLinux/scanstatus.cgi?RequestID=${encodeURIComponent(requestId)}&From=${read}`;
  watch(async () => {
    try {
      const scan = await getJson(url());
      read += scan.finds.length;
      more = scan.finds.length === SHOWN;
      showFinds(scan.finds);
      showFigures(scan, pace(scan, Date.now() / 1000));
      return scan.state === RUNNING;
    } catch {
      return true;
    }
  }, () => (more ? 0.1 : 1));
}
