// A schedule from its page to the scan that it starts.
import assert from 'node:assert/strict';
import test from 'node:test';
import { addresses } from './support/console.mjs';
import { setControls } from './support/controls.mjs';
import { openList, page, shareConsole } from './support/shared.mjs';

shareConsole();

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
    await openList(page, addresses.history);
  }
  assert.deepEqual(await page.locator('#scans .name').allTextContents(), ['Scheduled scan']);
  await page.goto(addresses.quarantine);
  await page.locator('.entry').first().waitFor();
  assert.deepEqual(page.errors, []);
});
