// The service's one verdict on this server: what it says, why, and where each reason can be dealt with.
import { byId } from './form.js';
import { daysText, fill, shortened, sizeText, visible } from './wording.js';

const UPDATE = './showpage.cgi?page=update_manual.html';
const REALTIME = './scanoption.cgi?id=realtime_scan';
const SHARES = './settings.cgi?page=shares';

const SCAN = './scanoption.cgi?id=manual_scan';
const SCHEDULE = './scanoption.cgi?id=scheduled_scan';
const HISTORY = './history.cgi';
const QUARANTINE = './quarantine.cgi';

/** Where a reason is dealt with; what is not named here is dealt with outside of the console. */
const REMEDIES = {
  no_signatures: UPDATE,
  signatures_unusable: UPDATE,
  signatures_outdated: UPDATE,
  signatures_not_renewed: UPDATE,
  signatures_aging: UPDATE,
  update_failed: UPDATE,
  never_updated: UPDATE,
  updates_off: './scanoption.cgi?id=scheduled_update',
  no_shares: SHARES,
  shares_gone: SHARES,
  share_missing: SHARES,
  share_empty: SHARES,
  nothing_on: REALTIME,
  realtime_not_guarding: REALTIME,
  realtime_off: REALTIME,
  never_scanned: SCAN,
  scan_incomplete: SCAN,
  nothing_scanned: SCAN,
  scan_overdue: SCHEDULE,
  files_not_scanned: HISTORY,
  untreated: HISTORY,
  quarantine_full: QUARANTINE,
  quarantine_nearly_full: QUARANTINE,
  quarantine_removal: QUARANTINE,
};

const LOOKS = { protected: 'success', attention: 'warning', unprotected: 'danger' };

const remedyOf = (reason, { untreatedScan }) =>
  (reason === 'untreated' && untreatedScan ? `${HISTORY}#${encodeURIComponent(untreatedScan)}` : REMEDIES[reason]);

const MIB = 2 ** 20;

/** Of how much or how many a reason tells; a single one of its kind is said by its sentence. */
function countText({ count, unit }) {
  const texts = byId('verdict').dataset;
  if (unit === 'days') return daysText(count);
  if (unit === 'mib') return count ? sizeText(count * MIB) : '';
  if (unit === 'mib_free') return fill(texts.free, { size: sizeText(count * MIB) });
  return count > 1 ? fill(texts[unit] ?? '{count}', { count }) : '';
}

function makeReason({ reason, severity, text, detail, count, unit }, report) {
  const entry = document.createElement('li');
  entry.className = severity === 'unprotected' ? 'grave' : '';
  const details = [countText({ count, unit }), detail ? shortened(visible(detail), 100) : ''].filter(Boolean);
  entry.append(details.length ? `${text} (${details.join(', ')})` : text);
  const remedy = remedyOf(reason, report);
  if (!remedy) return entry;
  const link = document.createElement('a');
  link.href = remedy;
  link.textContent = byId('verdict').dataset.next;
  link.setAttribute('aria-label', `${link.textContent}: ${text}`);
  entry.append(' ', link);
  return entry;
}

let told = '';

/** Shows the verdict; what the service does not say is never good. `down`: the service does not answer. */
export function showVerdict(report, down = false) {
  const element = byId('verdict');
  const { verdict, reasons = [] } = report ?? {};
  const known = !down && verdict in LOOKS;
  const content = JSON.stringify([down, verdict, reasons]);
  if (content === told) return;
  told = content;
  element.className = `notice ${down ? 'danger' : LOOKS[known ? verdict : 'attention']}`;
  byId('verdict-text').textContent = element.dataset[down ? 'down' : known ? verdict : 'unknown'];
  byId('reasons').replaceChildren(...(down ? [] : reasons.map((reason) => makeReason(reason, report))));
  byId('state').classList.toggle('stale', down);
}
