// The end of a session that nobody uses: what a page asks by itself is no use, and what somebody types is.
import assert from 'node:assert/strict';
import test from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { browser, console_, shareConsole } from './support/shared.mjs';

const IDLE = 12;
shareConsole({ options: ['--service-option', '--session-idle', '--service-option', String(IDLE)], shared: null });

const isOpen = async (page) => {
  await page.goto(addresses.manual);
  return new URL(page.url()).pathname !== '/';
};

test('who types for long stays logged on, who only looks on does not', async () => {
  const [writer, watcher] = await Promise.all(['writer', 'watcher'].map(() => newPage(browser, console_)));
  for (const page of [writer, watcher]) await logOn(page, console_);
  let asked = 0;
  watcher.on('response', (answer) => { if (answer.url().includes('/overview.cgi') && answer.ok()) asked += 1; });
  await writer.goto(addresses.manual);
  await writer.locator('#patterns').focus();
  for (let second = 0; second < IDLE + 4; second += 2) {
    await writer.keyboard.type('*.tmp ');
    await writer.waitForTimeout(2000);
  }
  assert.ok(asked >= 2, 'the overview has asked');
  writer.on('dialog', (dialog) => dialog.accept());
  assert.deepEqual([await isOpen(writer), await isOpen(watcher)], [true, false]);
  assert.equal(await watcher.locator('#ended').isVisible(), true);
});
