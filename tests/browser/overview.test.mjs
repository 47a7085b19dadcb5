// The overview: is the server protected, and what is to be done next.
import assert from 'node:assert/strict';
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
  now: 1_800_000_000, verdict: 'protected', reasons: [],
  realtime: { wanted: true, running: true, possible: true },
  signatures: { loaded: true, loading: false, version: '1', time: 1_799_990_000, count: 9 },
  update: { running: false, id: '', progress: 0, next: 1_800_003_600 },
  running: [], lastScans: [], nextScan: 1_800_050_000, quarantined: 0, untreated: 0, untreatedScan: '', finds: [], ...changes,
});

async function show(page, content) {
  await page.unroute('**/overview.cgi*');
  await page.route('**/overview.cgi*', (route) => route.fulfill({ json: content }));
  await page.goto(addresses.overview);
  await page.locator('#verdict.warning, #verdict.danger, #verdict.success').waitFor();
}

inEveryView('the service’s verdict is told as it is, and each of its reasons leads to where it is dealt with', async (page, view) => {
  await page.locator('#last-scans').getByText(view.text('LAST_SCAN_NEVER'), { exact: true }).waitFor();
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'overview-fresh');
  const reason = (code, severity, text, more = {}) => ({ reason: code, severity, text, detail: '', count: 1, ...more });
  const verdicts = [
    ['protected', 'VERDICT_PROTECTED', 'success', []],
    ['attention', 'VERDICT_ATTENTION', 'warning', [reason('update_failed', 'attention', 'Letzte ü'), reason('disk_full', 'attention', 'x', { detail: '/a\u202eb\u00ad\u{e0041}' })]],
    ['unprotected', 'VERDICT_UNPROTECTED', 'danger', [reason('no_signatures', 'unprotected', 'y'), reason('not_scanned', 'attention', 'z', { count: 1200 })]],
    // Neither silence nor a word that the page does not know is good news.
    [undefined, 'VERDICT_UNKNOWN', 'warning', undefined],
    ['splendid', 'VERDICT_UNKNOWN', 'warning', []],
  ];
  for (const [verdict, key, look, reasons] of verdicts) {
    await show(page, report({ verdict, reasons }));
    assert.equal(await page.locator(`#verdict.${look} #verdict-text`).textContent(), view.text(key));
    assert.equal(await page.locator('#reasons li').count(), reasons?.length ?? 0);
    if (view.plain) await fitsAndIsAccessible(page, `overview-${verdict}`);
  }
  await show(page, report({ verdict: 'unprotected', reasons: verdicts[2][3] }));
  assert.match(await page.locator('#reasons li').first().locator('a').getAttribute('href'), /update_manual/);
  assert.match(await page.locator('#reasons li').last().textContent(), /z \(1[.,]200\)/);
  await show(page, report({ verdict: 'attention', reasons: verdicts[1][3] }));
  assert.match(await page.locator('#reasons').textContent(), /x \(\/a⟨U\+202E⟩b⟨U\+00AD⟩⟨U\+E0041⟩\)/, 'a name does not turn its letters round');
  await view.suits(page);
  const running = { id: '17_1', kind: 'scheduled', state: 4, total: 200, scanned: 50, skipped: 0, found: 1, bytesDone: 6, bytesTotal: 10, started: 0, ended: 0 };
  const ended = { ...running, state: 3, scanned: 1, ended: 1_799_990_000, notFullyScanned: 1, skipped: 2 };
  await show(page, report({ running: [running], lastScans: [ended] }));
  assert.equal(await page.locator('#scan-now').textContent(),
    view.text('SCAN_RUNNING', { kind: view.text('SCHEDULED'), percent: 60, found: 1 }));
  assert.match(await page.locator('#scan-go').getAttribute('href'), /scan_progress_query&RequestID=17_1$/);
  const [before, after] = view.text('LAST_SCAN_UNSURE', { kind: view.text('SCHEDULED'), found: 1, scanned: 1, unsure: 3 }).split('{time}');
  const last = await page.locator('#last-scans li').textContent();
  assert.ok(last.startsWith(before) && last.endsWith(after), last);
  await view.suits(page);
});

test('the finds of a scan appear without a reload', async () => {
  const page = await open();
  const other = await newPage(browser, console_);
  await logOn(other, console_);
  await scan(other, QUARANTINE);
  await page.locator('#finds .entry').first().waitFor();
  assert.match(await page.locator('#last-scans').textContent(), /Last: Manual scan/);
  assert.notEqual(await page.locator('#quarantined').textContent(), '0');
  assert.match(await page.locator('#finds .detail').first().textContent(), /quarantine/);
  await page.locator('#days-sum', { hasText: /[1-9]\d* files scanned, [1-9]/ }).waitFor();
  await fitsAndIsAccessible(page, 'overview-finds');
});

test('nothing is asked while the page is hidden', async () => {
  const page = await open();
  let asked = 0;
  page.on('request', (request) => { if (request.url().includes('/overview.cgi')) asked += 1; });
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
  await page.waitForRequest('**/overview.cgi*');
  assert.equal(whileHidden, 0);
});

test('an open overview says so when its questions are lost on the way', async () => {
  const page = await open();
  await page.route('**/overview.cgi*', () => {});
  await page.locator('#verdict.danger', { hasText: 'does not answer' }).waitFor({ timeout: 30000 });
});
