// The scheduled scan: how often and when.
import { bindFolders } from './folders.js';
import { bindTime, byId, dayName, enableWhile, selectOption, validateOnSubmit } from './form.js';
import { guardSettings } from './overwrite.js';
import { readPageVariables } from './page-variables.js';
import { bindScanSettings } from './scan-settings.js';

const RADIO_OF_FREQUENCY = { 2: 'daily', 3: 'weekly', 4: 'monthly' };

const form = byId('settings');
const variables = readPageVariables();
const on = byId('schedule-on');

on.checked = variables.get('bScheduleScanCheckbox') === true;
byId(RADIO_OF_FREQUENCY[variables.get('ScheduledFrequency')] ?? 'weekly').checked = true;
selectOption(byId('week-day'), dayName(variables.get('iScheduledWDay')));
const monthDay = Number(variables.get('ScheduledMDay'));
selectOption(byId('month-day'), String(monthDay >= 1 && monthDay <= 31 ? monthDay : 1));
const checkTime = bindTime(form, variables.get('ScheduledTime'));
enableWhile(on, byId('schedule-times'))();

bindFolders(form, 'scheduled');
validateOnSubmit(form, [checkTime, ...bindScanSettings(form, variables)]);
guardSettings(form, variables);
