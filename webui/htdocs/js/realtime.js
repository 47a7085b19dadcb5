// The real-time scan: on or off, what it guards, and when files are checked.
import { bindFolders } from './folders.js';
import { byId, enableWhile, validateOnSubmit } from './form.js';
import { guardSettings } from './overwrite.js';
import { readPageVariables } from './page-variables.js';
import { bindScanSettings } from './scan-settings.js';

const form = byId('settings');
const variables = readPageVariables();
const on = byId('realtime-on');
const incoming = byId('incoming');
const outgoing = byId('outgoing');

on.checked = variables.get('bRealTimeScanCheckbox') === true;
incoming.checked = variables.get('IncomingStatusCheckbox') === true;
outgoing.checked = variables.get('OutgoingStatusCheckbox') === true;
enableWhile(on, byId('directions'))();
on.addEventListener('change', () => {
  if (!on.checked || incoming.checked || outgoing.checked) return;
  incoming.checked = true;
  outgoing.checked = true;
});

/** Switched off is a state like others; that it does not run although it is on, or cannot run at all, is an alarm. */
function showState() {
  const state = byId('realtime-state');
  // Only the notice of a kernel that does not let files be watched names its module, and does so in every language.
  const impossible = state.textContent.includes('KHM');
  const broken = variables.get('bRealTimeScanDisabled') === true && (on.checked || impossible);
  byId('realtime-why').hidden = !impossible;
  if (impossible) state.textContent = state.dataset.impossible;
  else if (broken) state.textContent = state.dataset.broken;
  else if (!on.checked) state.textContent = state.dataset.off;
  state.className = `notice ${impossible || broken ? 'danger' : 'quiet'}`;
  if (impossible || broken) state.setAttribute('role', 'alert');
}

showState();
bindFolders(form, 'realtime');
validateOnSubmit(form, bindScanSettings(form, variables));
guardSettings(form, variables);
