// Talking JSON with the console's programs. What goes wrong is thrown as an Error whose message is meant for the user;
// it is empty when there was no usable answer.
import { csrfToken } from './csrf.js';
import { serviceAway, sessionEnded } from './draft.js';

async function read(request, changes = false) {
  const answer = await request.catch(() => { throw new Error(''); });
  if (answer.redirected) {
    if (await serviceAway()) throw new Error('');
    sessionEnded(changes);
    return new Promise(() => {});
  }
  const content = await answer.json().catch(() => { throw new Error(''); });
  if (!answer.ok) throw new Error(content.error ?? '');
  return content;
}

/** Milliseconds for what takes the service long: the web server gives its programs a minute. */
export const PATIENT = 70_000;

/** Says that nobody asked for this: what a page fetches by itself, again and again, keeps no session alive. */
export const BY_PAGE = { 'Keldra-Asked-By': 'page' };

/** Without an answer in time, such as on a dead link, it fails too. */
export const getJson = (url, patience = 15_000, headers = {}) => read(fetch(url, {
  headers,
  credentials: 'same-origin',
  cache: 'no-store',
  signal: AbortSignal.timeout(patience),
}));

/** Sends fields as a form would, with the token. */
export const postJson = (url, fields) => read(fetch(url, {
  method: 'POST',
  body: new URLSearchParams({ ...fields, CsrfToken: csrfToken() }),
  credentials: 'same-origin',
  signal: AbortSignal.timeout(PATIENT),
}), true);
