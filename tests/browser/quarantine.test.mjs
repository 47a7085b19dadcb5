// The quarantine as its owner meets it: real finds put away, brought back, trusted and deleted.
import assert from 'node:assert/strict';
import { existsSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import test, { after, before } from 'node:test';
import { addresses, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { QUARANTINE, scan } from './support/scans.mjs';

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

const sample = (name) => join(console_.folder, 'samples/Downloads', name);
const entry = (name) => page.locator('#items .entry', { has: page.locator('.open', { hasText: name }) });
const names = () => page.locator('#items .open').allTextContents();

async function open() {
  await page.goto(addresses.quarantine);
  await page.locator('#items .entry, #nothing:not([hidden])').first().waitFor();
}

/** Chooses files and does something to them, answering the question with yes. */
async function act(action, files, answer = '#question-yes') {
  for (const name of files) await entry(name).locator('.pick').check();
  await page.locator(`#bulk [data-action="${action}"]`).click();
  await page.locator('#question[open]').waitFor();
  await page.locator(answer).click();
  if (answer === '#question-yes') await page.locator('#outcome:not([hidden])').waitFor();
}

test('an empty quarantine says so and how it fills', async () => {
  await open();
  assert.match(await page.locator('#nothing').textContent(), /quarantine is empty/);
  assert.equal(await page.locator('#bulk').isVisible(), false);
  await fitsAndIsAccessible(page, 'quarantine-empty');
});

test('what a scan put away is listed, found by search and shown in detail', async () => {
  await scan(page, QUARANTINE);
  await open();
  assert.deepEqual((await names()).sort(), ['test-file.com', 'test-file.zip']);
  assert.equal(existsSync(sample('test-file.com')), false);
  await page.locator('#search').fill('ZIP');
  assert.deepEqual(await names(), ['test-file.zip']);
  await page.locator('#search').fill('no such thing');
  await page.locator('#no-match').waitFor();
  await page.locator('#search').fill('');
  await entry('test-file.com').locator('.open').click();
  assert.equal(await page.locator('#details-path').textContent(), sample('test-file.com'));
  assert.match(await page.locator('#details-malware').textContent(), /^Test file \(/);
  assert.equal(await page.locator('#details-size').textContent(), '68 bytes');
  assert.match(await page.locator('#details-hash').textContent(), /^275a021b[0-9a-f]{56}$/);
  await fitsAndIsAccessible(page, 'quarantine-details');
  await page.keyboard.press('Escape');
  await fitsAndIsAccessible(page, 'quarantine');
});

test('no answer, or no, changes nothing', async () => {
  await act('delete', ['test-file.com', 'test-file.zip'], '#question-no');
  await page.locator('#bulk [data-action="delete"]').click();
  assert.match(await page.locator('#question-text').textContent(), /cannot be undone/);
  assert.equal(await page.locator('#question-names li').count(), 2);
  assert.equal(await page.evaluate(() => document.activeElement.id), 'question-no', 'the harmless answer comes first');
  await fitsAndIsAccessible(page, 'quarantine-question');
  await page.keyboard.press('Escape');
  await open();
  assert.equal((await names()).length, 2);
});

test('a file that cannot be put back stays, with the reason beside it, while the others come back', async () => {
  writeFileSync(sample('test-file.zip'), 'somebody put another file here');
  await act('restore', ['test-file.com', 'test-file.zip']);
  assert.match(await page.locator('#outcome').textContent(), /Restored: 1.*Not possible: 1/);
  assert.equal(await entry('test-file.zip').locator('.error').textContent(),
    'There is a file of that name already; nothing was overwritten.');
  assert.equal(existsSync(sample('test-file.com')), true);
  assert.deepEqual(await names(), ['test-file.zip']);
  await fitsAndIsAccessible(page, 'quarantine-refused');
});

test('a deleted file is gone for good', async () => {
  await act('delete', ['test-file.zip']);
  await page.locator('#nothing').waitFor();
  assert.match(await page.locator('#outcome').textContent(), /Deleted for good: 1/);
});

test('a trusted file comes back and no scan finds it again, until it is trusted no longer', async () => {
  await scan(page, QUARANTINE);
  await open();
  await act('trust', ['test-file.com']);
  assert.equal(existsSync(sample('test-file.com')), true);
  assert.equal(await page.locator('#outcome').textContent(), 'Trusted: 1 · Restored: 1');
  assert.match(await page.locator('#trusted .name').textContent(), /test-file\.com$/);
  await fitsAndIsAccessible(page, 'quarantine-trusted');
  await scan(page, QUARANTINE);
  assert.equal(await page.locator('#infected').textContent(), '0');
  await open();
  await page.locator('#trusted .distrust').click();
  await page.locator('#question-yes').click();
  await page.locator('#none-trusted').waitFor();
  await scan(page, QUARANTINE);
  assert.equal(await page.locator('#infected').textContent(), '1');
});

test('everything is worked by keyboard and the focus is never lost', async () => {
  await open();
  await entry('test-file.com').locator('.open').focus();
  await page.keyboard.press('Enter');
  await page.locator('#details[open] [data-action="delete"]').focus();
  await page.keyboard.press('Enter');
  await page.locator('#question-yes').focus();
  await page.keyboard.press('Enter');
  await page.locator('#nothing').waitFor();
  assert.equal(await page.evaluate(() => document.activeElement.id), 'outcome');
  assert.deepEqual(page.errors, []);
});

test('who is not logged on any more is brought to the log-on page', async () => {
  await page.context().clearCookies();
  await page.goto(addresses.quarantine);
  await page.locator('#password').waitFor();
});
