// The log-on page is the same file for everybody, so it chooses its language here.
import { LANGUAGES } from './logon-texts.js';

const wish = navigator.languages.map((tag) => tag.split('-')[0]).find((language) => language in LANGUAGES) ?? 'en';
const { tag, texts } = LANGUAGES[wish];

document.documentElement.lang = tag;
document.title = `${texts.title} · Keldra`;
for (const element of document.querySelectorAll('[data-text]')) element.textContent = texts[element.dataset.text];

if (sessionStorage.getItem('keldra-left')) {
  sessionStorage.removeItem('keldra-left');
  document.getElementById('left').hidden = false;
}
