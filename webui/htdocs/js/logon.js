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
byId('kept').hidden = !ended || sessionStorage.getItem('keldra-draft') === null;

const user = byId('user');
user.value ||= sessionStorage.getItem('keldra-user') ?? '';
if (user.value) byId('password').focus();
byId('logon').addEventListener('submit', () => sessionStorage.setItem('keldra-user', user.value));

// While the service does not answer, nobody can log on, however right the password. Nobody is logged on here, so an
// answer is a redirection to this page.
const answer = await fetch('/NorvLinux/overview.cgi', { redirect: 'manual', cache: 'no-store' }).catch(() => null);
if (answer?.status === 503) {
  byId('down').hidden = false;
  byId('ended').hidden = true;
}
