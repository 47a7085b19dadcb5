// The message catalogues: a text that one of them lacks would stand in English on an otherwise translated page.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync, readdirSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { catalogueEntries, languages, letters, root, stringTable, templates } from './support/templates.mjs';

const source = (path) => readFileSync(join(root, path), 'utf8');

/** Of texts with several forms: the text for one, and what the catalogue has after it. */
const pluralEntries = (name) => new Map([...source(`po/${name}`)
  .matchAll(/^msgid "(.*)"\nmsgid_plural "(.*)"\n((?:msgstr\[\d\] ".*"\n?)+)/gm)].map(([, one, many, forms]) => [`${one}|${many}`, forms]));

const template = catalogueEntries('messages.pot');
const catalogues = readdirSync(join(root, 'po')).filter((name) => name.endsWith('.po'));

test('every catalogue translates every text, and no other', () => {
  assert.ok(catalogues.length >= 2);
  for (const name of catalogues) {
    const texts = catalogueEntries(name);
    assert.deepEqual([...texts.keys()], [...template.keys()], name);
    for (const [id, text] of texts) assert.notEqual(text.trim(), '', `${name}: ${id}`);
    assert.deepEqual([...pluralEntries(name).keys()], [...pluralEntries('messages.pot').keys()], name);
    // The rules that the service knows.
    const [, count] = source(`po/${name}`).match(/"Plural-Forms: nplurals=(1; plural=0|2; plural=\(n != 1\)|2; plural=\(n > 1\));\\n"/);
    for (const [id, forms] of pluralEntries(name)) assert.equal(forms.match(/^msgstr\[\d\] ".+"$/gm)?.length, parseInt(count), `${name}: ${id}`);
    assert.doesNotMatch(source(`po/${name}`), /fuzzy/, name);
    execFileSync('msgfmt', ['--check-format', '-o', '/dev/null', join(root, 'po', name)]);
  }
});

test('the catalogue knows every text that the service shows on a page', () => {
  const lists = [
    ['service/scanning/scan_status.h', /inline constexpr const char\* SCAN_\w+\s*=\s*"([^"]+)";/g],
    ['service/updates/update_messages.h', /^inline constexpr const char\* [A-Z_]+\s*=\s*"([^"]+)";/gm],
    ['service/quarantine/quarantine.cpp', /\{false, "([^"]+?)(?:: )?"/g],
    ['service/quarantine/quarantine_store.cpp', /(?:failure\(|return )"(\w[^"]+?)(?:: )?"/g],
    ['service/quarantine/trust_list.cpp', /return "([A-Z][^"]+?)(?:: )?"/g],
    ['service/quarantine/origin.cpp', /return "(\w[^"]+)"/g],
    ['service/quarantine/actions.cpp', /(?:\{true,|text =|return \{true,) "([^"]+?) ?"/g],
    ['service/notices/notice_message.cpp', /"((?:This|Something on this) server [^"]+\.)"/g],
    ['service/notices/notice_message.cpp', /words\.text\("([^"]{3,})"\)/g],
    ['service/realtime/realtime_scan.cpp', /message = "([^"]+)"/g],
    ['service/realtime/access_listener.cpp', /problem = "([^"]+?)(?:: )?"/g],
    ['service/realtime/fanotify_group.cpp', /return "([^"]+?)(?:: )?"/g],
    ['service/engine/scanner_pool.cpp', /state_?\.message = "([^"]+)"/g],
    ['support/src/service_text.cpp', /Code\{"\w+", "([^"]+)"\}/g],
    ['support/src/setting_words.cpp', /words_?\.text\("([^"]{3,})"\)/g],
    ['service/notices/notice_store.cpp', /(?:return|\?|:)\s+"([A-Z][^"]+\.)"/g],
    ['service/access/second_factor.cpp', /(?:return|trouble =)\s+"([A-Z][^"]+\.)"/g],
    ['service/server/handlers_account.cpp', /refuse\("([^"]+)"/g],
    ['service/verdict/protection.cpp', /Row\{"\w+", [A-Z]+, "([^"]+)"/g],
    ['service/settings/settings_table.cpp', /SettingsFault\{name, "([^"]+)"/g],
    ['service/engine/scanner_pool.cpp', /notFullyScanned\("([^"(]+?)(?: \()?"/g],
    ['service/engine/scan_attempt.cpp', /(?:TOO_\w+ =|return|lastingFailure\(|FAILED, "",) ?"(the scan[^"]+|what[^"]+)"/g],
    ['service/scanner/content_scan.cpp', /notFullyScanned\("([^"(]+?)(?: \()?"/g],
    ['service/tree/share_roots.cpp', /(?:return|fault =) "([A-Z][^"]+)"/g],
    ['service/scanner/content_scan.cpp', /incomplete = "([^"]+)"/g],
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

test('changed settings are called what their pages call them, in every language', () => {
  const plain = (text) => letters(text).replaceAll('&quot;', '"');
  const pages = new Map(languages.map((language) => [language, stringTable(language)]));
  const labels = [...source('support/src/setting_words.cpp').matchAll(/Row\{"[\w.]+",\s*"([^"]+)"/g)].map(([, label]) => label);
  assert.ok(labels.length > 70);
  // No page has a name for these: they are what is not ticked.
  for (const label of labels.filter((text) => text !== 'Folders left out')) {
    const keys = [...pages.get('en-US')].filter(([, text]) => plain(text) === label).map(([key]) => key);
    assert.ok(keys.length > 0, label);
    for (const name of catalogues) {
      const language = languages.find((tag) => tag.startsWith(name.slice(0, 2)));
      const shown = catalogueEntries(name).get(label);
      assert.ok(keys.some((key) => plain(pages.get(language).get(key)) === shown), `${name}: ${label}: ${shown}`);
    }
  }
});

test('every number with its word has its forms', () => {
  const forms = pluralEntries('messages.pot');
  const asked = ['support/src/service_text.cpp', 'support/src/setting_words.cpp', 'service/notices/notice_message.cpp']
    .flatMap((path) => [...source(path).matchAll(/"([^"]*\{n\}[^"]*)",\s*"([^"]*\{n\}[^"]*)"/g)].map(([, one, many]) => `${one}|${many}`));
  assert.ok(asked.length > 15);
  for (const pair of asked) assert.ok(forms.has(pair), pair);
});

test('the answer to a second update stays as it is', () => {
  assert.ok(!template.has('There is another update currently in progress.'));
});

test('the log-on page and the web server’s error pages are told in every language', () => {
  const keys = (language, file) => readFileSync(join(templates, 'texts', language, file), 'utf8')
    .split('\n').filter((line) => line && !line.startsWith('#')).map((line) => line.slice(0, line.indexOf('=')));
  for (const file of ['logon.txt', 'errors.txt']) {
    for (const language of languages) assert.deepEqual(keys(language, file), keys('en-US', file), `${language}/${file}`);
  }
});
