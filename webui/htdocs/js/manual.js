// The manual scan: its settings, and the start of a scan once they are saved.
import { getJson } from './api.js';
import { post } from './csrf.js';
import { dropDraft, sessionEnded } from './draft.js';
import { bindFolders } from './folders.js';
import { byId, validateOnSubmit } from './form.js';
import { guardSettings } from './overwrite.js';
import { readPageVariables } from './page-variables.js';
import { fetchPage } from './poll.js';
import { bindScanSettings } from './scan-settings.js';

const form = byId('settings');
const variables = readPageVariables();
const modified = variables.get('bIsConfigFileModified') === true;
const saveFailed = variables.get('bSaveFailed') === true;
const saved = variables.get('bStartScan') === true && !modified && !saveFailed;

async function startScan() {
  byId('starting').hidden = false;
  for (const button of form.querySelectorAll('button')) button.disabled = true;
  const id = await askForScan();
  if (id) {
    // This page is older than what it saved, so it must not be come back to: replace it.
    location.replace(`./scanoption.cgi?id=scan_progress_query&RequestID=${encodeURIComponent(id)}`);
    return;
  }
  await renewStamp();
  byId('starting').hidden = true;
  byId('start-failed').hidden = false;
  for (const button of form.querySelectorAll('button')) button.disabled = false;
}

/** Takes over the stamp of the settings just saved, so that saving again from here raises no question. */
async function renewStamp() {
  const fresh = await fetchPage('./scanoption.cgi?id=manual_scan');
  const stamp = fresh?.querySelector('[name="hvLastConfigFileModifiedDate"]')?.value;
  if (stamp) form.elements.namedItem('hvLastConfigFileModifiedDate').value = stamp;
}

/** The id of the scan that was started; empty when none was. */
async function askForScan() {
  try {
    const answer = await post({ id: 'manual_scan', mode: 'Scan' });
    if (answer.redirected) sessionEnded();
    const id = answer.ok ? await answer.text() : '';
    return /^[0-9_]+$/.test(id) ? id : '';
  } catch {
    return '';
  }
}

/** Leads back to a scan that was left. */
async function showRunningScan() {
  const { running } = await getJson('./overview.cgi').catch(() => ({ running: [] }));
  const scan = running.find(({ kind }) => kind === 'manual');
  if (!scan) return;
  byId('running-link').href = `./scanoption.cgi?id=scan_progress_query&RequestID=${encodeURIComponent(scan.id)}`;
  byId('already-running').hidden = false;
}

if (saved) dropDraft();
bindFolders(form, 'manual');
validateOnSubmit(form, bindScanSettings(form, variables));
guardSettings(form, variables, variables.get('iDoScanNow') === 1 ? 'SaveAndScan' : 'Save');
if (saveFailed) byId('save-failed').hidden = false;
if (saved) startScan();
else showRunningScan();
