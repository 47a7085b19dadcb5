// Every page as people see it: by every colour scheme, width and language, and with assistive technology.
import assert from 'node:assert/strict';
import { mkdirSync, readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import test, { after, before } from 'node:test';
import { addresses, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';

const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const rules = ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'];
const pictures = process.env.KELDRA_PICTURES;
if (pictures) mkdirSync(pictures, { recursive: true });

let console_;
let browser;
before(async () => { [console_, browser] = await Promise.all([startConsole(), openBrowser()]); });
after(async () => { await browser?.close(); await console_?.stop(); });

const phone = { width: 360, height: 740 };
const desktop = { width: 1280, height: 800 };
const views = [
  { name: 'desktop', viewport: desktop, colorScheme: 'light', locale: 'en-US' },
  { name: 'desktop-dark', viewport: desktop, colorScheme: 'dark', locale: 'en-US' },
  { name: 'phone', viewport: phone, colorScheme: 'light', locale: 'en-US' },
  { name: 'phone-dark', viewport: phone, colorScheme: 'dark', locale: 'en-US' },
  { name: 'phone-de', viewport: phone, colorScheme: 'light', locale: 'de-DE' },
  { name: 'phone-ja', viewport: phone, colorScheme: 'light', locale: 'ja-JP' },
];

/** Rules of accessibility that a page breaks, with the elements concerned. */
async function faults(page) {
  await page.evaluate(axe);
  const { violations, passes } = await page.evaluate((values) => window.axe.run({ runOnly: values }), rules);
  assert.ok(passes.length > 10);
  return violations.map(({ id, nodes }) => `${id}: ${nodes.map((node) => node.html).join(' ')}`);
}

async function look(page, name, view) {
  const wider = await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);
  assert.ok(wider <= 0, `${name} is ${wider} pixels wider than the screen`);
  assert.deepEqual(await faults(page), [], name);
  assert.equal(await page.getAttribute('html', 'lang'), view.locale, name);
  assert.doesNotMatch(await page.content(), /%\[[A-Z]|__[A-Z]/, name);
  if (pictures) await page.screenshot({ path: join(pictures, `${name}-${view.name}.png`), fullPage: true });
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
      if (name === 'overview') await page.locator('#verdict.warning, #verdict.success').waitFor();
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
  for (const name of ['overview', 'manual', 'realtime', 'scheduled', 'update', 'updateSchedule']) {
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
