// The scan history: what was found stays known, on the page and in a file to keep.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import test, { after, before } from 'node:test';
import { addresses, build, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { REPORT, scan } from './support/scans.mjs';

let console_;
let browser;
let page;
before(async () => {
  [console_, browser] = await Promise.all([startConsole(), openBrowser()]);
  page = await newPage(browser, console_, { bypassCSP: true, reducedMotion: 'reduce' });
  await logOn(page, console_);
});
after(async () => {
  await browser?.close();
  await console_?.stop();
});

async function open() {
  await page.goto(addresses.history);
  await page.locator('#scans .entry, #nothing:not([hidden])').first().waitFor();
}

/** A scan of chosen files, as an administrator starts it in a shell. */
function scanFromShell(path) {
  const socket = join(console_.folder, 'keldrad.sock');
  execFileSync(join(build, 'service/keldractl'), ['scan', path], { env: { ...process.env, KELDRA_SOCKET: socket } });
}

/** What a link saves. */
async function saved(link) {
  const [download] = await Promise.all([page.waitForEvent('download'), link.click()]);
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
  scanFromShell(join(console_.folder, 'samples/Pictures'));
  await open();
  assert.deepEqual(await page.locator('#scans .name').allTextContents(), ['Scan from the command line', 'Manual scan']);
  await page.locator('#finds-only').check();
  assert.deepEqual(await page.locator('#scans .name').allTextContents(), ['Manual scan']);
  assert.match(await page.locator('#scans .result').textContent(), /Infected: 2\./);
  await fitsAndIsAccessible(page, 'history');
  await page.locator('#scans a').click();
  await page.locator('#finds .entry').first().waitFor();
  assert.deepEqual((await page.locator('#finds .name').allTextContents()).sort(), ['test-file.com', 'test-file.zip']);
  assert.match(await page.locator('#finds .detail').first().textContent(), / · left in place$/);
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

test('list and finds are saved as CSV', async () => {
  await open();
  const list = await saved(page.locator('#export'));
  assert.equal(list.name, 'keldra-scans.csv');
  assert.match(list.text, /^\uFEFFScan,Kind,State,.*\r\n(.*\r\n){2}$/);
  await page.locator('#scans a', { hasText: 'Manual scan' }).click();
  await page.locator('#finds .entry').first().waitFor();
  const finds = await saved(page.locator('#scan-export'));
  assert.match(finds.name, /^keldra-scan-[0-9_]+\.csv$/);
  assert.match(finds.text, /test-file\.com,Infected,.*,Test_Virus,left in place\r\n/);
  assert.deepEqual(page.errors, []);
});

test('times, numbers and the service speak the language of the page', async () => {
  const german = await newPage(browser, console_, { locale: 'de-DE' });
  await logOn(german, console_);
  await german.goto(addresses.history);
  await german.locator('#scans a', { hasText: 'Manuelle Prüfung' }).click();
  await german.locator('#finds .entry').first().waitFor();
  assert.match(await german.locator('#finds .detail').first().textContent(), / · an ihrem Ort belassen$/);
  assert.match(await german.locator('#scan-title').textContent(), /^Manuelle Prüfung vom \d\d\.\d\d\.\d{4}, \d\d:\d\d$/);
  await german.context().close();
});
