// A question before something happens that is not easily undone.
import { byId } from './form.js';
import { fill, shortened, visible } from './wording.js';

const MOST_NAMES = 5;

function listNames(list, names) {
  const shown = names.slice(0, MOST_NAMES);
  if (names.length > shown.length) shown.push(fill(list.dataset.more, { count: names.length - shown.length }));
  list.replaceChildren(...shown.map((name) => {
    const entry = document.createElement('li');
    entry.textContent = shortened(visible(name), 120);
    return entry;
  }));
}

/**
 * Asks with the page's dialog, whose texts for an action are its data: "restore", "restore-text", "restore-yes". `names`:
 * what it is about. Resolves to whether the answer was yes; Escape is a no.
 */
export function ask(action, names, { danger = false } = {}) {
  const dialog = byId('question');
  const texts = dialog.dataset;
  byId('question-title').textContent = texts[action];
  byId('question-text').textContent = texts[`${action}Text`];
  listNames(byId('question-names'), names);
  const yes = byId('question-yes');
  yes.textContent = texts[`${action}Yes`];
  yes.className = danger ? 'danger' : 'primary';
  dialog.returnValue = '';
  dialog.showModal();
  return new Promise((resolve) => {
    yes.onclick = () => dialog.close('yes');
    byId('question-no').onclick = () => dialog.close('');
    dialog.onclose = () => resolve(dialog.returnValue === 'yes');
  });
}
