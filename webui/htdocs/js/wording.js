// Numbers, sizes, times and durations as people write them in the page's language.

const language = document.documentElement.lang || 'en-US';
const UNITS = ['byte', 'kilobyte', 'megabyte', 'gigabyte', 'terabyte'];
const DURATIONS = [['day', 86400], ['hour', 3600], ['minute', 60], ['second', 1]];
const dateTimeFormat = new Intl.DateTimeFormat(language, { dateStyle: 'medium', timeStyle: 'short' });
const numberFormat = new Intl.NumberFormat(language);

export const numberText = (value) => numberFormat.format(value);

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

/** A path in two: what is called, and where it lies. */
export function splitPath(path) {
  const at = path.lastIndexOf('/') + 1;
  return { name: path.slice(at) || path, folder: path.slice(0, at) };
}

/** The word for a kind of malware; the kind itself when the page has none. */
export const malwareText = (type) => document.querySelector(`#malware-kinds [data-type="${CSS.escape(type)}"]`)?.textContent ?? type;
