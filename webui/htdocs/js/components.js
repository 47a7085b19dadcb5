// Which components an update fetches.
import { byId, check } from './form.js';
import { localTimeText } from './wording.js';

const BOXES = {
  'virus-pattern': 'bUpdatePattern',
  'spyware-pattern': 'bUpdateSpywarePattern',
  'scan-engine': 'bUpdateEngine',
};

/** Says in words that a component has no version, and writes times as the language does. */
function tellVersions() {
  for (const id of Object.keys(BOXES)) {
    const line = byId(`${id}-state`);
    const date = byId(`${id}-date`);
    date.textContent = localTimeText(date.textContent);
    if (byId(`${id}-version`).textContent === '') line.textContent = line.dataset.none;
  }
}

/** Ticks the boxes. Returns the check that at least one is ticked. */
export function bindComponents(variables) {
  for (const [id, name] of Object.entries(BOXES)) byId(id).checked = variables.get(name) === true;
  tellVersions();
  const boxes = Object.keys(BOXES).map(byId);
  return () => {
    const [first] = boxes;
    const right = first.matches(':disabled') || boxes.some((box) => box.checked);
    return check(first, 'components-none', right) ? null : first;
  };
}
