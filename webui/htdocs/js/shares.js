// The shares of this server: folders that may be scanned, with proposals from what the server shares and mounts.
import { getJson, postJson } from './api.js';
import { byId } from './form.js';
import { joinPathList } from './path-list.js';
import { showName } from './wording.js';

const FOLDERS = './folders.cgi';

function entryOf(path, origin, checked) {
  const entry = document.createElement('li');
  const label = document.createElement('label');
  const box = Object.assign(document.createElement('input'), { type: 'checkbox', value: path, checked });
  const name = document.createElement('bdi');
  showName(name, path, false);
  label.append(box, name);
  entry.append(label);
  if (origin) entry.append(Object.assign(document.createElement('span'), { className: 'hint', textContent: origin }));
  return entry;
}

function originText({ origin, name }) {
  const word = document.querySelector(`#origin-names [data-origin="${CSS.escape(origin)}"]`)?.textContent ?? origin;
  return name ? `${word}: ${name}` : word;
}

/** Shows what is shared, `roots` chosen; with nothing chosen yet, what is shared over the network is proposed. */
export function bindShares(roots, proposals) {
  const list = byId('share-list');
  const boxes = () => [...list.querySelectorAll('input')];
  const fresh = roots.length === 0;
  const origins = new Map(proposals.map((proposal) => [proposal.path, proposal]));
  for (const root of roots) if (!origins.has(root)) origins.set(root, null);
  list.replaceChildren(...[...origins].map(([path, proposal]) => entryOf(path, proposal && originText(proposal),
    roots.includes(path) || (fresh && proposal?.origin !== 'mount'))));
  byId('shares').hidden = false;
  byId('share-none').hidden = origins.size > 0;

  const add = () => {
    const path = byId('share-path').value.trim();
    byId('share-path-wrong').hidden = path.startsWith('/');
    if (!path.startsWith('/')) {
      byId('share-path').focus();
      return;
    }
    if (!boxes().some(({ value }) => value === path)) list.append(entryOf(path, '', true));
    byId('share-path').value = '';
    byId('share-none').hidden = true;
  };
  byId('share-add').onclick = add;
  byId('share-path').onkeydown = (event) => {
    if (event.key !== 'Enter') return;
    event.preventDefault();
    add();
  };

  const chosen = () => boxes().filter(({ checked }) => checked).map(({ value }) => value);
  const choose = (paths) => {
    for (const path of paths) if (!boxes().some(({ value }) => value === path)) list.append(entryOf(path, '', true));
    for (const box of boxes()) box.checked = paths.includes(box.value);
  };

  /** Has all three scans look through these folders; what each leaves out stays left out. */
  async function useInScans() {
    if (!byId('share-scans').checked || !chosen().length) return;
    for (const kind of ['manual', 'realtime', 'scheduled']) {
      const { excludePaths, excludePatterns, stamp } = await getJson(`${FOLDERS}?mode=settings&kind=${kind}`);
      await postJson(FOLDERS, {
        mode: 'save', kind, scanPaths: joinPathList(chosen()), excludePaths: joinPathList(excludePaths),
        excludePatterns: joinPathList(excludePatterns), hvLastConfigFileModifiedDate: stamp, bOverWrite: 'true',
      });
    }
  }
  return { roots: chosen, choose, useInScans };
}
