// The quarantine as its owner meets it: real finds put away, brought back, trusted and deleted.
import assert from 'node:assert/strict';
import { existsSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { addresses } from './support/console.mjs';
import { fitsAndIsAccessible, fitsScreen, picture } from './support/looks.mjs';
import { QUARANTINE, makeSamples, scan } from './support/scans.mjs';
import { audited, console_, openList, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

shareConsole({ shared: audited });

const sample = (name) => join(console_.folder, 'samples/Downloads', name);
const entry = (name, on = page) => on.locator('#items .entry', { has: on.locator('.open', { hasText: name }) });
const names = (on = page) => on.locator('#items .open').allTextContents();
const open = (on = page) => openList(on, addresses.quarantine);
const outcome = (text, on = page) => on.locator('#outcome').getByText(text, { exact: true }).waitFor();

/** Chooses files and asks for something to be done to them. */
async function ask(action, files, on = page) {
  for (const name of files) await entry(name, on).locator('.pick').check();
  await on.locator(`#bulk [data-action="${action}"]`).click();
  await on.locator('#question[open]').waitFor();
}

test('an empty quarantine says so and how it fills', async () => {
  await open();
  assert.match(await page.locator('#nothing').textContent(), /quarantine is empty/);
  assert.equal(await page.locator('#bulk').isVisible(), false);
  await fitsAndIsAccessible(page, 'quarantine-empty');
});

inEveryView('finds are put away, looked up, restored, trusted and deleted', async (own, view) => {
  makeSamples(join(console_.folder, 'samples'));
  await scan(own, QUARANTINE);
  await own.locator('#something-found').waitFor();
  await view.suits(own);
  await open(own);
  assert.deepEqual((await names(own)).sort(), ['test-file.com', 'test-file.zip']);
  assert.equal(existsSync(sample('test-file.com')), false);
  await view.suits(own);
  await own.locator('#search').fill('no such thing');
  await own.locator('#no-match').waitFor();
  await own.locator('#search').fill('ZIP');
  assert.deepEqual(await names(own), ['test-file.zip']);
  await own.locator('#search').fill('');
  await entry('test-file.com', own).locator('.open').click();
  assert.equal(await own.locator('#details-path').textContent(), sample('test-file.com'));
  assert.ok((await own.locator('#details-malware').textContent()).startsWith(`${view.text('MALWARE_TEST')} (`));
  assert.match(await own.locator('#details-size').textContent(), /^68\s?[^ ]+$/);
  assert.match(await own.locator('#details-hash').textContent(), /^275a021b[0-9a-f]{56}$/);
  await view.suits(own);
  if (view.plain) await fitsAndIsAccessible(own, 'quarantine-details');
  await own.keyboard.press('Escape');

  writeFileSync(sample('test-file.zip'), 'somebody put another file here');
  await ask('restore', ['test-file.com', 'test-file.zip'], own);
  assert.equal(await own.locator('#question-text').textContent(), view.text('RESTORE_TEXT'));
  await view.suits(own);
  await own.locator('#question-yes').click();
  await outcome(`${view.text('RESTORE_DONE', { count: 1 })} · ${view.text('SOME_FAILED', { count: 1 })}`, own);
  assert.equal(await entry('test-file.zip', own).locator('.error').textContent(),
    view.said('There is a file of that name already; nothing was overwritten.'));
  assert.equal(existsSync(sample('test-file.com')), true);
  assert.deepEqual(await names(own), ['test-file.zip']);
  await view.suits(own);
  if (view.plain) await fitsAndIsAccessible(own, 'quarantine-refused');

  await entry('test-file.zip', own).locator('.open').click();
  await own.locator('#details [data-action="trust"]').click();
  await own.locator('#restore-too').uncheck();
  await view.suits(own);
  await own.locator('#question-yes').click();
  await outcome(view.text('TRUST_DONE', { count: 1 }), own);
  await view.suits(own);
  await own.locator('#trusted .distrust').click();
  await own.locator('#question-yes').click();
  await own.locator('#none-trusted').waitFor();

  await ask('delete', ['test-file.zip'], own);
  assert.equal(await own.locator('#question-text').textContent(), view.text('DELETE_TEXT'));
  await view.suits(own);
  await own.locator('#question-yes').click();
  await outcome(view.text('DELETE_DONE', { count: 1 }), own);
  assert.equal(await own.locator('#nothing').textContent(), view.text('QUARANTINE_EMPTY'));
  await view.suits(own);
});

test('no answer, or no, changes nothing', async () => {
  makeSamples(join(console_.folder, 'samples'));
  await scan(page, QUARANTINE);
  await open();
  await fitsAndIsAccessible(page, 'quarantine');
  await ask('delete', ['test-file.com', 'test-file.zip']);
  await page.locator('#question-no').click();
  await page.locator('#bulk [data-action="delete"]').click();
  assert.match(await page.locator('#question-text').textContent(), /cannot be undone/);
  assert.equal(await page.locator('#question-names li').count(), 2);
  assert.equal(await page.evaluate(() => document.activeElement.id), 'question-no', 'the harmless answer comes first');
  await fitsAndIsAccessible(page, 'quarantine-question');
  await page.keyboard.press('Escape');
  await open();
  assert.equal((await names()).length, 2);
});

test('a trusted file comes back and no scan finds it again, until it is trusted no longer', async () => {
  await ask('trust', ['test-file.com']);
  await page.locator('#question-yes').click();
  await outcome('Trusted: 1 · Restored: 1');
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

test('of ten thousand files a page is shown, and all that match are chosen at once', async () => {
  const item = (number) => ({ id: `i${number}`, path: `/srv/${number % 10}/${'long name '.repeat(9)}${number}.exe`, signature: `X.${number % 3}`,
    type: 'Virus', size: number, when: 1_700_000_000 + number, task: 'realtime' });
  await page.route('**/quarantine.cgi?list=1*', (route) => {
    const from = Number(new URL(route.request().url()).searchParams.get('From'));
    return route.fulfill({ json: { total: 10_000, trusted: [], items: Array.from({ length: 2000 }, (_, at) => item(from + at)) } });
  });
  await page.goto(addresses.quarantine);
  await page.locator('.range', { hasText: '1 to 100 of 10,000' }).waitFor();
  await fitsScreen(page, 'quarantine-many');
  await picture(page, 'quarantine-many');
  await page.locator('#list .sort', { hasText: 'Size' }).click();
  assert.match(await page.locator('#items .number').first().textContent(), /^10 kB$/);
  await page.locator('#pick-all').check();
  await page.locator('#pick-matching').click();
  assert.match(await page.locator('#picked').textContent(), /10,000/);
  await page.locator('#search').fill('x.1');
  assert.match(await page.locator('#picked').textContent(), /3,333/);
  const bar = await page.locator('#bulk').boundingBox();
  await page.locator('#items .entry').last().scrollIntoViewIfNeeded();
  assert.ok((await page.locator('#bulk').boundingBox()).y >= 0 && bar, 'what is done with them stays in sight');
  await page.unroute('**/quarantine.cgi?list=1*');
});

test('everything is worked by keyboard and the focus is never lost', async () => {
  await open();
  await entry('test-file.com').locator('.open').focus();
  await page.keyboard.press('Enter');
  await page.locator('#details[open] [data-action="delete"]').focus();
  await page.keyboard.press('Enter');
  await page.locator('#question-yes').focus();
  await page.keyboard.press('Enter');
  await outcome('Deleted for good: 1');
  assert.equal(await page.evaluate(() => document.activeElement.id), 'outcome');
  assert.deepEqual(page.errors, []);
});

test('who is not logged on any more is brought to the log-on page', async () => {
  await page.context().clearCookies();
  await page.goto(addresses.quarantine);
  await page.locator('#password').waitFor();
});
