// Filling controls, and errors beside fields.

export const byId = (id) => document.getElementById(id);
/** A new copy of what a template holds. */
export const copyOf = (id) => byId(id).content.firstElementChild.cloneNode(true);

/** Shows why something is not there; without a reason the element's own words for it. */
export function showFailure(element, error) {
  element.textContent = error.message || element.dataset.text;
  element.hidden = false;
}

/** What became of a save. `id`: "saved" or "refused", of which only that one is shown. */
export function tell(id, text) {
  byId('saved').hidden = id !== 'saved';
  byId('refused').hidden = id !== 'refused';
  byId(id).textContent = text;
  byId(id).focus();
}

/** Selects an option; a value that the list does not offer is added, so that saving never changes it unasked. */
export function selectOption(select, value) {
  if (![...select.options].some((option) => option.value === value)) select.add(new Option(value, value));
  select.value = value;
}

/** Keeps an element usable only while a box or radio button is on. Returns a function that applies its present state. */
export function enableWhile(control, element) {
  const apply = () => { element.disabled = !control.checked; };
  const group = control.type === 'radio' ? document.getElementsByName(control.name) : [control];
  for (const member of group) member.addEventListener('change', apply);
  return apply;
}

/** Shows or hides the error text of a field and tells assistive technology. Returns whether the field is right. */
export function check(field, errorId, right) {
  byId(errorId).hidden = right;
  const errors = (field.getAttribute('aria-describedby') ?? '').split(' ')
    .filter((id) => byId(id)?.classList.contains('error') && !byId(id).hidden);
  if (errors.length || !right) field.setAttribute('aria-invalid', 'true');
  else field.removeAttribute('aria-invalid');
  // Who corrects an entry need not read on that it is wrong.
  if (!right) field.addEventListener('input', () => check(field, errorId, true), { once: true });
  return right;
}

/**
 * Runs the checks of a form before it is sent; each returns the field that is wrong, or nothing. What was typed stays,
 * and the first wrong field gets the focus.
 */
export function validateOnSubmit(form, checks) {
  form.noValidate = true;
  form.addEventListener('submit', (event) => {
    const wrong = checks.map((run) => run()).filter(Boolean);
    if (!wrong.length) return;
    event.preventDefault();
    event.stopPropagation();
    wrong[0].focus();
  });
}

/** Fills a time field from "hh:mm:ss" and, when the form is sent, its two hidden fields of two digits each. */
export function bindTime(form, stored) {
  const time = byId('time');
  const match = /^(\d{1,2}):(\d{1,2})/.exec(stored ?? '');
  time.value = match ? `${match[1].padStart(2, '0')}:${match[2].padStart(2, '0')}` : '03:00';
  form.addEventListener('submit', () => {
    const [hours, minutes] = time.value.split(':');
    byId('time-hours').value = hours ?? '';
    byId('time-minutes').value = minutes ?? '';
  });
  return () => (check(time, 'time-wrong', time.matches(':disabled') || time.value !== '') ? null : time);
}

const DAYS = ['Sunday', 'Monday', 'Tuesday', 'Wednesday', 'Thursday', 'Friday', 'Saturday'];
export const dayName = (number) => DAYS[number] ?? DAYS[0];
