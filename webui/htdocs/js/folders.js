// The folders of the manual scan: a tree to choose from, names to leave out, a preview, and a save of their own.
import { getJson, PATIENT, postJson } from './api.js';
import { byId, check } from './form.js';
import { FolderChoice } from './folder-choice.js';
import { joinPathList } from './path-list.js';
import { fill } from './poll.js';
import { numberText } from './wording.js';

const PROGRAM = '/NorvLinux/folders.cgi';
const tree = byId('tree');
const patterns = byId('patterns');
let choice = new FolderChoice([], []);
let stored = '';

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
  opener.setAttribute('aria-label', fill(tree.dataset.open, { folder: name }));
  opener.addEventListener('click', () => toggle(opener, path, list));
  const box = element('input', { type: 'checkbox', value: path });
  box.addEventListener('change', () => { choice.set(path, !choice.isScanned(path)); show(); });
  return element('li', {}, element('div', { className: 'branch' }, opener,
    element('label', {}, box, element('span', { textContent: name }))), list);
}

// What is chosen, in words

function chosenEntry(path, look, texts) {
  const remove = element('button', { type: 'button', className: 'quiet', textContent: texts.remove });
  remove.setAttribute('aria-label', fill(texts.removeOne, { folder: path }));
  remove.addEventListener('click', () => { choice.remove(path); show(); byId('folders-save').focus(); });
  const tag = element('span', { className: `tag ${look}`, textContent: look === 'good' ? texts.in : texts.out });
  return element('li', {}, tag, element('bdi', { textContent: path }), remove);
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

async function load() {
  try {
    const [settings, roots] = await Promise.all([getJson(`${PROGRAM}?mode=settings`), getJson(PROGRAM, PATIENT)]);
    choice = new FolderChoice(settings.scanPaths, settings.excludePaths);
    patterns.value = settings.excludePatterns.join('\n');
    stored = JSON.stringify(fields());
    tree.replaceChildren(...roots.folders.map(branch));
    show();
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
    const { kept, left, complete, examples } = await postJson(PROGRAM, { mode: 'preview', ...fields() });
    byId('preview-text').textContent = fill(complete ? texts.text : texts.part,
      { left: numberText(left), total: numberText(left + kept) });
    byId('preview-examples').replaceChildren(...examples.map((path) => element('li', { textContent: path })));
  } catch (error) {
    byId('preview-text').textContent = '';
    fail(error);
  }
}

/** The user's answer to whether to save over somebody else's changes. */
function askToOverwrite() {
  const question = byId('folders-question');
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
      { mode: 'save', ...sent, hvLastConfigFileModifiedDate: stampField.value, bOverWrite: String(overwrite) });
    if (answer.modified) return await askToOverwrite() ? save(settings, true) : false;
    // Saving the other settings from this page raises no question because of this save.
    stampField.value = answer.stamp;
    stored = JSON.stringify(sent);
    byId('folders-saved').hidden = false;
    return true;
  } catch (error) {
    fail(error);
    return false;
  }
}

/** `settings`: the form with the other settings. Folders chosen but not saved are saved with it, before it. */
export function bindFolders(settings) {
  patterns.addEventListener('input', show);
  byId('folders-preview').addEventListener('click', preview);
  byId('folders').addEventListener('submit', (event) => {
    event.preventDefault();
    save(settings);
  });
  settings.addEventListener('submit', async (event) => {
    if (!stored || !changed()) return;
    event.preventDefault();
    event.stopImmediatePropagation();
    if (await save(settings)) settings.requestSubmit(event.submitter);
    else byId('folders').scrollIntoView();
  }, { capture: true });
  return load();
}
