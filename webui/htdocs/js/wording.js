// Numbers, sizes, times, durations and names as people read them in the page's language.
import { byId } from './form.js';

const language = document.documentElement.lang || 'en-US';
const UNITS = ['byte', 'kilobyte', 'megabyte', 'gigabyte', 'terabyte'];
const DURATIONS = [['day', 86400], ['hour', 3600], ['minute', 60], ['second', 1]];
const dateTimeFormat = new Intl.DateTimeFormat(language, { dateStyle: 'medium', timeStyle: 'short' });
const plural = new Intl.PluralRules(language);
const numberFormat = new Intl.NumberFormat(language);

export const numberText = (value) => numberFormat.format(value);

/** A text without its blanks filled has "{name}" for a value and "{name|file|files}" for the word that its number asks for. */
const BLANK = /\{(\w+)(?:\|([^}]*))?\}/g;

/**
 * Fills a text. Numbers are written as the language does; the forms behind a name are those for one and for other
 * numbers, and a language that knows one form only gives one.
 */
export const fill = (text, values) => text.replace(BLANK, (whole, name, forms) => {
  const value = values[name];
  if (value === undefined) return whole;
  if (forms === undefined) return typeof value === 'number' ? numberText(value) : value;
  const words = forms.split('|');
  return words[plural.select(value) === 'one' ? 0 : words.length - 1];
});

/** `seconds`: since the epoch. A dash for 0. */
export const timeText = (seconds) => (seconds ? dateTimeFormat.format(new Date(seconds * 1000)) : '–');

/** A time that the server tells by its own clock, "2026-01-31 03:30:00"; any other text stays as it is. */
export function localTimeText(text) {
  const parts = /^(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d)/.exec(text)?.slice(1).map(Number);
  if (!parts) return text;
  const [year, month, ...rest] = parts;
  return dateTimeFormat.format(new Date(year, month - 1, ...rest));
}

const unitText = (unit, count, unitDisplay = 'short') => new Intl.NumberFormat(language,
  { style: 'unit', unit, unitDisplay, maximumFractionDigits: 1 }).format(count);

export function sizeText(bytes) {
  const power = bytes < 1000 ? 0 : Math.min(Math.floor(Math.log10(bytes) / 3), UNITS.length - 1);
  return unitText(UNITS[power], bytes / 1000 ** power, power ? 'short' : 'long');
}

/** How much is done: by bytes as far as they are known, as large files take long; else by files. */
export function percentOf({ scanned, skipped, total, bytesDone, bytesTotal }) {
  if (total === 0) return 0;
  const done = bytesTotal > 0 ? bytesDone / bytesTotal : (scanned + skipped) / total;
  return Math.min(99, Math.floor(done * 100));
}

const UNIT_OF = { seconds: 'second', days: 'day' };

/** Keeps a unit beside a number field the word that its number asks for. `unit`: English, plural, as settings have it. */
export function showUnit(element, control, unit) {
  const show = () => {
    const parts = new Intl.NumberFormat(language, { style: 'unit', unit: UNIT_OF[unit], unitDisplay: 'long' }).formatToParts(Number(control.value));
    element.textContent = parts.find(({ type }) => type === 'unit').value;
  };
  if (!(unit in UNIT_OF)) {
    element.textContent = unit;
    return;
  }
  control.addEventListener('input', show);
  show();
}

/** A number of whole days: "3 days". */
export const daysText = (days) => unitText('day', days, 'long');

/** A length of time by its two largest units. */
export function durationText(seconds) {
  const found = DURATIONS.findIndex(([, length]) => seconds >= length);
  const first = found < 0 ? DURATIONS.length - 1 : found;
  let left = seconds;
  const counts = DURATIONS.slice(first, first + 2).map(([unit, length]) => {
    const count = Math.floor(left / length);
    left %= length;
    return [unit, count];
  });
  return counts.filter(([, count], index) => count > 0 || index === 0)
    .map(([unit, count]) => unitText(unit, count)).join(' ');
}

// What turns the order of letters round, ends lines, or is not seen or only as a blank: a name could pose as another
// with it.
const UNSEEN = /[\p{Cc}\p{Zl}\p{Zp}\p{Default_Ignorable_Code_Point}\u2800\ufff9-\ufffb]/gu;
const PICTURES = 0x2400;
const DELETE = 0x7f;

function pictureOf(sign) {
  const code = sign.codePointAt(0);
  if (code < 0x20) return String.fromCodePoint(PICTURES + code);
  return code === DELETE ? '\u2421' : `⟨U+${code.toString(16).toUpperCase().padStart(4, '0')}⟩`;
}

/** A name or path with everything in it to be seen. */
export const visible = (name) => name.replace(UNSEEN, pictureOf);

const LONGEST_NAME = 64;
const ENDING = 24;

/** A long name without its middle: what it begins with and its ending are what one knows it by. */
export function shortened(name, longest = LONGEST_NAME) {
  const letters = [...name];
  if (letters.length <= longest) return name;
  return `${letters.slice(0, longest - ENDING - 1).join('')}…${letters.slice(-ENDING).join('')}`;
}

/**
 * Shows a name, everything in it to be seen. A long one comes without its middle and a button that shows it whole, unless
 * the element is itself what leads to it (`whole` false). The whole name is the title as well.
 */
export function showName(element, name, whole = true) {
  const text = visible(name);
  const short = shortened(text);
  element.replaceChildren(short);
  element.removeAttribute('title');
  if (short === text) return;
  element.title = text;
  if (!whole) return;
  const more = document.createElement('button');
  more.type = 'button';
  more.className = 'link whole';
  more.textContent = '⋯';
  more.setAttribute('aria-label', byId('whole-name')?.textContent ?? text);
  more.addEventListener('click', () => element.replaceChildren(text));
  element.append(' ', more);
}

/** A path in two: what is called, and where it lies. */
export function splitPath(path) {
  const at = path.lastIndexOf('/') + 1;
  return { name: path.slice(at) || path, folder: path.slice(0, at) };
}

const wordOf = (list, key, value) => document.querySelector(`#${list} [data-${key}="${CSS.escape(value)}"]`)?.textContent ?? value;

/** The word for a kind of malware, or of scan; the kind itself when the page has none. */
export const malwareText = (type) => wordOf('malware-kinds', 'type', type);
/** A sentence on what such malware does. */
export const malwareAbout = (type) =>
  document.querySelector(`#malware-kinds [data-type="${CSS.escape(type)}"]`)?.dataset.what ?? '';
export const scanKindText = (kind) => wordOf('scan-kinds', 'kind', kind);

/** What an element says, without the marks beside it. */
export function wordsOf(element) {
  if (!element) return '';
  const copy = element.cloneNode(true);
  for (const mark of copy.querySelectorAll('.badge')) mark.remove();
  return copy.textContent.trim();
}
