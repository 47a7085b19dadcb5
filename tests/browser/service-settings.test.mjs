// Settings that belong to no scan, the shares of this server, and the events that tell what happened.
import assert from 'node:assert/strict';
import { mkdirSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { audited, browser, console_, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

shareConsole({ shared: audited });

const settings = (group) => `/NorvLinux/settings.cgi?page=${group}`;
async function openGroup(group, on = page) {
  await on.goto(settings(group));
  await on.locator('#form').waitFor();
}

inEveryView('every group of settings is there in words that suit', async (own, view) => {
  for (const [group, key] of [['shares', 'SHARES'], ['updates', 'SOURCES'], ['limits', 'LIMITS']]) {
    await openGroup(group, own);
    assert.equal(await own.locator('h1').textContent(), view.text(key));
    await view.suits(own);
    if (view.plain) await fitsAndIsAccessible(own, `settings-${group}`);
  }
});

test('a number out of its range is told beside it, one within is kept, and two people do not overwrite each other', async () => {
  const other = await newPage(browser, console_);
  await logOn(other, console_);
  await openGroup('limits');
  await openGroup('limits', other);
  await page.locator('#limits-realtime_wait').fill('301');
  await page.locator('#save').click();
  assert.match(await page.locator('#limits-realtime_wait-wrong').textContent(), /1 to 300/);
  await page.locator('#limits-realtime_wait').fill('25');
  await page.locator('#save').click();
  await page.locator('#saved').waitFor();
  await page.reload();
  await page.locator('#form').waitFor();
  assert.equal(await page.locator('#limits-realtime_wait').inputValue(), '25');
  await other.locator('#limits-realtime_wait').fill('30');
  await other.locator('#save').click();
  await other.locator('#refused', { hasText: 'changed this setting meanwhile' }).waitFor();
  assert.equal(await other.locator('#limits-realtime_wait').inputValue(), '30', 'what was typed stays');
  await other.context().close();
});

test('the password of the proxy is stored and never comes back', async () => {
  await openGroup('updates');
  await page.locator('#updates-proxy_password').fill('hush hush');
  await page.locator('#save').click();
  await page.locator('#saved').waitFor();
  const answer = await page.request.get('/NorvLinux/settings.cgi?list=1');
  assert.doesNotMatch(await answer.text(), /hush/);
  await openGroup('updates');
  assert.equal(await page.locator('#updates-proxy_password').inputValue(), '');
  assert.notEqual(await page.locator('#updates-proxy_password').getAttribute('placeholder'), null);
});

test('a new share is one that every scan looks through, and a folder that is not there is refused', async () => {
  const share = join(console_.folder, 'another; share');
  mkdirSync(share, { recursive: true });
  await openGroup('shares');
  await page.locator('#share-path').fill('/no/such/folder');
  await page.locator('#share-add').click();
  await page.locator('#save').click();
  await page.locator('#refused', { hasText: 'There is no such folder' }).waitFor();
  await page.locator('#share-list input[value="/no/such/folder"]').uncheck();
  await page.locator('#share-path').fill(share);
  await page.keyboard.press('Enter');
  await page.locator('#save').click();
  await page.locator('#saved').waitFor();
  for (const address of [addresses.manual, addresses.realtime, addresses.scheduled]) {
    await page.goto(address);
    await page.locator('#chosen bdi', { hasText: 'another; share' }).waitFor();
  }
  page.errors.length = 0;
});

inEveryView('what happened is listed, filtered and saved to a file', async (own, view) => {
  await own.goto('/NorvLinux/events.cgi');
  await own.locator('#events tbody tr').first().waitFor();
  await view.suits(own);
  assert.doesNotMatch(await own.locator('#events').textContent(), /[a-zA-Z]+\.[a-z_]+[:：] ?"/, 'settings are called as on their pages');
  if (view.plain) await fitsAndIsAccessible(own, 'events');
  await own.locator('#kind').selectOption('service');
  await own.waitForFunction((word) => [...document.querySelectorAll('#events .tag')].every((tag) => tag.textContent === word),
    view.text('KIND_SERVICE'));
  await own.goto('/NorvLinux/events.cgi?kind=service');
  await own.locator('#events tbody tr').first().waitFor();
  assert.equal(await own.locator('#kind').inputValue(), 'service');
  await own.locator('#search').fill('nothing is called that');
  await own.locator('#nothing').waitFor();
  await view.suits(own);
  await own.locator('#search').fill('');
  await own.locator('#events tbody tr').first().waitFor();
  const [download] = await Promise.all([own.waitForEvent('download'), own.locator('#export').click()]);
  const lines = readFileSync(await download.path(), 'utf8').trim().split('\r\n');
  assert.equal(lines.length - 1, await own.locator('#events tbody tr').count());
  assert.ok(lines[1].includes(`,${view.text('KIND_SERVICE')},`), lines[1]);
});
