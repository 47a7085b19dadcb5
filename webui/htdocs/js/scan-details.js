// What a running scan tells beside its percentage: finds as they happen, what could not be scanned, where it is, how
// fast, and how long it will still take.
import { findEntry } from './finds.js';
import { byId } from './form.js';
import { durationText, fill, numberText, shortened, sizeText, visible } from './wording.js';

const SHOWN = 200;
const WINDOW = 15;

/** Files and bytes per second over the last seconds, from one look at a scan after the other. */
export function makeClock() {
  const looks = [];
  return ({ scanned, skipped, bytesDone }, now) => {
    looks.push({ files: scanned + skipped, bytes: bytesDone, now });
    while (looks.length > 2 && now - looks[0].now > WINDOW) looks.shift();
    const [first] = looks;
    const last = looks.at(-1);
    const time = now - first.now;
    if (time <= 0) return { files: 0, bytes: 0 };
    return { files: (last.files - first.files) / time, bytes: (last.bytes - first.bytes) / time };
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
  byId('time-left').textContent = scan.secondsLeft < 0 ? '…'
    : fill(byId('time-left').dataset.about, { time: durationText(scan.secondsLeft) });
}
