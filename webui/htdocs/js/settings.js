// Settings of the service that belong to no scan: a group of them on each page, as the service's own table describes them.
import { getJson, PATIENT, postJson } from './api.js';
import { guardPart } from './draft.js';
import { byId, copyOf, showFailure, tell } from './form.js';
import { joinPathList, splitPathList } from './path-list.js';
import { bindShares } from './shares.js';
import { fill, numberText, showUnit } from './wording.js';

const PROGRAM = './settings.cgi';
const group = new URLSearchParams(location.search).get('page') ?? 'shares';
const LISTS = ['folders', 'sources'];

const wordsFor = (list, key, value) => document.querySelector(`#${list} [data-${key}="${CSS.escape(value)}"]`);
if (!wordsFor('groups', 'group', group)) location.replace(PROGRAM);
const templateOf = ({ kind }) => (LISTS.includes(kind) ? 'lines' : kind === 'time' ? 'time-of-day' : kind);

/** How a control's value is read as the setting's text, and the other way round. */
const READ = {
  switch: (control) => (control.checked ? '1' : '0'),
  folders: (control) => joinPathList(control.value.split('\n').map((line) => line.trim()).filter(Boolean)),
};
READ.sources = READ.folders;
const read = (kind, control) => (READ[kind] ?? (({ value }) => value.trim()))(control);

function write(kind, control, value) {
  if (kind === 'switch') control.checked = value === '1';
  else if (LISTS.includes(kind)) control.value = splitPathList(value).join('\n');
  else if (kind !== 'secret') control.value = value;
  else if (value) control.placeholder = control.dataset.stored;
}

/** A setting's field. What the page has no words for is named by the service's own sentence. */
function makeField(setting) {
  const entry = copyOf(templateOf(setting));
  const control = entry.querySelector('input, select, textarea');
  const words = wordsFor('setting-names', 'setting', setting.name);
  const id = setting.name.replace('.', '-');
  control.id = id;
  control.dataset.name = setting.name;
  entry.querySelector('label').htmlFor = id;
  entry.querySelector('label').textContent = words?.textContent ?? setting.about;
  const hint = entry.querySelector('.hint');
  hint.textContent = words?.dataset.hint ?? '';
  hint.id = `${id}-hint`;
  control.setAttribute('aria-describedby', hint.id);
  if (setting.kind === 'number') describeNumber(entry, control, setting);
  for (const choice of setting.choices.split('|').filter(Boolean)) {
    control.add(new Option(wordsFor('choice-names', 'choice', choice)?.textContent ?? choice, choice));
  }
  write(setting.kind, control, setting.value);
  if (setting.unit) showUnit(entry.querySelector('.unit'), control, setting.unit);
  return entry;
}

function describeNumber(entry, control, { least, most, fallback }) {
  const error = entry.querySelector('.error');
  error.id = `${control.id}-wrong`;
  error.textContent = fill(error.dataset.text, { least, most });
  control.setAttribute('aria-describedby', `${control.id}-hint ${error.id}`);
  Object.assign(control, { min: least, max: most, required: fallback !== '' });
  control.addEventListener('input', () => {
    error.hidden = true;
    control.removeAttribute('aria-invalid');
  });
  entry.querySelector('.unit').textContent = `${numberText(least)} – ${numberText(most)}`;
}

/** The first number out of its range, or null; each says so beside itself. */
function wrongNumber() {
  let first = null;
  for (const control of byId('fields').querySelectorAll('input[type="number"]')) {
    const { valid } = control.validity;
    byId(`${control.id}-wrong`).hidden = valid;
    control.toggleAttribute('aria-invalid', !valid);
    if (!valid) first ??= control;
  }
  return first;
}

let stored = [];
let shares = null;
let guard = null;

const controlOf = ({ name }) => byId('fields').querySelector(`[data-name="${CSS.escape(name)}"]`);

/** What the page holds, by name. A secret that is left alone is not among it. */
function values() {
  const found = {};
  for (const setting of stored) {
    if (setting.name === 'shares.roots') found[setting.name] = joinPathList(shares.roots());
    else if (setting.kind !== 'secret' || controlOf(setting).value) found[setting.name] = read(setting.kind, controlOf(setting));
  }
  return found;
}

function put(content) {
  for (const setting of stored) {
    const value = content[setting.name];
    if (value === undefined) continue;
    if (setting.name === 'shares.roots') shares.choose(splitPathList(value));
    else write(setting.kind, controlOf(setting), value);
  }
}

function show(settings, proposals) {
  stored = settings.filter(({ name }) => name.startsWith(`${group}.`));
  const roots = stored.find(({ name }) => name === 'shares.roots');
  if (roots) shares = bindShares(splitPathList(roots.value), proposals);
  const fields = stored.filter((setting) => setting !== roots).map(makeField);
  byId('fields').replaceChildren(...fields);
  byId('fields').hidden = fields.length === 0;
  byId('form').hidden = false;
  guard ??= guardPart('values', () => Object.fromEntries(Object.entries(values()).filter(([name]) =>
    stored.find((setting) => setting.name === name).kind !== 'secret')), put);
}

async function load() {
  const failed = byId('load-failed');
  try {
    const { settings, proposals } = await getJson(`${PROGRAM}?list=1`, PATIENT);
    show(settings, proposals);
    failed.hidden = true;
  } catch (error) {
    showFailure(failed, error);
  }
}

async function save() {
  const wanted = Object.fromEntries(Object.entries(values())
    .filter(([name, value]) => stored.find((setting) => setting.name === name).value !== value));
  const expected = Object.fromEntries(stored.filter(({ name, kind }) => name in wanted && kind !== 'secret')
    .map(({ name, value }) => [name, value]));
  try {
    const answer = await postJson(PROGRAM, { settings: JSON.stringify(wanted), expected: JSON.stringify(expected) });
    if (shares) await shares.useInScans();
    await load();
    guard.markSaved();
    tell('saved', byId('saved').dataset[answer.backup ? 'text' : 'partly']);
  } catch (error) {
    const words = document.querySelectorAll('#setting-names li');
    const named = [...words].find((entry) => error.message.startsWith(`${entry.dataset.setting}: `));
    const reason = named ? error.message.replace(`${named.dataset.setting}: `, `${named.textContent}: `) : error.message;
    tell('refused', fill(byId('refused').dataset.text, { reason: reason.replace(/^shares\.roots: /, '') }));
  }
}

const words = wordsFor('groups', 'group', group);
if (words) {
  byId('title').textContent = words.textContent;
  byId('purpose').textContent = words.dataset.purpose;
  document.title = `${words.textContent} · Keldra`;
}
byId('form').addEventListener('submit', (event) => {
  event.preventDefault();
  const wrong = wrongNumber();
  if (wrong) wrong.focus();
  else save();
});
byId('form').noValidate = true;
await load();
