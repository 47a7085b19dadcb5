// A running scan: its figures, kept current, and the button that stops it.
import { post } from './csrf.js';
import { byId } from './form.js';
import { readPageVariables } from './page-variables.js';
import { fill, follow } from './poll.js';
import { showScanDetails } from './scan-details.js';

const number = new Intl.NumberFormat(document.documentElement.lang || 'en-US');
const requestId = new URLSearchParams(location.search).get('RequestID') ?? '';
let spoken = '';

/** Tells those who do not see the bar, but only every ten percent and at every find. */
function announce(percent, values) {
  const step = `${Math.floor(percent / 10)}/${values.infected}`;
  if (step === spoken) return;
  spoken = step;
  byId('announcement').textContent = fill(byId('announcement').dataset.text, values);
}

function show(page) {
  const variables = readPageVariables(page);
  const percent = variables.get('iProgressPercent') ?? 0;
  const total = variables.get('iTotalFilesNeedToScan') ?? 0;
  const values = {
    percent: String(percent),
    scanned: number.format(variables.get('iScannedFiles') ?? 0),
    total: number.format(total),
    infected: number.format(variables.get('iInfected') ?? 0),
  };
  byId('no-answer').hidden = true;
  byId('counting').hidden = total !== 0;
  if (total === 0) byId('bar').removeAttribute('value');
  else byId('bar').value = percent;
  byId('percent').textContent = `${percent}%`;
  for (const name of ['scanned', 'total', 'infected']) byId(name).textContent = values[name];
  byId('infected').classList.toggle('found', values.infected !== '0');
  announce(percent, values);
}

byId('request-id').value = requestId;
byId('stop-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  byId('stop').disabled = true;
  // Stopped or not, the next answer shows what is.
  await post({ id: 'stop_scan', RequestID: requestId }).catch(() => null);
  byId('stop').disabled = false;
});

show(document);
showScanDetails(requestId);
follow(show, () => { byId('no-answer').hidden = false; });
