// How a scan ended: what was found, and as plainly what was not looked at. Only a scan that left nothing out is good news.
import { getJson, PATIENT } from './api.js';
import { byId } from './form.js';
import { showFinds } from './scan-details.js';
import { fill, numberText } from './wording.js';

const requestId = new URLSearchParams(location.search).get('RequestID') ?? '';
/** The figures that the page itself carries, for when nothing more can be asked. */
const { scanned, total, infected } = byId('first-counts')?.dataset ?? {};
const first = { scanned: Number(scanned), total: Number(total), found: Number(infected) };

function showCounts({ scanned: done, total: all, found, notFullyScanned, skipped }) {
  const counts = { scanned: done, total: all, infected: found, 'not-fully': notFullyScanned, skipped };
  for (const [id, count] of Object.entries(counts)) byId(id).textContent = count === undefined ? '–' : numberText(count);
  byId('infected').classList.toggle('found', found > 0);
}

function show(scan) {
  const { found, notFullyScanned, skipped } = scan;
  showCounts(scan);
  const left = { unsure: notFullyScanned, skipped };
  const known = notFullyScanned !== undefined;
  const states = {
    'something-found': found > 0,
    'nothing-scanned': scan.scanned === 0 && found === 0,
    'some-unsure': known && notFullyScanned > 0,
    'some-skipped': known && skipped > 0,
    'nothing-found': known && found === 0 && scan.scanned > 0 && notFullyScanned === 0 && skipped === 0,
    'details-failed': !known,
  };
  for (const [id, holds] of Object.entries(states)) {
    const notice = byId(id);
    if (!notice) continue;
    notice.hidden = !holds;
    if (holds && notice.dataset.text) notice.textContent = fill(notice.dataset.text, { found, ...left });
  }
}

/** Why it ended as it did, unless the page says so already. */
function showReason({ message }) {
  const reason = byId('reason');
  if (reason && message) reason.textContent = fill(reason.dataset.text, { reason: message });
}

async function load() {
  const scan = await getJson(`./scanstatus.cgi?RequestID=${encodeURIComponent(requestId)}`, PATIENT);
  show(scan);
  showReason(scan);
  showFinds(scan.finds);
  byId('finds-card').hidden = scan.found === 0;
}

if (requestId) byId('details').hash = requestId;
if (byId('first-counts')) showCounts(first);
try {
  await load();
} catch {
  if (byId('first-counts')) show(first);
}
