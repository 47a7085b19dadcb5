// Two people saving settings: the question whether to save over what somebody else saved meanwhile, and what differs.
import { parseActions } from './actions.js';
import { addressOf, guardForm, leaveTo, readDraft } from './draft.js';
import { byId, dayName } from './form.js';
import { readPageVariables } from './page-variables.js';
import { fetchPage } from './poll.js';
import { wordsOf } from './wording.js';

const MODES = ['EnableKeenAct', 'EnableUniAct', 'CustAction'];
const field = (page, name) => page.querySelector(`#settings [name="${name}"]`)?.value ?? '';
const onOff = (value) => byId('overwrite-question').dataset[value ? 'on' : 'off'];
const labelOf = (id) => wordsOf(document.querySelector(`label[for="${id}"], #${id} > legend`));
const choice = (ids) => (value) => (ids[value] ? labelOf(ids[value]) : String(value));
const plain = (value) => (value === '' || value === '0' ? '–' : String(value));
const day = (value) => wordsOf(document.querySelector(`#week-day option[value="${dayName(value)}"]`));

/** A page's settings: the variable, the control whose label names it, and how a value is said. */
const SETTINGS = [
  ['bRealTimeScanCheckbox', 'realtime-on', onOff],
  ['IncomingStatusCheckbox', 'incoming', onOff],
  ['OutgoingStatusCheckbox', 'outgoing', onOff],
  ['bScheduleScanCheckbox', 'schedule-on', onOff],
  ['ScheduledFrequency', 'schedule', choice({ 0: 'weekly', 2: 'daily', 3: 'weekly', 4: 'monthly' })],
  ['iScheduledWDay', 'week-day', day],
  ['ScheduledMDay', 'month-day', plain],
  ['ScheduledTime', 'time', plain],
  ['ScanOptionIncludeExtList', 'files-to-scan', choice(['files-all', 'files-custom', 'files-smart'])],
  ['bScanOptionIncludeHVExtList', 'default-list', onOff],
  ['ScanOptionIncludeExtListString', 'extensions', plain],
  ['bScanOptionScanCompressed', 'scan-archives', onOff],
  ['iScanOptionCompressionLayer', 'layers', (value) => String(value + 1)],
  ['sScanOptionCompressFileSize', 'size-limit', plain],
  ['bScanOptionBackupFilesBeforeClean', 'backup', onOff],
];

/** What a page of settings holds, as texts that can be compared. */
function settingsOf(page) {
  const variables = readPageVariables(page);
  const values = SETTINGS.map(([name]) => [name, variables.get(name)]).filter(([, value]) => value !== undefined);
  return { ...Object.fromEntries(values), actions: MODES.map((name) => field(page, name)).join(' ') };
}

const actionWord = (digit) => wordsOf(document.querySelector(`#action-row`)?.content.querySelector(`option[value="${digit}"]`));
const typeWord = (type) => wordsOf(document.querySelector(`#virus-types [data-type="${CSS.escape(type)}"]`)) || type;

/** The actions in words: the mode, and the kinds of malware for which they are others than in `than`. */
function actionsText(text, than) {
  const [keen, universal, list] = text.split(' ');
  if (keen === '1') return labelOf('actions-keen');
  const [,, others] = than.split(' ');
  const same = new Set(parseActions(others).map(({ type, first, second }) => `${type}-${first}-${second}`));
  const kinds = parseActions(list).filter(({ type, first, second }) => !same.has(`${type}-${first}-${second}`))
    .map(({ type, first, second }) => `${typeWord(type)}: ${actionWord(first)}${first === '5' ? ` / ${actionWord(second)}` : ''}`);
  return [labelOf(universal === '1' ? 'actions-universal' : 'actions-custom'), ...kinds].join(' · ');
}

/** Rows of a table: what is set, mine, theirs. */
function differences(mine, theirs) {
  const rows = SETTINGS.filter(([name]) => mine[name] !== undefined && mine[name] !== theirs[name])
    .map(([name, label, text]) => [labelOf(label), text(mine[name]), text(theirs[name])]);
  if (mine.actions !== theirs.actions) {
    rows.push([labelOf('actions'), actionsText(mine.actions, theirs.actions), actionsText(theirs.actions, mine.actions)]);
  }
  return rows;
}

/** Fills a table of differences; without rows it is not shown. */
export function showDifferences(table, rows) {
  table.hidden = rows.length === 0;
  const [, ...columns] = [...table.tHead.rows[0].cells].map(({ textContent }) => textContent);
  table.tBodies[0].replaceChildren(...rows.map(([what, mine, theirs]) => {
    const row = document.createElement('tr');
    const head = document.createElement('th');
    head.scope = 'row';
    head.textContent = what;
    row.append(head, ...[mine, theirs].map((text, index) => {
      const cell = Object.assign(document.createElement('td'), { textContent: text });
      cell.dataset.column = columns[index];
      return cell;
    }));
    return row;
  }));
}

function saveOver(form, mode) {
  form.elements.namedItem('bOverWrite').value = 'true';
  form.requestSubmit(form.querySelector(`button[name="mode"][value="${mode}"]`));
}

function ask(form, mode, rows) {
  const question = byId('overwrite-question');
  showDifferences(byId('overwrite-differences'), rows);
  byId('overwrite-yes').addEventListener('click', () => {
    question.close();
    saveOver(form, mode);
  });
  byId('overwrite-no').addEventListener('click', () => leaveTo(addressOf(form)));
  byId('overwrite-edit').addEventListener('click', () => question.close());
  question.showModal();
  // The button that has the focus is its last; a long question is read from its top.
  question.scrollTop = 0;
}

/**
 * When the page came back because settings were saved meanwhile: asks what to do, unless what was saved is elsewhere and
 * all that this page shows is as it was when it was opened. Saving over sends the form again in the given mode ("Save" or
 * "SaveAndScan"). As long as nothing is saved the form goes on with the stamp of the settings that it began with.
 */
async function askAboutOverwriting(form, mine, mode, sent) {
  form.elements.namedItem('hvLastConfigFileModifiedDate').value = sent?.stamp ?? '0';
  const page = await fetchPage(addressOf(form));
  const theirs = page && settingsOf(page);
  if (theirs && sent?.base && JSON.stringify(theirs) === JSON.stringify(sent.base)) saveOver(form, mode);
  else ask(form, mode, theirs ? differences(mine, theirs) : []);
}

/** Watches over a form of settings: what is not saved in it, and what others save. Call it when its controls are filled. */
export function guardSettings(form, variables, mode = 'Save') {
  const modified = variables.get('bIsConfigFileModified') === true;
  const mine = settingsOf(document);
  const draft = readDraft();
  const sent = modified && draft?.page === addressOf(form) ? draft : null;
  const stamp = form.elements.namedItem('hvLastConfigFileModifiedDate');
  const base = modified ? sent?.base : mine;
  guardForm(form, () => ({ stamp: stamp.value, base }), modified);
  if (modified) askAboutOverwriting(form, mine, mode, sent);
}
