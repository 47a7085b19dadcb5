// The quarantine: what is in it, and what is done with it, one by one or in bulk.
import { getJson, PATIENT, postJson } from './api.js';
import { byId, copyOf, showFailure } from './form.js';
import { ask } from './question.js';
import { fill, malwareAbout, malwareText, showName, sizeText, splitPath, timeText, visible } from './wording.js';

const STEP = 100;
const BATCH = 100;

let items = [];
let trusted = [];
let limit = STEP;
let inDetails = null;
const picked = new Set();
const refusals = new Map();

const wanted = () => byId('search').value.trim().toLocaleLowerCase();
const fits = (item, words) => `${item.path}\n${item.signature}`.toLocaleLowerCase().includes(words);
/** One piece of a row, which breaks between pieces only. */
const unbroken = (text) => text.replace(/ /g, '\u00a0');
/** What the list may be sorted by: the newest and the largest first, texts by their letters. */
const collator = new Intl.Collator(document.documentElement.lang || 'en-US', { numeric: true });
const byText = (text) => (a, b) => collator.compare(text(a), text(b));
const ORDERS = {
  when: (a, b) => b.when - a.when,
  size: (a, b) => b.size - a.size,
  name: byText(({ path }) => splitPath(path).name),
  place: byText(({ path }) => path),
  malware: byText(({ signature }) => signature),
};
const matching = () => items.filter((item) => fits(item, wanted())).sort(ORDERS[byId('sort').value]);
const shown = () => matching().slice(0, limit);

function showRefusal(entry, id) {
  const error = entry.querySelector('.error');
  error.hidden = !refusals.has(id);
  error.textContent = refusals.get(id) ?? '';
}

function showDetails(item) {
  inDetails = item;
  const task = byId('details-task');
  const scan = /^(\d+)_\d+$/.exec(item.task);
  byId('details-title').textContent = visible(splitPath(item.path).name);
  byId('details-path').textContent = visible(item.path);
  byId('details-malware').textContent = `${malwareText(item.type)} (${item.signature})`;
  byId('details-what').textContent = malwareAbout(item.type);
  byId('details-when').textContent = timeText(item.when);
  task.textContent = item.task === 'realtime' ? task.dataset.realtime : item.task;
  if (scan) task.replaceChildren(linkToScan(item.task, fill(task.dataset.scan, { time: timeText(Number(scan[1])) })));
  byId('details-size').textContent = sizeText(item.size);
  byId('details-modified').textContent = timeText(item.modified);
  byId('details-owner').textContent = fill(byId('details-owner').dataset.text,
    { user: item.ownerName || String(item.owner), group: item.groupName || String(item.group), mode: (item.mode & 0o7777).toString(8).padStart(4, '0') });
  byId('details-hash').textContent = item.sha256;
  byId('details-backup').hidden = !item.backup;
  byId('details').showModal();
}

function linkToScan(id, text) {
  const link = document.createElement('a');
  link.href = `./history.cgi#${id}`;
  link.textContent = text;
  return link;
}

function makeItem(item) {
  const entry = copyOf('item');
  const { name, folder } = splitPath(item.path);
  const pick = entry.querySelector('.pick');
  entry.dataset.id = item.id;
  pick.checked = picked.has(item.id);
  pick.setAttribute('aria-label', fill(pick.dataset.label, { name: visible(name) }));
  showName(entry.querySelector('.open'), name, false);
  showName(entry.querySelector('.folder'), folder);
  entry.querySelector('.kind').textContent = malwareText(item.type);
  entry.querySelector('.kind').title = item.signature;
  entry.querySelector('.copy').hidden = !item.backup;
  entry.querySelector('.when').textContent =
    [item.signature, unbroken(sizeText(item.size)), unbroken(timeText(item.when))].join(' · ');
  showRefusal(entry, item.id);
  return entry;
}

function makeTrusted({ sha256, name }) {
  const entry = copyOf('trusted-item');
  entry.dataset.id = sha256;
  showName(entry.querySelector('.name'), name);
  entry.querySelector('.hash').textContent = `SHA-256 ${sha256.slice(0, 16)}…`;
  entry.querySelector('.distrust').setAttribute('aria-label',
    `${entry.querySelector('.distrust').textContent}: ${visible(splitPath(name).name)}`);
  showRefusal(entry, sha256);
  return entry;
}

function showPicked() {
  const all = matching();
  const onPage = all.slice(0, limit);
  const count = all.filter(({ id }) => picked.has(id)).length;
  const onPagePicked = onPage.filter(({ id }) => picked.has(id)).length;
  byId('pick-matching').hidden = all.length <= onPage.length || onPagePicked < onPage.length || count === all.length;
  byId('pick-matching').textContent = fill(byId('pick-matching').dataset.text, { count: all.length });
  byId('picked').textContent = fill(byId('picked').dataset.text, { count });
  byId('pick-all').checked = onPagePicked > 0 && onPagePicked === onPage.length;
  byId('pick-all').indeterminate = onPagePicked > 0 && onPagePicked < onPage.length;
  for (const button of byId('bulk').querySelectorAll('button')) button.disabled = count === 0;
}

function show() {
  const all = matching();
  byId('items').replaceChildren(...shown().map(makeItem));
  byId('count').textContent = fill(byId('count').dataset.text,
    { shown: Math.min(limit, all.length), total: items.length });
  byId('count').hidden = items.length === 0;
  byId('looking').hidden = items.length === 0;
  byId('bulk').hidden = all.length === 0;
  byId('nothing').hidden = items.length !== 0;
  byId('no-match').hidden = items.length === 0 || all.length !== 0;
  byId('more').hidden = all.length <= limit;
  byId('trusted').replaceChildren(...trusted.map(makeTrusted));
  byId('none-trusted').hidden = trusted.length !== 0;
  showPicked();
}

/** All that is in quarantine, read page by page. What came in meanwhile moves the others on, so some come twice. */
async function readAll() {
  const found = new Map();
  for (let from = 0, total = 1; from < total;) {
    const page = await getJson(`./quarantine.cgi?list=1&From=${from}`, PATIENT);
    for (const item of page.items) found.set(item.id, item);
    trusted = page.trusted.sort((a, b) => a.name.localeCompare(b.name));
    from += page.items.length;
    total = page.items.length ? page.total : 0;
    if (!items.length) {
      items = page.items;
      show();
    }
  }
  return [...found.values()];
}

async function load() {
  const failed = byId('load-failed');
  try {
    items = await readAll();
    failed.hidden = true;
    show();
  } catch (error) {
    showFailure(failed, error);
    byId('count').hidden = true;
  }
}

/** Does one thing to each id and remembers what was refused. Returns the ids for which it is done. */
async function send(action, ids) {
  const done = [];
  for (let from = 0; from < ids.length; from += BATCH) {
    const batch = ids.slice(from, from + BATCH);
    const failed = (error) => ({ results: batch.map((id) => ({ id, done: false, message: error.message })) });
    const { results } = await postJson('./quarantine.cgi', { action, ids: batch.join(',') }).catch(failed);
    for (const result of results) {
      if (result.done) done.push(result.id);
      else refusals.set(result.id, result.message || byId('load-failed').dataset.text);
    }
  }
  return done;
}

/**
 * Says how it went, and moves there: the entry that had the focus may be gone. `done`: for each action how many files it
 * succeeded for, the last one being what was wanted in the end.
 */
function tell(done, asked) {
  const outcome = byId('outcome');
  const failed = asked - Object.values(done).at(-1);
  const texts = Object.entries(done).filter(([, count]) => count > 0)
    .map(([action, count]) => fill(outcome.dataset[action], { count }));
  if (failed > 0) texts.push(fill(outcome.dataset.partly, { count: failed }));
  outcome.textContent = texts.join(' · ');
  outcome.className = failed ? 'notice warning' : 'notice success';
  outcome.hidden = false;
  outcome.focus();
}

const nameOf = (id) => items.find((item) => item.id === id)?.path ?? trusted.find((one) => one.sha256 === id)?.name ?? id;

async function act(action, ids) {
  byId('restore-too-choice').hidden = action !== 'trust';
  byId('restore-too').checked = true;
  if (!ids.length || !await ask(action, ids.map(nameOf), { danger: action === 'delete' })) return;
  refusals.clear();
  let done = await send(action, ids);
  const counts = { [action]: done.length };
  if (action === 'trust' && byId('restore-too').checked) {
    done = await send('restore', done);
    counts.restore = done.length;
  }
  for (const id of done) picked.delete(id);
  await load();
  tell(counts, ids.length);
}

byId('search').addEventListener('input', () => { limit = STEP; show(); });
byId('sort').addEventListener('change', () => { limit = STEP; show(); });
byId('more').addEventListener('click', () => { limit += STEP; show(); });
byId('pick-matching').addEventListener('click', () => {
  for (const { id } of matching()) picked.add(id);
  show();
  byId('pick-all').focus();
});
byId('items').addEventListener('change', ({ target }) => {
  const { id } = target.closest('.entry').dataset;
  if (target.checked) picked.add(id);
  else picked.delete(id);
  showPicked();
});
byId('items').addEventListener('click', ({ target }) => {
  if (!target.closest('.open')) return;
  showDetails(items.find(({ id }) => id === target.closest('.entry').dataset.id));
});
byId('pick-all').addEventListener('change', ({ target }) => {
  for (const { id } of shown()) {
    if (target.checked) picked.add(id);
    else picked.delete(id);
  }
  show();
});
byId('bulk').addEventListener('click', ({ target }) => {
  if (target.dataset.action) act(target.dataset.action, matching().map(({ id }) => id).filter((id) => picked.has(id)));
});
byId('details').addEventListener('click', ({ target }) => {
  if (!target.dataset.action) return;
  byId('details').close();
  act(target.dataset.action, [inDetails.id]);
});
byId('details-close').addEventListener('click', () => byId('details').close());
byId('trusted').addEventListener('click', ({ target }) => {
  if (target.closest('.distrust')) act('distrust', [target.closest('.entry').dataset.id]);
});

await load();
