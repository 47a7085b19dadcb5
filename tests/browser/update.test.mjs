// A manual update from its form to its end.
import assert from 'node:assert/strict';
import { chmodSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test, { after, before } from 'node:test';
import { addresses, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';
import { setControls } from './support/controls.mjs';

const source = mkdtempSync(join(tmpdir(), 'keldra-source-'));

let console_;
let browser;
let page;
before(async () => {
  chmodSync(source, 0o755);
  writeFileSync(join(source, 'local.ndb'), 'Keldra.Browser.Test:0:0:6b656c647261\n');
  [console_, browser] = await Promise.all([startConsole(), openBrowser()]);
  page = await newPage(browser, console_);
  await logOn(page, console_);
});
after(async () => {
  await browser?.close();
  await console_?.stop();
  rmSync(source, { recursive: true });
});

test('an update without a component is told before anything is asked for', async () => {
  await page.goto(addresses.update);
  await setControls(page, { 'virus-pattern': false, 'spyware-pattern': false, 'scan-engine': false });
  await page.locator('#update').click();
  await page.locator('#components-none').waitFor();
  assert.match(page.url(), /update_manual/);
});

async function update() {
  await page.goto(addresses.update);
  await setControls(page, { 'virus-pattern': true, 'spyware-pattern': true });
  await page.locator('#update').click();
  await page.waitForURL(/id=update_progress&RequestID=[0-9_]+$/);
  await page.locator('body[data-page="update-done"], body[data-page="update-ended"]').waitFor({ timeout: 60_000 });
}

test('an update from a local source is followed to its end, and its versions are shown', async () => {
  console_.configureUpdates({ Source: 'custom', CustomURLs: join(source, 'local.ndb') });
  await update();
  assert.equal(await page.locator('body').getAttribute('data-page'), 'update-done');
  await page.locator('#back').click();
  await page.waitForURL('**/showpage.cgi?page=update_manual.html');
  assert.match(await page.locator('#virus-pattern-state').textContent(), /Version \S+, last updated \d/);
});

test('an update that finds nothing new says that all is current', async () => {
  await update();
  assert.equal(await page.locator('h1').textContent(), 'Update complete');
  assert.equal(await page.locator('main .notice').textContent(), 'All components are current.');
});

test('an update that fails says why', async () => {
  console_.configureUpdates({ CustomURLs: join(source, 'missing.ndb') });
  await update();
  assert.equal(await page.locator('h1').textContent(), 'Update not completed.');
  assert.match(await page.locator('main .notice').textContent(), /cannot be (read|reached)/);
});
