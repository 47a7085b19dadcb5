// The quarantine: what is in it, and what is done with it, one by one or in bulk.
import { getJson, PATIENT, postJson } from './api.js';
import { byId, copyOf, showFailure } from './form.js';
import { ask } from './question.js';
import { cell, makeList, textElement } from './table-list.js';
import { fill, malwareAbout, malwareText, showName, sizeText, splitPath, timeText, visible } from './wording.js';

const BATCH = 100;

let items = [];
let trusted = [];
let inDetails = null;
const refusals = new Map();

const fits = (item, words) => `${item.path}\n${item.signature}`.toLocaleLowerCase().includes(words);

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

function makeName(item) {
  const { name, folder } = splitPath(item.path);
  const open = textElement('button', 'link open', '');
  open.type = 'button';
  open.setAttribute('aria-haspopup', 'dialog');
  showName(open, name, false);
  const title = textElement('p', 'name', '');
  title.append(open);
  const place = textElement('p', 'hint folder', '');
  showName(place, folder);
  const error = textElement('p', 'error', refusals.get(item.id) ?? '');
  error.hidden = !refusals.has(item.id);
  return [title, place, error];
}

function makeKind(item) {
  const kind = textElement('span', 'tag kind', malwareText(item.type));
  const tags = textElement('p', '', '');
  tags.append(kind);
  if (item.backup) tags.append(' ', textElement('span', 'tag copy', byId('count').dataset.copy));
  return [tags, textElement('p', 'hint signature', visible(item.signature))];
}

function makeCells(item, isPicked) {
  const pick = Object.assign(document.createElement('input'), { type: 'checkbox', className: 'pick', checked: isPicked });
  pick.setAttribute('aria-label', fill(byId('count').dataset.choose, { name: visible(splitPath(item.path).name) }));
  return [cell('narrow', pick), cell('', ...makeName(item)), cell('', ...makeKind(item)),
    cell('number', sizeText(item.size)), cell('when', timeText(item.when))];
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

const list = makeList(byId('list'), {
  columns: [null, { value: ({ path }) => splitPath(path).name }, { value: ({ signature }) => signature },
    { value: ({ size }) => size, down: true }, { value: ({ when }) => when, down: true }],
  row: makeCells,
  first: 4,
  onShow: () => showAround(),
});
const chosen = () => list.matching().filter(({ id }) => list.picked.has(id));

/** What stands around the rows: how many there are, how many of them are chosen, and what can be done with these. */
function showAround() {
  const all = list.matching();
  const onPage = list.onPage();
  const count = chosen().length;
  const onPagePicked = onPage.filter(({ id }) => list.picked.has(id)).length;
  byId('pick-matching').hidden = all.length <= onPage.length || onPagePicked < onPage.length || count === all.length;
  byId('pick-matching').textContent = fill(byId('pick-matching').dataset.text, { count: all.length });
  byId('picked').textContent = fill(byId('picked').dataset.text, { count });
  byId('pick-all').checked = onPagePicked > 0 && onPagePicked === onPage.length;
  byId('pick-all').indeterminate = onPagePicked > 0 && onPagePicked < onPage.length;
  for (const button of byId('bulk').querySelectorAll('.buttons button')) button.disabled = count === 0;
  byId('count').textContent = fill(byId('count').dataset.text, { shown: all.length, total: items.length });
  byId('count').hidden = items.length === 0;
  byId('looking').hidden = items.length === 0;
  byId('bulk').hidden = all.length === 0;
  byId('nothing').hidden = items.length !== 0;
  byId('no-match').hidden = items.length === 0 || all.length !== 0;
}

function show() {
  list.set(items);
  byId('trusted').replaceChildren(...trusted.map(makeTrusted));
  byId('none-trusted').hidden = trusted.length !== 0;
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
  for (const id of done) list.picked.delete(id);
  await load();
  tell(counts, ids.length);
}

byId('search').addEventListener('input', () => {
  const words = byId('search').value.trim().toLocaleLowerCase();
  list.filter((item) => fits(item, words));
});
byId('pick-matching').addEventListener('click', () => {
  list.pick(list.matching(), true);
  byId('pick-all').focus();
});
byId('items').addEventListener('click', ({ target }) => {
  if (target.closest('.open')) showDetails(list.rowOf(target));
});
byId('pick-all').addEventListener('change', ({ target }) => list.pick(list.onPage(), target.checked));
byId('bulk').addEventListener('click', ({ target }) => {
  if (target.dataset.action) act(target.dataset.action, chosen().map(({ id }) => id));
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
