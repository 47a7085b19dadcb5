// The folders of a scan: a tree to choose from, names to leave out, a preview, and a save of their own.
import { getJson, PATIENT, postJson } from './api.js';
import { guardPart } from './draft.js';
import { byId } from './form.js';
import { FolderChoice } from './folder-choice.js';
import { showDifferences } from './overwrite.js';
import { joinPathList } from './path-list.js';
import { fill, showName, visible, wordsOf } from './wording.js';

const PROGRAM = './folders.cgi';
const tree = byId('tree');
const patterns = byId('patterns');
let choice = new FolderChoice([], []);
let stored = '';
let guard = null;
/** Which scan's folders: "manual", "realtime" or "scheduled". */
let kind = 'manual';

const lines = () => patterns.value.split('\n').map((line) => line.trim()).filter(Boolean);
const fields = () => ({
  scanPaths: joinPathList(choice.scanned),
  excludePaths: joinPathList(choice.excluded),
  excludePatterns: joinPathList(lines()),
});
const changed = () => JSON.stringify(fields()) !== stored;

function element(name, properties, ...children) {
  const made = Object.assign(document.createElement(name), properties);
  made.append(...children);
  return made;
}

// The tree

function showMarks() {
  for (const box of tree.querySelectorAll('input')) {
    const path = box.value;
    box.checked = choice.isScanned(path);
    box.indeterminate = choice.isMixed(path);
    box.disabled = choice.isLocked(path);
  }
}

async function toggle(button, path, list) {
  const open = button.getAttribute('aria-expanded') !== 'true';
  button.setAttribute('aria-expanded', String(open));
  list.hidden = !open;
  if (!open || list.childElementCount) return;
  try {
    const { folders, complete } = await getJson(`${PROGRAM}?path=${encodeURIComponent(path)}`, PATIENT);
    list.replaceChildren(...folders.map(branch));
    if (!folders.length) list.append(element('li', { className: 'hint', textContent: tree.dataset.none }));
    if (!complete) list.append(element('li', { className: 'hint', textContent: tree.dataset.more }));
    showMarks();
  } catch (error) {
    list.replaceChildren(element('li', { className: 'error', textContent: error.message || '…' }));
  }
}

/** A folder of the tree. Its folders are asked for when it is opened for the first time. */
function branch({ path, name, folders }) {
  const list = element('ul', { hidden: true });
  const opener = element('button', { type: 'button', className: 'opener', hidden: !folders });
  opener.setAttribute('aria-expanded', 'false');
  opener.setAttribute('aria-label', fill(tree.dataset.open, { folder: visible(name) }));
  opener.addEventListener('click', () => toggle(opener, path, list));
  const box = element('input', { type: 'checkbox', value: path });
  box.addEventListener('change', () => { choice.set(path, !choice.isScanned(path)); show(); });
  return element('li', {}, element('div', { className: 'branch' }, opener,
    element('label', {}, box, element('span', { textContent: visible(name) }))), list);
}

// What is chosen, in words

function chosenEntry(path, look, texts) {
  const remove = element('button', { type: 'button', className: 'quiet', textContent: texts.remove });
  remove.setAttribute('aria-label', fill(texts.removeOne, { folder: visible(path) }));
  remove.addEventListener('click', () => { choice.remove(path); show(); byId('folders-save').focus(); });
  const tag = element('span', { className: `tag ${look}`, textContent: look === 'good' ? texts.in : texts.out });
  const name = element('bdi');
  showName(name, path);
  return element('li', {}, tag, name, remove);
}

function show() {
  const texts = byId('chosen').dataset;
  byId('chosen').replaceChildren(
    ...[...choice.scanned].sort().map((path) => chosenEntry(path, 'good', texts)),
    ...[...choice.excluded].sort().map((path) => chosenEntry(path, 'warn', texts)),
  );
  showMarks();
  if (changed()) byId('folders-saved').hidden = true;
  if (choice.scanned.length) byId('folders-empty').hidden = true;
}

// Asking the program

function fail(error) {
  const notice = byId('folders-failed');
  notice.textContent = fill(notice.dataset.text, { reason: error.message }).trim();
  notice.hidden = false;
}

const read = () => ({ scanned: choice.scanned, excluded: choice.excluded, patterns: patterns.value });

function write(content) {
  choice = new FolderChoice(content.scanned, content.excluded);
  patterns.value = content.patterns;
  show();
}

const askSettings = () => getJson(`${PROGRAM}?mode=settings&kind=${kind}`);
const contentOf = (settings) =>
  ({ scanned: settings.scanPaths, excluded: settings.excludePaths, patterns: settings.excludePatterns.join('\n') });

async function load() {
  try {
    const [settings, roots] = await Promise.all([askSettings(), getJson(PROGRAM, PATIENT)]);
    tree.replaceChildren(...roots.folders.map(branch));
    byId('no-shares').hidden = roots.folders.length > 0;
    write(contentOf(settings));
    stored = JSON.stringify(fields());
    guard = guardPart('folders', read, write);
  } catch (error) {
    tree.replaceChildren();
    fail(error);
  }
}

async function preview() {
  const texts = byId('preview-result').dataset;
  byId('folders-failed').hidden = true;
  byId('preview-text').textContent = texts.busy;
  byId('preview-examples').replaceChildren();
  try {
    const { kept, left, complete, examples } = await postJson(PROGRAM, { mode: 'preview', kind, ...fields() });
    byId('preview-text').textContent = fill(complete ? texts.text : texts.part,
      { left, total: left + kept });
    byId('preview-examples').replaceChildren(...examples.map((path) => element('li', { textContent: visible(path) })));
  } catch (error) {
    byId('preview-text').textContent = '';
    fail(error);
  }
}

const inLines = (paths) => paths.map(visible).join(', ') || '–';

/** What is stored now, beside what is chosen here: rows of the question's table. */
function rowsOf(theirs) {
  const mine = read();
  const rows = [
    [wordsOf(byId('folders-title')), inLines(mine.scanned), inLines(theirs.scanned)],
    [byId('chosen').dataset.out, inLines(mine.excluded), inLines(theirs.excluded)],
    [wordsOf(document.querySelector('label[for="patterns"]')), inLines(lines()), inLines(theirs.patterns.split('\n').filter(Boolean))],
  ];
  return rows.filter(([, here, there]) => here !== there);
}

/**
 * Whether to save although settings were saved meanwhile: yes when it was not these folders, else as the user says, who
 * sees what differs.
 */
async function mayOverwrite() {
  const settings = await askSettings();
  const same = Object.entries(JSON.parse(stored)).every(([name, list]) => joinPathList(settings[name]) === list);
  return same || askToOverwrite(contentOf(settings));
}

function askToOverwrite(theirs) {
  const question = byId('folders-question');
  showDifferences(byId('folders-differences'), rowsOf(theirs));
  return new Promise((resolve) => {
    byId('folders-overwrite').onclick = () => question.close('overwrite');
    byId('folders-edit').onclick = () => question.close('');
    question.onclose = () => resolve(question.returnValue === 'overwrite');
    question.returnValue = '';
    question.showModal();
  });
}

/** Saves the folders. Returns whether they are saved; what went wrong is shown. */
async function save(settings, overwrite = false) {
  byId('folders-failed').hidden = true;
  byId('folders-empty').hidden = choice.scanned.length > 0;
  if (!choice.scanned.length) {
    tree.querySelector('input')?.focus();
    return false;
  }
  const stampField = settings.elements.namedItem('hvLastConfigFileModifiedDate');
  try {
    const sent = fields();
    const answer = await postJson(PROGRAM,
      { mode: 'save', kind, ...sent, hvLastConfigFileModifiedDate: stampField.value, bOverWrite: String(overwrite) });
    if (answer.modified) return await mayOverwrite() ? save(settings, true) : false;
    // Saving the other settings from this page raises no question because of this save. After somebody else's save the
    // stamp stays: what they changed in the other settings is still to be looked at.
    if (!overwrite) stampField.value = answer.stamp;
    stored = JSON.stringify(sent);
    guard.markSaved();
    byId('folders-saved').hidden = false;
    return true;
  } catch (error) {
    fail(error);
    return false;
  }
}

/**
 * `settings`: the form with the other settings. Folders chosen but not saved are saved with it, before it. `scan`: whose
 * folders they are.
 */
export function bindFolders(settings, scan) {
  kind = scan;
  patterns.addEventListener('input', show);
  byId('folders-preview').addEventListener('click', preview);
  byId('folders-save').addEventListener('click', () => save(settings));
  settings.addEventListener('submit', async (event) => {
    if (!stored || !changed()) return;
    event.preventDefault();
    event.stopImmediatePropagation();
    if (await save(settings)) settings.requestSubmit(event.submitter);
    else byId('folders').scrollIntoView();
  }, { capture: true });
  return load();
}
