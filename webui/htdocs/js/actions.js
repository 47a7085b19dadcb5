// What happens to a find, per kind of malware. The program puts three hidden fields into the form: EnableKeenAct and
// EnableUniAct (the mode) and CustAction, such as "Universe-5-4,Virus-5-4,Joke-4-1": kind, first and second action.
import { byId, enableWhile, selectOption } from './form.js';

const PASS = '1';
const DELETE = '3';
const CLEAN = '5';
const EVERYTHING = 'Universe';

export function parseActions(text) {
  return text.split(',').map((piece) => /^(.+)-(\d)-(\d)$/.exec(piece)).filter(Boolean)
    .map(([, type, first, second]) => ({ type, first, second }));
}

export const formatActions = (entries) =>
  entries.map(({ type, first, second }) => `${type}-${first}-${second}`).join(',');

/** One line of the editor: a kind of malware and its two actions. */
function makeRow(entry, onChange) {
  const row = byId('action-row').content.cloneNode(true).firstElementChild;
  const known = document.querySelector(`#virus-types [data-type="${CSS.escape(entry.type)}"]`);
  const name = known?.textContent ?? entry.type.replaceAll('_', ' ');
  row.setAttribute('aria-label', name);
  row.querySelector('.type-name').textContent = name;
  row.querySelector('.hint').textContent = known?.dataset.about ?? '';
  const first = row.querySelector('.first');
  const second = row.querySelector('.second');
  first.dataset.type = entry.type;
  second.dataset.type = entry.type;
  selectOption(first, entry.first);
  selectOption(second, entry.second);
  const update = () => { second.disabled = first.value !== CLEAN; };
  row.addEventListener('change', () => { update(); onChange(); });
  update();
  return { row, read: () => ({ type: entry.type, first: first.value, second: second.value }) };
}

/** The actions that would be carried out in the mode that is chosen. */
function actionsInUse(rows) {
  if (byId('actions-keen').checked) return [];
  const all = byId('actions-universal').checked;
  return rows.map((row) => row.read()).filter(({ type }) => (type === EVERYTHING) === all)
    .flatMap(({ first, second }) => (first === CLEAN ? [second] : [first]));
}

function warn(rows) {
  const actions = actionsInUse(rows);
  byId('delete-warning').hidden = !actions.includes(DELETE);
  byId('pass-warning').hidden = !actions.includes(PASS);
}

function showMode(keen, universal) {
  byId('actions-keen').checked = keen;
  byId('actions-universal').checked = universal;
  byId('actions-custom').checked = !keen && !universal;
  enableWhile(byId('actions-universal'), byId('universal-actions'))();
  enableWhile(byId('actions-custom'), byId('custom-actions'))();
}

/** Saving without the kinds of malware would wipe the actions stored for them. */
function refuseToSave(form) {
  byId('actions-unknown').hidden = false;
  for (const button of form.querySelectorAll('button[name="mode"]')) button.disabled = true;
}

export function bindActions(form) {
  const field = (name) => form.elements.namedItem(name);
  const rows = [];
  const entries = parseActions(field('CustAction')?.value ?? '');
  for (const entry of entries) {
    const line = makeRow(entry, () => warn(rows));
    byId(entry.type === EVERYTHING ? 'universal-actions' : 'custom-actions').append(line.row);
    rows.push(line);
  }
  showMode(field('EnableKeenAct')?.value === '1', field('EnableUniAct')?.value === '1');
  for (const mode of document.getElementsByName('action-mode')) mode.addEventListener('change', () => warn(rows));
  warn(rows);
  if (!entries.some(({ type }) => type !== EVERYTHING)) refuseToSave(form);

  form.addEventListener('submit', () => {
    field('EnableKeenAct').value = byId('actions-keen').checked ? '1' : '0';
    field('EnableUniAct').value = byId('actions-universal').checked ? '1' : '0';
    field('CustAction').value = formatActions(rows.map((row) => row.read()));
  });
}
