// A scan from the button to its result.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { chmodSync, mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test, { after, before } from 'node:test';
import { addresses, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';
import { setControls } from './support/controls.mjs';
import { root } from './support/templates.mjs';

const FILES = 12_000;
const samples = mkdtempSync(join(tmpdir(), 'keldra-samples-'));

/** Sample files and enough others for a scan that takes some seconds. */
function makeFiles() {
  execFileSync(join(root, 'scripts/make-samples'), [join(samples, 'samples')]);
  mkdirSync(join(samples, 'many'));
  for (let i = 0; i < FILES; i += 1) writeFileSync(join(samples, `many/${i}.txt`), `file ${i}\n`.repeat(2000));
  chmodSync(samples, 0o755);
}

let console_;
let browser;
let page;
before(async () => {
  makeFiles();
  [console_, browser] = await Promise.all([startConsole(['--scan-path', samples]), openBrowser()]);
  page = await newPage(browser, console_);
  await logOn(page, console_);
});
after(async () => {
  await browser?.close();
  await console_?.stop();
  rmSync(samples, { recursive: true, force: true });
});

const figure = async (id) => Number((await page.locator(`#${id}`).textContent()).replace(/\D/g, ''));

async function startScan() {
  await page.goto(addresses.manual);
  // Finds are only reported, so that every scan of this file meets the same ones.
  await setControls(page, { 'files-all': true, 'actions-universal': true, 'first:Universe': '1' });
  await page.locator('#save-and-scan').click();
  await page.waitForURL('**/scanoption.cgi?id=scan_progress_query&RequestID=*');
}

test('saving and scanning leads to a page that counts, and to the finds', async () => {
  await startScan();
  const seen = new Set();
  while (await page.locator('body[data-page="scan-progress"]').count()) {
    const scanned = await figure('scanned').catch(() => null);
    if (scanned !== null) seen.add(scanned);
    await page.waitForTimeout(300);
  }
  await page.locator('body[data-page="scan-done"]').waitFor();
  assert.ok(seen.size > 1, `the page counted: ${[...seen]}`);
  assert.equal(await figure('scanned'), await figure('total'));
  assert.ok(await figure('total') > FILES);
  assert.equal(await figure('infected'), 2);
  assert.equal(await page.locator('#something-found').isVisible(), true);
  assert.deepEqual(page.errors, []);
});

test('a running scan is stopped by its button and the page says so', async () => {
  await startScan();
  await page.locator('#stop').click();
  await page.locator('body[data-page="scan-stopped"]').waitFor();
  assert.equal(await page.locator('#message').textContent(), 'The scan was stopped.');
  assert.ok(await figure('scanned') < FILES);
  await page.locator('#back').click();
  assert.match(page.url(), /id=manual_scan$/);
});

test('a scan that is refused because another one runs is told, and the settings can still be saved', async () => {
  await startScan();
  const progress = page.url();
  await page.goto(addresses.manual);
  await page.locator('#save-and-scan').click();
  await page.locator('#start-failed').waitFor();
  await page.locator('#save').click();
  await page.locator('.notice.success').waitFor();
  await page.goto(progress);
  await page.locator('#stop').click();
  await page.locator('body[data-page="scan-stopped"]').waitFor();
});

test('the question whether to overwrite does not forget that a scan was wanted', async () => {
  const other = await newPage(browser, console_);
  await logOn(other, console_);
  await page.goto(addresses.manual);
  await other.goto(addresses.manual);
  await other.locator('#backup').click();
  await other.locator('#save').click();
  await other.locator('.notice.success').waitFor();
  await other.context().close();
  await page.locator('#save-and-scan').click();
  await page.locator('#overwrite-question').waitFor();
  assert.match(page.url(), /scanoption\.cgi$/, 'no scan was started yet');
  await page.locator('#overwrite-yes').click();
  await page.waitForURL('**/scanoption.cgi?id=scan_progress_query&RequestID=*');
  await page.locator('#stop').click();
  await page.locator('body[data-page="scan-stopped"]').waitFor();
});

test('the progress of a scan that never was is no dead end', async () => {
  await page.goto('/NorvLinux/scanoption.cgi?id=scan_progress_query&RequestID=../etc/passwd');
  await page.locator('main a.button').click();
  await page.waitForURL('**/showpage.cgi?page=norv_main.html');
});
