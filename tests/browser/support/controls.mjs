// Every control of a settings form by a name: its id, or for the action lists "first:Virus" and "second:Virus".

const read = (root) => Object.fromEntries(
  [...root.querySelectorAll('input:not([type=hidden]), select, textarea')].filter((control) => !control.closest('#folders')).map((control) => {
    const list = control.classList.contains('first') ? 'first' : 'second';
    const name = control.id || `${list}:${control.dataset.type}`;
    return [name, ['checkbox', 'radio'].includes(control.type) ? control.checked : control.value];
  }),
);

/** What the form's controls show. */
export const readControls = (page) => page.locator('#settings').evaluate(read);

const locate = (page, name) => {
  const [list, type] = name.split(':');
  return type ? page.locator(`select.${list}[data-type="${type}"]`) : page.locator(`#${name}`);
};

/** Brings controls into a state as a user would, in the order given: what switches others on comes before them. */
export async function setControls(page, state) {
  for (const [name, value] of Object.entries(state)) {
    const control = locate(page, name);
    if (typeof value === 'boolean') await control.setChecked(value);
    else if (await control.evaluate((element) => element.tagName === 'SELECT')) await control.selectOption(value);
    else await control.fill(value);
  }
}
