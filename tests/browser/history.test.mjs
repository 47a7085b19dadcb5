// The scan history: what was found stays known, on the page and in a file to keep.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { addresses } from './support/console.mjs';
import { fitsAndIsAccessible, fitsScreen, picture } from './support/looks.mjs';
import { REPORT, scan, scanInShell } from './support/scans.mjs';
import { audited, console_, openList, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

shareConsole({ shared: audited });

const open = () => openList(page, addresses.history);

/** What a link saves. */
async function saved(link) {
  const [download] = await Promise.all([link.page().waitForEvent('download'), link.click()]);
  return { name: download.suggestedFilename(), text: readFileSync(await download.path(), 'utf8') };
}

/** An archive in an archive and so on, deeper than the scans of this file look. */
function nestArchives() {
  const folder = join(console_.folder, 'samples/Documents');
  let inner = 'note.txt';
  for (const name of ['a.zip', 'b.zip', 'c.zip', 'nested.zip']) {
    execFileSync('zip', ['-q', name, inner], { cwd: folder });
    inner = name;
  }
  for (const name of ['a.zip', 'b.zip', 'c.zip']) rmSync(join(folder, name));
}

test('before the first scan the page says how to start one', async () => {
  await open();
  assert.match(await page.locator('#nothing').textContent(), /no scan yet/);
  await fitsAndIsAccessible(page, 'history-empty');
});

test('a scan is listed with its counts, and shows its finds and what was done', async () => {
  nestArchives();
  await scan(page, REPORT, { 'scan-archives': true, layers: '1' });
  scanInShell(console_, join(console_.folder, 'samples/Pictures'));
  await open();
  assert.deepEqual(await page.locator('#scans .name').allTextContents(), ['Scan from the command line', 'Manual scan']);
  await page.locator('#finds-only').check();
  assert.deepEqual(await page.locator('#scans .name').allTextContents(), ['Manual scan']);
  assert.match(await page.locator('#scans .result').textContent(), /Infected: 2\./);
  await fitsAndIsAccessible(page, 'history');
  await page.locator('#scans a').click();
  await page.locator('#finds .entry').first().waitFor();
  assert.deepEqual((await page.locator('#finds .name').allTextContents()).sort(), ['test-file.com', 'test-file.zip']);
  assert.equal(await page.locator('#finds .detail').first().textContent(), 'left in place');
  assert.equal(await page.locator('#scan-found').textContent(), '2');
  assert.deepEqual(await page.locator('#unsure .name').allTextContents(), ['nested.zip'], 'not taken for clean');
  assert.match(await page.locator('#unsure .detail').textContent(), /nested more deeply/);
  assert.equal(await page.evaluate(() => document.activeElement.id), 'scan-title');
  await fitsAndIsAccessible(page, 'history-scan');
});

test('a scan has an address of its own, and going back leads to the list', async () => {
  const address = page.url();
  await page.goto(addresses.overview);
  await page.goto(address);
  await page.locator('#finds .entry').first().waitFor();
  await page.locator('#back').click();
  await page.locator('#scans .entry').first().waitFor();
  assert.equal(await page.locator('#one-scan').isVisible(), false);
});

test('ten thousand finds are read on by themselves, paged, sorted and searched without a stutter', async () => {
  const find = (number) => ({ path: `/f/${number}/n${number}`, infected: true, type: 'Virus', signature: `X.${number % 7}`, detail: 'left in place' });
  await page.route('**/history.cgi?RequestID=*', async (route) => {
    const from = Number(new URL(route.request().url()).searchParams.get('From'));
    await route.fulfill({ json: { finds: Array.from({ length: 1000 }, (_, at) => find(from + at)), more: from < 9000 } });
  });
  await page.locator('#scans a').first().click();
  await page.locator('.range', { hasText: 'of 10,000' }).first().waitFor();
  await page.locator('#reading').waitFor({ state: 'hidden' });
  assert.equal(await page.locator('#finds .entry').count(), 100);
  await fitsScreen(page, 'history-many');
  await picture(page, 'history-many');
  const slow = await page.evaluate(async () => {
    const times = [];
    for (const act of [() => document.querySelectorAll('#find-list .sort')[1].click(), () => document.querySelectorAll('#find-list .sort')[1].click(),
      () => document.querySelectorAll('#find-list + .pager button')[1].click()]) {
      const begun = performance.now();
      act();
      document.body.getBoundingClientRect();
      times.push(performance.now() - begun);
    }
    return Math.max(...times);
  });
  assert.ok(slow < 1000, `${slow} ms`);
  assert.equal(await page.locator('#find-list [aria-sort="descending"]').textContent(), 'Malware');
  assert.match(await page.locator('#find-list + .pager .range').textContent(), /^101 to 200 of 10,000$/);
  await page.locator('#search').fill('/n9999');
  assert.deepEqual(await page.locator('#finds .name').allTextContents(), ['n9999']);
  await page.unroute('**/history.cgi?RequestID=*');
  await page.locator('#back').click();
});

/** How a day and a time look in each language. */
const times = {
  'en-US': /^[A-Z][a-z]{2} \d{1,2}, \d{4}, \d{1,2}:\d\d\s[AP]M$/, 'de-DE': /^\d\d\.\d\d\.\d{4}, \d\d:\d\d$/, 'ja-JP': /^\d{4}\/\d\d\/\d\d \d{1,2}:\d\d$/,
};

inEveryView('scans and their finds are told in the language of the page, and saved as CSV', async (own, view) => {
  await openList(own, addresses.history);
  await view.suits(own);
  const list = await saved(own.locator('#export'));
  assert.equal(list.name, 'keldra-scans.csv');
  assert.ok(list.text.startsWith(`\uFEFF${['Scan', 'Kind', 'State'].map((word) => view.said(word)).join(',')},`), list.text);
  assert.equal(list.text.match(/\r\n/g).length, 3);

  const kind = view.text('MANUAL');
  await own.locator('#scans a', { hasText: kind }).click();
  await own.locator('#finds .entry').first().waitFor();
  const title = await own.locator('#scan-title').textContent();
  const [before, after] = view.text('SCAN_TITLE', { kind }).split('{time}');
  assert.ok(title.startsWith(before) && title.endsWith(after), title);
  assert.match(title.slice(before.length, title.length - after.length), times[view.locale] ?? /\d/);
  const left = view.said('left in place');
  assert.equal(await own.locator('#finds .detail').first().textContent(), left);
  await view.suits(own);
  const finds = await saved(own.locator('#scan-export'));
  assert.match(finds.name, /^keldra-scan-[0-9_]+\.csv$/);
  assert.match(finds.text, new RegExp(`test-file\\.com,${view.said('Infected')},.*,Test_Virus,${left}\r\n`));
  await own.locator('#back').click();
  await own.locator('#scans .entry').first().waitFor();
});
