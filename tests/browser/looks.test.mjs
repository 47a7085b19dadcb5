// Every page as people see it: by every colour scheme, width and language, and with assistive technology.
import assert from 'node:assert/strict';
import test from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { desktop, faults, fitsScreen, phone, picture } from './support/looks.mjs';
import { browser, console_, shareConsole } from './support/shared.mjs';

shareConsole({ shared: null });

const views = [
  { name: 'desktop', viewport: desktop, colorScheme: 'light', locale: 'en-US' },
  { name: 'desktop-dark', viewport: desktop, colorScheme: 'dark', locale: 'en-US' },
  { name: 'phone', viewport: phone, colorScheme: 'light', locale: 'en-US' },
  { name: 'phone-dark', viewport: phone, colorScheme: 'dark', locale: 'en-US' },
  { name: 'desktop-de', viewport: desktop, colorScheme: 'light', locale: 'de-DE' },
  { name: 'desktop-ja', viewport: desktop, colorScheme: 'light', locale: 'ja-JP' },
  { name: 'phone-de', viewport: phone, colorScheme: 'light', locale: 'de-DE' },
  { name: 'phone-ja', viewport: phone, colorScheme: 'light', locale: 'ja-JP' },
];

async function look(page, name, view) {
  await fitsScreen(page, name);
  assert.deepEqual(await faults(page), [], name);
  assert.equal(await page.getAttribute('html', 'lang'), view.locale, name);
  assert.doesNotMatch(await page.content(), /%\[[A-Z]|__[A-Z]/, name);
  await picture(page, `${name}-${view.name}`);
}

for (const view of views) {
  test(`${view.name}: no page is too wide, half translated or hard to use`, async () => {
    const { name: _, ...options } = view;
    const page = await newPage(browser, console_, { ...options, bypassCSP: true, reducedMotion: 'reduce' });
    await page.goto('/');
    await look(page, 'logon', view);
    await logOn(page, console_);
    for (const [name, address] of Object.entries(addresses)) {
      await page.goto(address);
      if (name === 'overview') await page.locator('#verdict.warning, #verdict.success, #verdict.danger').waitFor();
      await look(page, name, view);
    }
    await page.context().close();
  });
}

test('nothing moves on a page while it loads', async () => {
  const page = await newPage(browser, console_, { viewport: desktop });
  await page.addInitScript(() => {
    window.moved = 0;
    new PerformanceObserver((list) => { for (const entry of list.getEntries()) window.moved += entry.value; })
      .observe({ type: 'layout-shift', buffered: true });
  });
  await logOn(page, console_);
  for (const name of ['overview', 'manual', 'realtime', 'scheduled', 'update', 'updateSchedule', 'quarantine', 'history']) {
    await page.goto(addresses[name], { waitUntil: 'networkidle' });
    assert.ok(await page.evaluate(() => window.moved) < 0.05, name);
  }
});

test('pages ask no other server for anything and break no rule of their policy', async () => {
  const page = await newPage(browser, console_);
  const elsewhere = [];
  page.on('request', (request) => { if (!request.url().startsWith(console_.base)) elsewhere.push(request.url()); });
  await logOn(page, console_);
  for (const address of Object.values(addresses)) await page.goto(address, { waitUntil: 'networkidle' });
  assert.deepEqual(elsewhere, []);
  assert.deepEqual(page.errors, []);
});

test('a settings page is worked by keyboard alone', async () => {
  const page = await newPage(browser, console_);
  await logOn(page, console_);
  await page.goto(addresses.scheduled);
  await page.keyboard.press('Tab');
  assert.equal(await page.evaluate(() => document.activeElement.className), 'skip');
  await page.locator('#schedule-on').focus();
  await page.keyboard.press('Space');
  const on = await page.locator('#schedule-on').isChecked();
  await page.locator('#save').focus();
  await page.keyboard.press('Enter');
  await page.locator('.notice.success').waitFor();
  await page.goto(addresses.scheduled);
  assert.equal(await page.locator('#schedule-on').isChecked(), on);
});
