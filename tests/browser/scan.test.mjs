// A scan from the button to its result.
import assert from 'node:assert/strict';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { setControls } from './support/controls.mjs';
import { fillForLongScan, keepBusy } from './support/scans.mjs';
import { browser, console_, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

const samples = mkdtempSync(join(tmpdir(), 'keldra-samples-'));

shareConsole({
  options: ['--scan-path', samples],
  prepare: () => fillForLongScan(samples),
  tidy: () => rmSync(samples, { recursive: true, force: true }),
});

const figure = async (id, onPage = page) => Number((await onPage.locator(`#${id}`).textContent()).replace(/\D/g, ''));

// Finds are only reported, so that every scan of this file meets the same ones.
const reportOnly = { 'files-all': true, 'actions-universal': true, 'first:Universe': '1' };

async function startScan(onPage = page) {
  await onPage.goto(addresses.manual);
  await setControls(onPage, reportOnly);
  await onPage.locator('#save-and-scan').click();
  await onPage.waitForURL('**/scanoption.cgi?id=scan_progress_query&RequestID=*');
}

test('saving and scanning leads to a page that counts, and to the finds', async () => {
  await startScan();
  const seen = new Set();
  while (await page.locator('body[data-page="scan-progress"]').count()) {
    const scanned = await figure('scanned').catch(() => null);
    if (scanned !== null) seen.add(scanned);
    await page.waitForTimeout(300);
  }
  await page.locator('body[data-page="scan-done"] #scanned', { hasText: /\d/ }).waitFor();
  assert.ok(seen.size > 1, `the page counted: ${[...seen]}`);
  assert.equal(await figure('scanned'), await figure('total'));
  assert.ok(await figure('total') > 500);
  assert.equal(await figure('infected'), 2);
  assert.equal(await page.locator('#something-found').isVisible(), true);
  assert.deepEqual(page.errors, []);
});

inEveryView('a scan is set up, saved, started, watched and stopped', async (own, view) => {
  keepBusy(samples);
  await own.goto(addresses.manual);
  await own.locator('#tree .opener').first().waitFor();
  await view.suits(own);
  await setControls(own, reportOnly);
  await own.locator('#pass-warning').waitFor();
  await view.suits(own);
  await own.locator('#save').click();
  await own.locator('.notice.success').waitFor();
  await startScan(own);
  await own.locator('#finds .entry').first().waitFor();
  await own.locator('#rate', { hasText: /[1-9]/ }).waitFor();
  assert.equal(await own.locator('#finds .kind').first().textContent(), view.text('MALWARE_TEST'));
  assert.equal(await own.locator('#finds .detail').first().textContent(), view.said('left in place'));
  await view.suits(own);
  await own.locator('#stop').click();
  await own.locator('body[data-page="scan-stopped"]').waitFor();
  assert.equal(await own.locator('#message').textContent(), view.said('The scan was stopped.'));
  await own.locator('#finds .entry').first().waitFor();
  assert.ok(await figure('scanned', own) < await figure('total', own));
  await view.suits(own);
  await own.locator('#back').click();
  assert.match(own.url(), /id=manual_scan$/);
});

test('a scan that is refused because another one runs is told, and the settings can still be saved', async () => {
  keepBusy(samples);
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
  keepBusy(samples);
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
