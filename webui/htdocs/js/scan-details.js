// What a running scan tells beside its percentage: finds as they happen, what could not be scanned, where it is, how
// fast, and how long it will still take.
import { findEntry } from './finds.js';
import { byId } from './form.js';
import { durationText, fill, numberText, shortened, sizeText, visible } from './wording.js';

const SHOWN = 200;
const WINDOW = 15;

/** The part of a new measurement that goes into the time left, so that it does not jump. */
const WEIGHT = 0.15;

/**
 * Files and bytes per second over the last seconds and the seconds left, from one look at a scan after the other. No
 * time is left unsaid while files are still counted: `left` is then undefined. What is left is measured in bytes where
 * their total is known, else in files, against the mean of the whole scan and of the last seconds.
 */
export function makeClock() {
  const looks = [];
  let total = -1;
  let steady = 0;
  let left;
  const amountOf = (look) => (look.totalBytes > 0 ? look.bytes : look.files);
  const estimate = (start, first, last) => {
    const rateSince = (look) => (amountOf(last) - amountOf(look)) / Math.max(last.now - look.now, 1e-3);
    const rate = (rateSince(start) + rateSince(first)) / 2;
    const missing = Math.max(0, (last.totalBytes || last.total) - amountOf(last));
    return rate > 0 ? missing / rate : undefined;
  };
  let start;
  return ({ scanned, skipped, bytes, total: files, totalBytes = 0, paused = false }, now) => {
    steady = files === total && files > 0 ? steady + 1 : 0;
    total = files;
    const look = { files: scanned + skipped, bytes, total: files, totalBytes, now };
    if (paused || !start) start = look;
    looks.push(look);
    while (looks.length > 2 && now - looks[0].now > WINDOW) looks.shift();
    const [first] = looks;
    const time = now - first.now;
    if (time <= 0 || paused) return { files: 0, bytes: 0, left: undefined };
    const fresh = steady >= 2 ? estimate(start, first, look) : undefined;
    if (fresh === undefined || left === undefined) left = fresh;
    else left += (fresh - left) * WEIGHT;
    return { files: (look.files - first.files) / time, bytes: (bytes - first.bytes) / time, left };
  };
}

function list(id, entries) {
  byId(id).prepend(...entries.map(findEntry).reverse());
  while (byId(id).children.length > SHOWN) byId(id).lastElementChild.remove();
}

export function showFinds(finds) {
  const infected = finds.filter((find) => find.infected);
  const unsure = finds.filter((find) => !find.infected);
  if (infected.length) byId('no-finds').hidden = true;
  if (unsure.length) byId('unsure-card').hidden = false;
  list('finds', infected);
  list('unsure', unsure);
}

export function showFigures(scan, pace) {
  byId('not-fully').textContent = numberText(scan.notFullyScanned);
  byId('skipped').textContent = numberText(scan.skipped);
  byId('current').textContent = shortened(visible(scan.currentFile.replace(/[^/]*$/, ''))) || '…';
  byId('rate').textContent = fill(byId('rate').dataset.text,
    { files: Math.round(pace.files), size: sizeText(Math.round(pace.bytes)) });
  byId('time-left').textContent = pace.left === undefined ? '…'
    : fill(byId('time-left').dataset.about, { time: durationText(Math.ceil(pace.left)) });
}
