// Finds as the overview and the progress page list them.
import { copyOf } from './form.js';
import { malwareText, showName, splitPath, timeText } from './wording.js';

/** An entry of a list of finds. `find`: path, type, signature, detail, and when, if known. */
export function findEntry(find) {
  const entry = copyOf('find');
  const { name, folder } = splitPath(find.path);
  const put = (selector, text) => { entry.querySelector(selector).textContent = text; };
  showName(entry.querySelector('.name'), name);
  showName(entry.querySelector('.folder'), folder);
  put('.kind', find.type ? malwareText(find.type) : '');
  entry.querySelector('.kind').hidden = !find.type;
  put('.when', find.when ? timeText(find.when) : find.signature ?? '');
  put('.detail', find.detail);
  return entry;
}
