// Templates and string tables as the page wrapper sees them: bytes (one character each here), never letters.
import { execFileSync } from 'node:child_process';
import { readFileSync, readdirSync } from 'node:fs';
import { dirname, join, relative } from 'node:path';
import { fileURLToPath } from 'node:url';

export const root = join(dirname(fileURLToPath(import.meta.url)), '../../..');
export const templates = join(root, 'templates');
export const languages = readdirSync(join(templates, 'texts'));

export const read = (path) => readFileSync(path, 'latin1');
export const letters = (bytes) => Buffer.from(bytes, 'latin1').toString('utf8');

/** Every page template by the name the programs use. */
export function pageNames(folder = templates) {
  return readdirSync(folder, { withFileTypes: true }).flatMap((entry) => {
    const path = join(folder, entry.name);
    if (entry.isDirectory()) return entry.name === 'parts' ? [] : pageNames(path);
    return /^(?!layout|frame).*\.html$/.test(entry.name) ? [relative(templates, path)] : [];
  }).sort();
}

/** A page's template as the console has it, in the frame that all share. */
export const template = (name) => execFileSync(join(root, 'scripts/make-page'),
  [join(templates, 'frame.html'), join(templates, name)], { encoding: 'latin1' });

/** A language's table, marker to text. */
export function stringTable(language) {
  const script = join(root, 'scripts/make-string-table');
  const tables = [[join(templates, 'layout.html'), 'pages.txt'], ['/dev/null', 'console.txt']]
    .map(([layout, texts]) => execFileSync(script, [layout, join(templates, 'texts', language, texts)], { encoding: 'latin1' }));
  return new Map(tables.join('').trimEnd().split('\n').map((line) => {
    const at = line.indexOf('=');
    return [line.slice(0, at), line.slice(at + 1)];
  }));
}

/** Replaces markers as the page wrapper does: the search goes on where the marker stood, plus the marker's length. */
export function expandMarkers(text, table) {
  let position = 0;
  for (;;) {
    const open = text.indexOf('%[', position);
    if (open < 0) return text;
    const close = text.indexOf(']%', open + 1);
    if (close < 0) return text;
    const marker = text.slice(open, close + 2);
    if (table.has(marker)) text = text.slice(0, open) + table.get(marker) + text.slice(close + 2);
    position = open + marker.length;
    if (text.length > 1_000_000) throw new Error(`endless growth at ${marker}`);
  }
}

/** Replaces items, in the order of their names, each everywhere. */
export function replaceItems(text, items) {
  for (const name of Object.keys(items).sort()) text = text.split(name).join(items[name]);
  return text;
}

const unquote = (text) => JSON.parse(`"${text}"`);

/** The entries of a catalogue, text to translation. `name`: as in the folder of catalogues. */
export function catalogueEntries(name) {
  const found = readFileSync(join(root, 'po', name), 'utf8')
    .matchAll(/^msgid "((?:[^"\\]|\\.)*)"\nmsgstr "((?:[^"\\]|\\.)*)"$/gm);
  return new Map([...found].map(([, id, text]) => [unquote(id), unquote(text)]).filter(([id]) => id !== ''));
}

/** What the programs and the service say in a language; empty for the one that they speak by themselves. */
export const catalogue = (language) =>
  (language === 'en-US' ? new Map() : catalogueEntries(`${language.split('-')[0]}.po`));
