// The real-time scan: on or off, and when files are checked.
import { askAboutOverwriting, byId, enableWhile, validateOnSubmit } from './form.js';
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

// The service is not able to scan in real time: settings can still be made, and take effect once it is.
if (variables.get('bRealTimeScanDisabled') === true) {
  const state = byId('realtime-state');
  state.classList.replace('warning', 'danger');
  state.setAttribute('role', 'alert');
  // Only the notice of a kernel that does not let files be watched names its module, and does so in every language.
  byId('realtime-why').hidden = !state.textContent.includes('KHM');
}

validateOnSubmit(form, bindScanSettings(form, variables));
askAboutOverwriting(form, variables.get('bIsConfigFileModified') === true, 'Save');
