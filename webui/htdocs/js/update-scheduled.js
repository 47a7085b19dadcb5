// The scheduled update: how often and when, and what it fetches.
import { bindComponents } from './components.js';
import { guardForm } from './draft.js';
import { bindTime, byId, dayName, enableWhile, selectOption, validateOnSubmit } from './form.js';
import { readPageVariables } from './page-variables.js';

const RADIO_OF_KIND = { 1: 'hourly', 2: 'daily', 3: 'weekly' };

const form = byId('settings');
const variables = readPageVariables();
const on = byId('schedule-on');

/** "2-3" is kind 2 with period 3. */
const [kind, period] = (variables.get('Schedule') ?? '').split('-');

on.checked = variables.get('bEnableScheduledUpdate') === true;
byId(RADIO_OF_KIND[kind] ?? 'daily').checked = true;
if (kind === '2' && Number(period) > 0) selectOption(byId('day-period'), String(Number(period)));
if (kind === '3' && Number(period) > 0) selectOption(byId('week-period'), String(Number(period)));
selectOption(byId('week-day'), dayName(Number(variables.get('ScheduledWDay') || 0)));
byId('random-start').hidden = !['1', 'true'].includes(variables.get('sRandomlizedUpdate'));
const checkTime = bindTime(form, variables.get('ScheduledTime'));
enableWhile(on, byId('schedule-times'))();
enableWhile(on, byId('components'))();

validateOnSubmit(form, [checkTime, bindComponents(variables)]);
form.addEventListener('submit', () => { byId('schedule-state').value = on.checked ? 'ON' : 'OFF'; });
guardForm(form, () => ({}));
