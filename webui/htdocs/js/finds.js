// Finds as the overview and the progress page list them.
import { copyOf } from './form.js';
import { malwareText, scanKindText, showName, splitPath, timeText, visible } from './wording.js';

/** An entry of a list of finds. `find`: path, signature, detail, and type, when and task, if known. */
export function findEntry(find) {
  const entry = copyOf('find');
  const { name, folder } = splitPath(find.path);
  const put = (selector, text) => { entry.querySelector(selector).textContent = text; };
  showName(entry.querySelector('.name'), name);
  showName(entry.querySelector('.folder'), folder);
  const kind = find.type ? malwareText(find.type) : find.task ? find.signature : '';
  put('.kind', visible(kind));
  entry.querySelector('.kind').hidden = !kind;
  put('.when', find.when ? timeText(find.when) : find.signature ?? '');
  put('.detail', [find.task && scanKindText(find.task), find.detail].filter(Boolean).join(' · '));
  return entry;
}
