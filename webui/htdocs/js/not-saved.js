// Why settings were not saved: a service that answers after all is not away, and tells what it cannot write.
import { getJson } from './api.js';
import { visible } from './wording.js';

const reason = document.querySelector('.reason');
const report = await getJson('./overview.cgi').catch(() => null);
const known = (name) => report?.reasons?.find((entry) => entry.reason === name);
const found = known('not_saved') ?? known('disk_full');
if (found) reason.textContent = [found.text, visible(found.detail)].filter(Boolean).join(' ');
else if (report && reason.textContent.trim() === reason.dataset.away) reason.textContent = reason.dataset.refused;
