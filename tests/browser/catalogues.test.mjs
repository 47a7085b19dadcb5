// The message catalogues: a text that one of them lacks would stand in English on an otherwise translated page.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync, readdirSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { root } from './support/templates.mjs';

const source = (path) => readFileSync(join(root, path), 'utf8');
const unquote = (text) => JSON.parse(`"${text}"`);

/** The entries of a catalogue, text to translation. */
function entries(path) {
  const found = source(path).matchAll(/^msgid "((?:[^"\\]|\\.)*)"\nmsgstr "((?:[^"\\]|\\.)*)"$/gm);
  return new Map([...found].map(([, id, text]) => [unquote(id), unquote(text)]).filter(([id]) => id !== ''));
}

const template = entries('po/messages.pot');
const catalogues = readdirSync(join(root, 'po')).filter((name) => name.endsWith('.po'));

test('every catalogue translates every text, and no other', () => {
  assert.ok(catalogues.length >= 2);
  for (const name of catalogues) {
    const texts = entries(`po/${name}`);
    assert.deepEqual([...texts.keys()], [...template.keys()], name);
    for (const [id, text] of texts) assert.notEqual(text.trim(), '', `${name}: ${id}`);
    assert.doesNotMatch(source(`po/${name}`), /fuzzy/, name);
    execFileSync('msgfmt', ['--check-format', '-o', '/dev/null', join(root, 'po', name)]);
  }
});

test('the catalogue knows every text that the service shows on a page', () => {
  const lists = [
    ['service/scan_status.h', /inline constexpr const char\* SCAN_\w+\s*=\s*"([^"]+)";/g],
    ['service/updater.cpp', /^constexpr const char\* [A-Z_]+\s*=\s*"([^"]+)";/gm],
    ['service/quarantine.cpp', /\{false, "([^"]+?)(?:: )?"/g],
    ['service/quarantine_store.cpp', /(?:failure\(|return )"(\w[^"]+?)(?:: )?"/g],
    ['service/actions.cpp', /(?:\{true,|text =|return \{true,) "([^"]+?) ?"/g],
    ['service/scan_engine.cpp', /notFullyScanned\("([^"(]+?)(?: \()?"/g],
    ['service/share_roots.cpp', /(?:return|fault =) "([A-Z][^"]+)"/g],
    ['service/scan_engine.cpp', /incomplete = "([^"]+)"/g],
  ];
  for (const [path, pattern] of lists) {
    const texts = [...source(path).matchAll(pattern)].map((match) => match[1]);
    assert.ok(texts.length > 0, path);
    for (const text of texts) assert.ok(template.has(text), `${path}: ${text}`);
  }
});

test('the catalogue knows what the programs of the console say themselves', () => {
  const programs = readdirSync(join(root, 'webui/console')).filter((name) => name.endsWith('.cpp'));
  const said = programs.map((name) => source(`webui/console/${name}`)).join('')
    .matchAll(/(?:gettext\(|answerError\("[^"]+", |headings\(\{)([^;]*?)\)/g);
  const texts = [...said].flatMap(([, part]) => [...part.matchAll(/"([^"]+)"/g)].map((match) => match[1]));
  assert.ok(texts.length > 20);
  for (const text of texts) assert.ok(template.has(text), text);
});

test('the answer to a second update stays as it is', () => {
  assert.ok(!template.has('There is another update currently in progress.'));
});
