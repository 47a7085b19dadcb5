// A running update: its percentage, kept current.
import { byId } from './form.js';
import { readPageVariables } from './page-variables.js';
import { follow } from './poll.js';
import { fill } from './wording.js';

const PATIENCE = 120_000;
let last = { percent: -1, since: Date.now() };

function show(page) {
  const percent = readPageVariables(page).get('iProgressPercent') ?? 0;
  byId('no-answer').hidden = true;
  if (percent !== last.percent) {
    last = { percent, since: Date.now() };
    byId('announcement').textContent = fill(byId('announcement').dataset.text, { percent: String(percent) });
  }
  byId('no-news').hidden = Date.now() - last.since < PATIENCE;
  byId('percent').textContent = `${percent}%`;
  if (percent === 0) byId('bar').removeAttribute('value');
  else byId('bar').value = percent;
}

show(document);
follow(show, () => { byId('no-answer').hidden = false; });
