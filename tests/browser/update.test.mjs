// A manual update from its form to its end.
import assert from 'node:assert/strict';
import test, { after, before } from 'node:test';
import { addresses, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';
import { setControls } from './support/controls.mjs';

let console_;
let browser;
let page;
before(async () => {
  [console_, browser] = await Promise.all([startConsole(), openBrowser()]);
  page = await newPage(browser, console_);
  await logOn(page, console_);
});
after(async () => { await browser?.close(); await console_?.stop(); });

test('an update without a component is told before anything is asked for', async () => {
  await page.goto(addresses.update);
  await setControls(page, { 'virus-pattern': false, 'spyware-pattern': false, 'scan-engine': false });
  await page.locator('#update').click();
  await page.locator('#components-none').waitFor();
  assert.match(page.url(), /update_manual/);
});

test('an update is followed to its end, and the page says how it ended', async () => {
  await page.goto(addresses.update);
  await setControls(page, { 'virus-pattern': true, 'spyware-pattern': true });
  await page.locator('#update').click();
  await page.waitForURL(/id=update_progress&RequestID=[0-9_]+$/);
  await page.locator('body[data-page="update-done"], body[data-page="update-ended"]').waitFor({ timeout: 60_000 });
  assert.notEqual(await page.locator('main .notice').textContent(), '');
  await page.locator('#back').click();
  assert.match(page.url(), /update_manual/);
});
