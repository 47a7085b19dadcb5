// The manual update: what to fetch, then over to its progress.
import { getJson } from './api.js';
import { bindComponents } from './components.js';
import { post } from './csrf.js';
import { sessionEnded } from './draft.js';
import { byId, validateOnSubmit } from './form.js';
import { readPageVariables } from './page-variables.js';

const form = byId('settings');

/** A name for this update that no other browser chooses: time and chance, digits and "_" only. */
function newRequestId() {
  const chance = crypto.getRandomValues(new Uint32Array(2));
  return `${Date.now()}_${chance[0]}${chance[1]}`;
}

async function startUpdate() {
  byId('request-id').value = newRequestId();
  byId('start-failed').hidden = true;
  byId('update').disabled = true;
  try {
    // The answer says nothing about the outcome; the progress of this id does.
    const answer = await post(Object.fromEntries(new FormData(form)));
    if (!answer.ok) throw new Error(answer.statusText);
    const id = encodeURIComponent(byId('request-id').value);
    if (answer.redirected) sessionEnded();
    else location.assign(`./scanoption.cgi?id=update_progress&RequestID=${id}`);
  } catch {
    byId('start-failed').hidden = false;
  }
  byId('update').disabled = false;
}

validateOnSubmit(form, [bindComponents(readPageVariables())]);
form.addEventListener('submit', (event) => {
  if (event.defaultPrevented) return;
  event.preventDefault();
  startUpdate();
});

/** Leads back to an update that was left. */
async function showRunningUpdate() {
  const { update } = await getJson('./overview.cgi').catch(() => ({ update: {} }));
  if (!update.running || !update.id) return;
  byId('running-link').href = `./scanoption.cgi?id=update_progress&RequestID=${encodeURIComponent(update.id)}`;
  byId('already-running').hidden = false;
}

showRunningUpdate();
