// The log-on page is the same file for everybody, so it chooses its language here.
import { LANGUAGES } from './logon-texts.js';

const wish = navigator.languages.map((tag) => tag.split('-')[0]).find((language) => language in LANGUAGES) ?? 'en';
const { tag, texts } = LANGUAGES[wish];
const byId = (id) => document.getElementById(id);

document.documentElement.lang = tag;
document.title = `${texts.title} · Keldra`;
for (const element of document.querySelectorAll('[data-text]')) element.textContent = texts[element.dataset.text];

/** Whether a page of the console sent the browser here, and not the user. */
const sentHere = () => performance.getEntriesByType('navigation')[0]?.redirectCount > 0;

function takeFlag(name) {
  const flag = sessionStorage.getItem(name);
  sessionStorage.removeItem(name);
  return flag !== null;
}

const left = takeFlag('keldra-left');
const ended = takeFlag('keldra-ended') || (sentHere() && takeFlag('keldra-on'));
byId('left').hidden = !left;
byId('ended').hidden = !ended;
const kept = ended && sessionStorage.getItem('keldra-draft') !== null;
const undone = takeFlag('keldra-undone') && !kept;
byId('kept').hidden = !kept;
byId('undone').hidden = !ended || !undone;

const user = byId('user');
user.value ||= sessionStorage.getItem('keldra-user') ?? '';
if (user.value) byId('password').focus();
byId('logon').addEventListener('submit', () => sessionStorage.setItem('keldra-user', user.value));

// While the service does not answer, nobody can log on, however right the password. To whom nobody is logged on it answers
// with a redirection to this page. A session that goes on all the same has not ended: the request came without its token.
const answer = await fetch('/NorvLinux/overview.cgi', { redirect: 'manual', cache: 'no-store' }).catch(() => null);
if (answer?.status === 503) {
  byId('down').hidden = false;
  byId('ended').hidden = true;
} else if (ended && answer?.ok) {
  byId('refused').hidden = false;
  byId('ended').hidden = true;
}
