// A schedule from its page to the scan that it starts.
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
after(async () => {
  await browser?.close();
  await console_?.stop();
});

/** The coming minute of the local clock, as the form writes it; at least five seconds are left to save. */
function nextMinute() {
  const then = new Date(Date.now() + 65_000);
  return [then.getHours(), then.getMinutes()].map((part) => String(part).padStart(2, '0')).join(':');
}

test('a scan scheduled one minute ahead runs, is in the history, and its finds are in quarantine', async () => {
  await page.goto(addresses.scheduled);
  await setControls(page, {
    'schedule-on': true, daily: true, time: nextMinute(), 'files-all': true,
    'actions-universal': true, 'first:Universe': '4',
  });
  await page.locator('#save').click();
  await page.locator('.notice.success').waitFor();

  const list = page.locator('#scans .entry');
  const end = Date.now() + 150_000;
  while (Date.now() < end && !(await list.count())) {
    await page.waitForTimeout(2000);
    await page.goto(addresses.history);
    await page.locator('#scans .entry, #nothing:not([hidden])').first().waitFor();
  }
  assert.deepEqual(await page.locator('#scans .name').allTextContents(), ['Scheduled scan']);
  await page.goto(addresses.quarantine);
  await page.locator('.entry').first().waitFor();
  assert.deepEqual(page.errors, []);
});
