// A running scan: how far it is, what it found, and the buttons that stop it or let it wait.
import { getJson, postJson } from './api.js';
import { post } from './csrf.js';
import { byId } from './form.js';
import { readPageVariables } from './page-variables.js';
import { makeClock, showFigures, showFinds } from './scan-details.js';
import { watch } from './watch.js';
import { fill, percentOf } from './wording.js';

const RUNNING = 4;
const AT_A_TIME = 200;
const LONGEST_WAIT = 8;

const requestId = new URLSearchParams(location.search).get('RequestID') ?? '';
const clock = makeClock();
let spoken = '';
let read = 0;
let wait = 1;

/** Tells those who do not see the bar, but only every ten percent and at every find. */
function announce(values) {
  const step = `${Math.floor(values.percent / 10)}/${values.infected}`;
  if (step === spoken) return;
  spoken = step;
  byId('announcement').textContent = fill(byId('announcement').dataset.text, values);
}

function showProgress(values, counting) {
  byId('counting').hidden = !counting;
  if (counting) byId('bar').removeAttribute('value');
  else byId('bar').value = values.percent;
  byId('percent').textContent = `${values.percent}%`;
  for (const name of ['scanned', 'total', 'infected']) byId(name).textContent = fill(`{${name}}`, values);
  byId('infected').classList.toggle('found', values.infected > 0);
  announce(values);
}

function show(scan) {
  const values = { percent: percentOf(scan), scanned: scan.scanned, total: scan.total, infected: scan.found };
  showProgress(values, scan.total === 0);
  showFinds(scan.finds);
  showPause(scan);
  showFigures(scan, clock(scan, Date.now() / 1000));
}

/** Whether the scan waits, and for what; the button says what it would do now. */
function showPause({ paused }) {
  const button = byId('pause');
  button.textContent = button.dataset[paused === 'asked' ? 'resume' : 'pause'];
  button.dataset.action = paused === 'asked' ? 'resume' : 'pause';
  button.hidden = paused === 'window';
  byId('paused').hidden = !paused;
  if (paused) byId('paused').textContent = byId('paused').dataset[paused];
}

/** What the page itself carries, until the first answer. */
function showFirst() {
  const variables = readPageVariables();
  const of = (name) => variables.get(name) ?? 0;
  const values =
    { percent: of('iProgressPercent'), scanned: of('iScannedFiles'), total: of('iTotalFilesNeedToScan'), infected: of('iInfected') };
  showProgress(values, values.total === 0);
}

byId('request-id').value = requestId;
byId('stop-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  byId('stop').disabled = true;
  // Stopped or not, the next answer shows what is.
  await post({ id: 'stop_scan', RequestID: requestId }).catch(() => null);
  byId('stop').disabled = false;
});

byId('pause').addEventListener('click', async ({ target }) => {
  target.disabled = true;
  await postJson('./scanstatus.cgi', { action: target.dataset.action, RequestID: requestId }).catch(() => null);
  target.disabled = false;
});

showFirst();
watch(async () => {
  try {
    const scan = await getJson(`./scanstatus.cgi?RequestID=${encodeURIComponent(requestId)}&From=${read}`);
    read += scan.finds.length;
    wait = scan.finds.length === AT_A_TIME ? 0.1 : 1;
    byId('no-answer').hidden = true;
    if (scan.state === RUNNING) {
      show(scan);
      return true;
    }
    location.reload();
    return false;
  } catch {
    wait = Math.min(wait * 2, LONGEST_WAIT);
    byId('no-answer').hidden = false;
    return true;
  }
}, () => wait);
