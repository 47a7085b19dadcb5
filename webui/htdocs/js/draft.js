// What was typed into a form and is not saved: whoever leaves is warned, and what was on its way when the session ended
// is kept in this tab and offered again. Passwords are never kept.

const DRAFT = 'keldra-draft';
const KEPT = 'input:not([type=hidden], [type=password]), select, textarea';
/** Such a part of a form is kept by itself. */
const APART = '#folders';

const byId = (id) => document.getElementById(id);
const nameOf = (control) => control.id || [control.className, control.dataset.type].filter(Boolean).join(':');
const isBox = (control) => ['checkbox', 'radio'].includes(control.type);
const controlsOf = (form) => [...form.querySelectorAll(KEPT)].filter((control) => nameOf(control) && !control.closest(APART));

/** The parts of the page that may hold something unsaved: how their content is read and put back. */
const parts = [];
let leaving = false;

const readForm = (form) => Object.fromEntries(
  controlsOf(form).map((control) => [nameOf(control), isBox(control) ? control.checked : control.value]),
);

function fillForm(form, content) {
  for (const control of controlsOf(form)) {
    const value = content[nameOf(control)];
    if (value === undefined) continue;
    if (isBox(control)) control.checked = value;
    else control.value = value;
  }
  for (const control of controlsOf(form)) {
    control.dispatchEvent(new Event('input', { bubbles: true }));
    if (control.type !== 'radio' || control.checked) control.dispatchEvent(new Event('change', { bubbles: true }));
  }
}

const changed = (part) => JSON.stringify(part.read()) !== part.stored;
const address = () => location.pathname + location.search;

/** The draft of this tab; null when there is none. */
export function readDraft() {
  try {
    return JSON.parse(sessionStorage.getItem(DRAFT));
  } catch {
    return null;
  }
}

export const dropDraft = () => sessionStorage.removeItem(DRAFT);

function keepDraft(more = {}) {
  const content = Object.fromEntries(parts.map((part) => [part.name, part.read()]));
  const title = document.querySelector('main h1')?.textContent ?? '';
  const page = parts.find((part) => part.address)?.address ?? address();
  sessionStorage.setItem(DRAFT, JSON.stringify({ page, title, content, ...more }));
}

/** Whether the service does not answer. Then nobody knows of any session, and a redirection to the log-on page ends none. */
export const serviceAway = async () =>
  (await fetch('/NorvLinux/overview.cgi', { redirect: 'manual', cache: 'no-store' }).catch(() => null))?.status === 503;

/** The session has ended while this page was open: over to the log-on page, with what was typed. `undone`: something was asked for. */
export function sessionEnded(undone = false) {
  leaving = true;
  sessionStorage.setItem('keldra-ended', '1');
  if (undone) sessionStorage.setItem('keldra-undone', '1');
  if (parts.some(changed)) keepDraft();
  location.assign('/');
}

/** Goes somewhere without the question about unsaved changes. */
export function leaveTo(url) {
  leaving = true;
  location.assign(url);
}

function warn(event) {
  if (!leaving && parts.some(changed)) event.preventDefault();
}

function offer(draft) {
  const notice = byId('kept');
  if (!notice) return;
  notice.hidden = false;
  byId('kept-use').onclick = () => {
    for (const part of parts) if (draft.content[part.name]) part.write(draft.content[part.name]);
    notice.hidden = true;
    dropDraft();
  };
  byId('kept-drop').onclick = () => {
    notice.hidden = true;
    dropDraft();
  };
}

/** What is stored by now need not be kept: an answer that said so may have been left before its script ran. */
function forget(draft, name) {
  delete draft.content[name];
  if (Object.keys(draft.content).length) sessionStorage.setItem(DRAFT, JSON.stringify(draft));
  else dropDraft();
}

/** Watches over one more part of the page. What it holds now counts as saved until `markSaved` says so of something else. */
export function guardPart(name, read, write) {
  if (!parts.length) window.addEventListener('beforeunload', warn);
  const part = { name, read, write, stored: JSON.stringify(read()) };
  parts.push(part);
  const draft = readDraft();
  if (draft?.page === address() && draft.content[name]) {
    if (JSON.stringify(draft.content[name]) === part.stored) forget(draft, name);
    else offer(draft);
  }
  return { markSaved: () => { part.stored = JSON.stringify(part.read()); } };
}

/** The address of the settings page that a form belongs to, also when the form came back as an answer. */
export const addressOf = (form) => `${location.pathname}?id=${form.elements.namedItem('id').value}`;

/**
 * Watches over a settings form that is sent as a form. `about`: gives what the page's answer will want to know of it;
 * `unsaved`: whether it came back without being saved.
 */
export function guardForm(form, about, unsaved = false) {
  const guard = guardPart('settings', () => readForm(form), (content) => fillForm(form, content));
  const part = parts.at(-1);
  part.address = addressOf(form);
  if (unsaved) part.stored = '';
  form.addEventListener('submit', (event) => {
    if (event.defaultPrevented) return;
    leaving = true;
    keepDraft(about());
  });
  return guard;
}
