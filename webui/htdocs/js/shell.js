// What every page does: tokens into its forms, the current page marked in the navigation, nothing shown from memory
// after the session ended.
import { fillTokensOnSubmit } from './csrf.js';
import { dropDraft, readDraft } from './draft.js';

const byId = (id) => document.getElementById(id);
/** Pages that say that what was sent is saved. */
const SAVED = ['saved', 'disk-full', 'scan-progress'];

fillTokensOnSubmit();

const { page: kind, section: named } = document.body.dataset;
/** One page serves several groups of settings; its address tells which. */
const section = named === 'settings' ? `settings-${new URLSearchParams(location.search).get('page') ?? 'shares'}` : named;
const current = document.querySelector(`nav a[data-section="${CSS.escape(section ?? '')}"]`);
if (current) {
  current.setAttribute('aria-current', 'page');
  byId('where').textContent = current.textContent;
}

// On a narrow screen the list of pages opens on demand.
const opener = byId('menu');
opener?.addEventListener('click', () => {
  const open = opener.getAttribute('aria-expanded') !== 'true';
  opener.setAttribute('aria-expanded', String(open));
});

/** Milliseconds between two signs of use. */
const SIGN_EVERY = 5000;
let signed = Date.now();

/** Who types or clicks uses the session, also while nothing of it is sent. Any page that asks for nothing else tells so. */
function signOfUse({ isTrusted }) {
  if (!isTrusted || Date.now() - signed < SIGN_EVERY) return;
  signed = Date.now();
  fetch('./account.cgi', { redirect: 'manual', cache: 'no-store' }).catch(() => {});
}

if (byId('logoff')) {
  for (const name of ['keydown', 'pointerdown']) document.addEventListener(name, signOfUse, { capture: true, passive: true });
  sessionStorage.setItem('keldra-on', '1');
  byId('logoff').addEventListener('submit', () => {
    sessionStorage.clear();
    sessionStorage.setItem('keldra-left', '1');
  });
}

if (SAVED.includes(kind)) dropDraft();
const draft = readDraft();
const reminder = byId('unsaved');
const form = byId('settings')?.elements.namedItem('id');
const isHere = draft && (draft.page === location.pathname + location.search || draft.page.endsWith(`id=${form?.value}`));
if (draft && reminder && !isHere && kind !== 'failed') {
  byId('unsaved-page').textContent = draft.title;
  byId('unsaved-page').href = draft.page;
  byId('unsaved-drop').addEventListener('click', () => {
    dropDraft();
    reminder.hidden = true;
  });
  byId('content').prepend(reminder);
  reminder.hidden = false;
}

// A page that the browser kept in memory is asked for again: the server decides whether it may still be seen.
window.addEventListener('pageshow', (event) => {
  if (event.persisted) location.reload();
});
