// The overview: is the server protected, and what is to be done next.
import assert from 'node:assert/strict';
import { renameSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { QUARANTINE, scan } from './support/scans.mjs';
import { audited, browser, console_, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

shareConsole({ shared: null });

async function open(options = {}) {
  const page = await newPage(browser, console_, { ...audited, ...options });
  await logOn(page, console_);
  await page.locator('#verdict.warning, #verdict.danger, #verdict.success').waitFor();
  return page;
}

/** A report of a server in good health, with what the test changes. */
const report = (changes = {}) => ({
  now: 1_800_000_000, configured: true,
  realtime: { wanted: true, running: true, possible: true },
  signatures: { loaded: true, loading: false, version: '1', time: 1_799_990_000, count: 9 },
  update: { running: false, id: '', progress: 0, next: 1_800_003_600 },
  running: [], nextScan: 1_800_050_000, quarantined: 0, untreated: 0, untreatedScan: '', finds: [], ...changes,
});

async function show(page, content) {
  await page.unroute('**/overview.cgi');
  await page.route('**/overview.cgi', (route) => route.fulfill({ json: content }));
  await page.goto(addresses.overview);
  await page.locator('#verdict.warning, #verdict.danger, #verdict.success').waitFor();
}

inEveryView('the gravest fault is the one that is told, and its remedy is one click away', async (page, view) => {
  await page.locator('#last-scan').getByText(view.text('LAST_SCAN_NEVER'), { exact: true }).waitFor();
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'overview-fresh');
  const none = { loaded: false, loading: false, version: '', time: 0, count: 0 };
  const old = { loaded: true, loading: false, version: '1', time: 1_799_000_000, count: 9 };
  const off = { wanted: false, running: false, possible: true };
  const worse = [
    [{}, 'VERDICT_GOOD', null],
    [{ update: { running: false, id: '', progress: 0, next: 0 } }, 'VERDICT_UPDATE', 'scheduled_update'],
    [{ nextScan: 0 }, 'VERDICT_SCHEDULE', 'scheduled_scan'],
    [{ realtime: off }, 'VERDICT_REALTIME', 'realtime_scan'],
    [{ untreated: 3, untreatedScan: '17_1' }, 'VERDICT_UNTREATED', 'history.cgi#17_1'],
    [{ signatures: old }, 'VERDICT_AGE', 'update_manual'],
    [{ signatures: { ...old, unloaded: true } }, 'VERDICT_UNLOADED', 'update_manual'],
    [{ signatures: none }, 'VERDICT_SIGNATURES', 'update_manual'],
    [{ configured: false }, 'VERDICT_CONFIGURATION', null],
  ];
  let changes = {};
  for (const [change, key, remedy] of worse) {
    changes = { ...changes, ...change };
    await show(page, report(changes));
    assert.equal(await page.locator('#verdict-text').textContent(), view.text(key, { count: 3 }));
    assert.equal(await page.locator('#next').isVisible(), remedy !== null, key);
    if (remedy) assert.ok((await page.locator('#next').getAttribute('href')).includes(remedy), remedy);
    await view.suits(page);
  }
  await show(page, report({ realtime: { wanted: false, running: false, possible: false } }));
  assert.equal(await page.locator('#verdict.success #verdict-text').textContent(), view.text('VERDICT_PARTLY'));
  const running = { id: '17_1', kind: 'scheduled', state: 4, total: 200, scanned: 50, found: 1, started: 0, ended: 0 };
  await show(page, report({ running: [running] }));
  assert.equal(await page.locator('#scan-now').textContent(),
    view.text('SCAN_RUNNING', { kind: view.text('SCHEDULED'), percent: 25, found: 1 }));
  assert.match(await page.locator('#scan-go').getAttribute('href'), /scan_progress_query&RequestID=17_1$/);
  await view.suits(page);
});

test('the finds of a scan appear without a reload', async () => {
  const page = await open();
  const other = await newPage(browser, console_);
  await logOn(other, console_);
  await scan(other, QUARANTINE);
  await page.locator('#finds .entry').first().waitFor();
  assert.match(await page.locator('#last-scan').textContent(), /Last: Manual scan/);
  assert.notEqual(await page.locator('#quarantined').textContent(), '0');
  assert.match(await page.locator('#finds .detail').first().textContent(), /quarantine/);
  await fitsAndIsAccessible(page, 'overview-finds');
});

test('nothing is asked while the page is hidden', async () => {
  const page = await open();
  let asked = 0;
  page.on('request', (request) => { if (request.url().endsWith('/overview.cgi')) asked += 1; });
  await page.evaluate(() => {
    Object.defineProperty(document, 'hidden', { value: true, configurable: true });
    document.dispatchEvent(new Event('visibilitychange'));
  });
  await page.waitForTimeout(6000);
  const whileHidden = asked;
  await page.evaluate(() => {
    Object.defineProperty(document, 'hidden', { value: false, configurable: true });
    document.dispatchEvent(new Event('visibilitychange'));
  });
  await page.waitForRequest('**/overview.cgi');
  assert.equal(whileHidden, 0);
});

test('an open overview says so when the service is away, and when it is back', async () => {
  const page = await open();
  const socket = join(console_.folder, 'keldrad.sock');
  renameSync(socket, `${socket}.away`);
  await page.locator('#verdict.danger', { hasText: 'does not answer' }).waitFor({ timeout: 15000 });
  assert.match(page.url(), /norv_main/, 'whoever looks on is not sent away');
  await fitsAndIsAccessible(page, 'overview-down');
  renameSync(`${socket}.away`, socket);
  await page.locator('#verdict:not(.danger)').waitFor({ timeout: 15000 });
});

test('an open overview says so when its questions are lost on the way', async () => {
  const page = await open();
  await page.route('**/overview.cgi', () => {});
  await page.locator('#verdict.danger', { hasText: 'does not answer' }).waitFor({ timeout: 30000 });
});
