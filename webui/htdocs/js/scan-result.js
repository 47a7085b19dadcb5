// How a scan ended: says in words whether anything was found, and writes the figures as the language does.
import { byId } from './form.js';

const number = new Intl.NumberFormat(document.documentElement.lang || 'en-US');
const infected = Number(byId('infected').textContent);

for (const id of ['scanned', 'total', 'infected']) byId(id).textContent = number.format(Number(byId(id).textContent));
byId('infected').classList.toggle('found', infected > 0);
byId('something-found').hidden = infected === 0;
const nothing = byId('nothing-found');
if (nothing) nothing.hidden = infected !== 0;

const requestId = new URLSearchParams(location.search).get('RequestID') ?? '';
if (requestId) byId('details').hash = requestId;
