// Who is told of what happens: mail and web hooks, which events, and a test that says what went wrong.
import { getJson, postJson } from './api.js';
import { guardPart } from './draft.js';
import { byId, check, copyOf, showFailure, tell } from './form.js';
import { fill, showUnit } from './wording.js';

const PROGRAM = './notices.cgi';
const form = byId('form');
const named = [...form.querySelectorAll('[data-field]')];
const secrets = [...form.querySelectorAll('[data-secret]')];
const kinds = [...byId('kinds').querySelectorAll('input')];

let revision = 0;
let guard = null;
/** Secrets that are to be removed. */
const dropped = new Set();

function read(control) {
  if (control.type === 'checkbox') return control.checked;
  if (control.type === 'number') return Number(control.value);
  const text = control.value.trim();
  return control.id === 'hook-url' && text && !text.includes('://') ? `https://${text}` : text;
}

/** What the form holds, without secrets. */
const plainValues = () => ({
  ...Object.fromEntries(named.map((control) => [control.dataset.field, read(control)])),
  Kinds: kinds.filter(({ checked }) => checked).map(({ value }) => value).join(','),
});

function put(values) {
  for (const control of named) {
    const value = values[control.dataset.field];
    if (value === undefined) continue;
    if (control.type === 'checkbox') control.checked = value;
    else control.value = value;
  }
  const chosen = (values.Kinds ?? '').split(',');
  for (const kind of kinds) kind.checked = chosen.includes(kind.value);
  adapt();
}

/** Only what belongs to the present choice can be filled in. */
function adapt() {
  byId('mail-fields').hidden = !byId('mail').checked;
  byId('hook-fields').hidden = !byId('hook').checked;
  byId('smtp-fields').hidden = byId('mail-by').value !== 'smtp';
  byId('smtp-open').hidden = byId('smtp-security').value !== 'none' || byId('smtp-user').value.trim() === '';
  byId('hook-url-hint').textContent = byId('hook-url-hint').dataset[byId('hook-kind').value];
  byId('mail-test').disabled = !byId('mail').checked;
  byId('hook-test').disabled = !byId('hook').checked;
}

function showSecret(control, isStored) {
  dropped.delete(control);
  control.value = '';
  control.parentElement.querySelector('.stored')?.remove();
  if (!isStored) return;
  const mark = copyOf('stored');
  mark.querySelector('button').addEventListener('click', () => {
    dropped.add(control);
    mark.remove();
    control.focus();
  });
  control.after(mark);
}

/** The first field that lacks something, or undefined; each says so beside itself. */
function wrongField() {
  const mail = byId('mail').checked;
  const needed = { 'mail-to': mail, 'mail-from': mail, 'smtp-server': mail && byId('mail-by').value === 'smtp', 'hook-url': byId('hook').checked };
  const wrong = Object.entries(needed)
    .filter(([id, isNeeded]) => !check(byId(id), `${id}-wrong`, !isNeeded || byId(id).value.trim() !== '')).map(([id]) => byId(id));
  if (!check(byId('bundle'), 'bundle-wrong', byId('bundle').validity.valid)) wrong.unshift(byId('bundle'));
  return wrong[0];
}

async function load() {
  const failed = byId('load-failed');
  try {
    const values = await getJson(`${PROGRAM}?list=1`);
    revision = values.Revision;
    put(values);
    showUnit(byId('bundle-unit'), byId('bundle'), 'seconds');
    for (const control of secrets) showSecret(control, values[`${control.dataset.secret}Set`]);
    const problem = byId('problem');
    problem.hidden = values.Waiting === 0 || !values.Problem;
    problem.textContent = fill(problem.dataset.text, { count: values.Waiting, reason: values.Problem });
    form.hidden = false;
    guard ??= guardPart('values', plainValues, put);
    guard.markSaved();
    failed.hidden = true;
  } catch (error) {
    showFailure(failed, error);
  }
}

/** Saves what the form holds. Returns whether it is stored; why not is told. */
async function save() {
  const wrong = wrongField();
  if (wrong) {
    wrong.focus();
    return false;
  }
  const settings = { ...plainValues(), Revision: revision };
  for (const control of secrets) if (control.value || dropped.has(control)) settings[control.dataset.secret] = control.value;
  try {
    await postJson(PROGRAM, { action: 'save', settings: JSON.stringify(settings) });
  } catch (error) {
    tell('refused', fill(byId('refused').dataset.text, { reason: error.message || byId('load-failed').dataset.text }));
    return false;
  }
  await load();
  byId('refused').hidden = true;
  return true;
}

async function test(way) {
  if (!await save()) return;
  const outcome = byId(`${way}-outcome`);
  const show = (look, text) => {
    outcome.className = `notice ${look}`;
    outcome.textContent = text;
    outcome.hidden = false;
  };
  show('', outcome.dataset.busy);
  byId(`${way}-test`).disabled = true;
  try {
    await postJson(PROGRAM, { action: 'test', way });
    show('success', outcome.dataset.good);
  } catch (error) {
    show('danger', fill(outcome.dataset.failed, { reason: error.message || byId('load-failed').dataset.text }));
  }
  adapt();
}

form.noValidate = true;
form.addEventListener('input', adapt);
form.addEventListener('submit', async (event) => {
  event.preventDefault();
  if (await save()) tell('saved', byId('saved').dataset.text);
});
for (const button of form.querySelectorAll('[data-way]')) button.addEventListener('click', () => test(button.dataset.way));
await load();
