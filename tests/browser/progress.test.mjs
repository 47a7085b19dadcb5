// The progress of a scan that one can trust: finds as they happen, what was not scanned, and the way back to it.
import assert from 'node:assert/strict';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test from 'node:test';
import { addresses } from './support/console.mjs';
import { setControls } from './support/controls.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { fillForLongScan, keepBusy } from './support/scans.mjs';
import { audited, page, shareConsole } from './support/shared.mjs';

const samples = mkdtempSync(join(tmpdir(), 'keldra-progress-'));

shareConsole({
  options: ['--scan-path', samples],
  shared: audited,
  prepare: () => fillForLongScan(samples),
  tidy: () => rmSync(samples, { recursive: true, force: true }),
});

test('finds appear while the scan goes on, and a scan that was left is found again', async () => {
  keepBusy(samples);
  await page.goto(addresses.manual);
  await setControls(page, { 'files-all': true, 'actions-universal': true, 'first:Universe': '1' });
  await page.locator('#save-and-scan').click();
  await page.locator('#finds .entry').first().waitFor();
  assert.equal(await page.locator('body').getAttribute('data-page'), 'scan-progress');
  assert.match(await page.locator('#finds .folder').first().textContent(), /a-finds/);
  assert.match(await page.locator('#finds .detail').first().textContent(), /left in place/);
  await page.locator('#rate', { hasText: /[1-9]/ }).waitFor();
  const progress = page.url();

  await page.goto(addresses.overview);
  await page.locator('#scan-now', { hasText: /Manual scan/ }).waitFor();
  await page.locator('#scan-go').click();
  assert.equal(page.url(), progress);
  await page.goto(addresses.manual);
  await page.locator('#running-link').click();
  assert.equal(page.url(), progress);
  await page.locator('#finds .entry').first().waitFor();

  await page.locator('#stop').click();
  await page.locator('body[data-page="scan-stopped"]').waitFor();
  await page.locator('#details').click();
  await page.locator('#one-scan #finds .entry').first().waitFor();
  assert.deepEqual(page.errors, []);
});

/** Answers of a service in the middle of a scan. */
const status = (changes) => ({
  state: 4, total: 1000, scanned: 100, found: 1, notFullyScanned: 1, skipped: 2, started: 0, ended: 0,
  bytesDone: 1e6, bytesTotal: 1e8, secondsLeft: 90, paused: '',
  kind: 'manual', currentFile: '/srv/share/photos/2024/very long name of a picture.jpg', message: '', from: 0,
  finds: [], ...changes,
});
const find = (path, infected) => ({
  path, infected, left: infected, signature: infected ? 'Eicar-Test-Signature' : '',
  type: infected ? 'Test_Virus' : '', detail: infected ? 'left in place' : 'it is encrypted',
});

test('rate and time left are told, and what was not fully scanned stands apart from finds', async () => {
  await page.goto(addresses.manual);
  await page.locator('#save-and-scan').click();
  await page.waitForURL('**/scanoption.cgi?id=scan_progress_query&RequestID=*');
  const progress = page.url();
  // The scan may end while its page is looked at; the page is kept as it was in the middle of it.
  const middle = await (await page.request.get(progress)).text();
  assert.match(middle, /data-page="scan-progress"/);
  await page.route('**/scanoption.cgi?id=scan_progress_query*', (route) => route.fulfill({ body: middle, contentType: 'text/html' }));
  await page.goto(addresses.overview);
  const asked = [];
  await page.route('**/scanstatus.cgi*', (route) => {
    const from = Number(new URL(route.request().url()).searchParams.get('From'));
    const scanned = 100 + 50 * asked.push(from);
    const finds = from ? [] : [find('/srv/share/<b>bold.com', true), find('/srv/share/secret.zip', false)];
    route.fulfill({ json: status({ scanned, bytesDone: scanned * 1e5, finds, paused: asked.length > 3 ? 'window' : '' }) });
  });
  await page.goto(progress);
  await page.locator('#time-left', { hasText: /about 1 min/ }).waitFor({ timeout: 15000 });
  assert.equal(await page.locator('#percent').textContent().then((text) => Number.parseInt(text, 10) >= 15), true, 'bytes count');
  await page.locator('#paused', { hasText: /time of day/ }).waitFor();
  assert.equal(await page.locator('#finds .name').textContent(), '<b>bold.com');
  assert.match(await page.locator('#unsure').textContent(), /secret\.zip/);
  assert.match(await page.locator('#finds').textContent(), /^(?!.*secret)/s);
  assert.equal(await page.locator('#skipped').textContent(), '2');
  assert.deepEqual([...new Set(asked)], [0, 2], 'no find is asked for twice');
  await fitsAndIsAccessible(page, 'progress');
  await page.unroute('**/scanstatus.cgi*');
  await page.unroute('**/scanoption.cgi?id=scan_progress_query*');
  // The real scan may have ended meanwhile; the next test needs it ended either way.
  await page.goto(progress);
  if (await page.locator('#stop').count()) await page.locator('#stop').click({ timeout: 3000 }).catch(() => {});
  await page.locator('body:not([data-page="scan-progress"])').waitFor();
});
