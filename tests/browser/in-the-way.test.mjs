// When something is in the way of what somebody does: nothing typed is lost, and what is said is true.
import assert from 'node:assert/strict';
import { existsSync, renameSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { readControls, setControls } from './support/controls.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { audited, browser, console_, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

shareConsole({ shared: null });

async function open(address) {
  const page = await newPage(browser, console_, audited);
  await logOn(page, console_);
  await page.goto(address);
  return page;
}

inEveryView('a session that ends in a form costs nothing that was typed', async (page, view) => {
  await logOn(page, console_);
  await page.goto(addresses.scheduled);
  await page.locator('#chosen li').first().waitFor();
  const { layers: before } = await readControls(page);
  const layers = before === '9' ? '8' : '9';
  await setControls(page, { 'schedule-on': true, daily: true, time: '04:44', layers });
  await page.context().clearCookies();
  await page.locator('#save').click();
  await page.locator('#kept').waitFor();
  assert.equal(await page.locator('#ended').isVisible(), true);
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'logon-ended');
  await logOn(page, console_);
  assert.equal(await page.locator('#unsaved-page').textContent(), view.text('SCHEDULED'));
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'overview-unsaved');
  await page.locator('#unsaved-page').click();
  await page.locator('#kept-use').waitFor();
  assert.equal((await readControls(page)).layers, before, 'nothing was saved');
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'settings-kept');
  await page.locator('#kept-use').click();
  const found = await readControls(page);
  assert.deepEqual([found.time, found.layers, found.daily], ['04:44', layers, true]);
  await page.locator('#save').click();
  await page.locator('.notice.success').waitFor();
  await page.goto(addresses.scheduled);
  assert.equal(await page.locator('#kept').isVisible(), false);
}, { guest: true });

test('whoever leaves unsaved changes is asked, and nobody else is', async () => {
  const page = await open(addresses.manual);
  const asked = [];
  page.on('dialog', (dialog) => { asked.push(dialog.type()); dialog.accept(); });
  await page.locator('#chosen li').first().waitFor();
  await page.locator('nav a[data-section="quarantine"]').click();
  await page.waitForURL('**/quarantine.cgi');
  assert.deepEqual(asked, []);
  for (const change of [() => page.locator('#backup').click(), () => page.locator('#patterns').fill('*.x')]) {
    await page.goto(addresses.manual);
    await page.locator('#chosen li').first().waitFor();
    await change();
    await page.locator('nav a[data-section="quarantine"]').click();
    await page.waitForURL('**/quarantine.cgi');
    assert.equal(asked.pop(), 'beforeunload');
  }
});

test('cookies that another program on this host planted lock nobody out', async () => {
  const named = new URL(console_.base);
  named.hostname = 'nas.localhost';
  for (const [base, cookie] of [[new URL(console_.base), { path: '/NorvLinux' }], [named, { path: '/', domain: '.nas.localhost' }]]) {
    const page = await newPage(browser, { ...console_, base: base.origin }, audited);
    await logOn(page, console_);
    for (const name of ['CsrfToken', 'hvssn'])
      await page.context().addCookies([{ name, value: 'planted', domain: base.hostname, ...cookie }]);
    for (let visit = 0; visit < 2; ++visit) await page.goto(new URL(addresses.manual, base).href).catch(() => null);
    await page.locator('#save').click();
    await page.locator('.notice.success').waitFor();
  }
});

inEveryView('a request without its token is told apart from an ended session, and nothing of it is lost or done', async (page, view) => {
  await page.goto(addresses.scheduled);
  await page.locator('#chosen li').first().waitFor();
  const { layers: saved } = await readControls(page);
  const layers = saved === '9' ? '8' : '9';
  await setControls(page, { layers });
  await page.context().clearCookies({ name: 'CsrfToken' });
  await page.locator('#save').click();
  await page.locator('#refused').waitFor();
  assert.deepEqual([await page.locator('#kept').isVisible(), await page.locator('#ended').isVisible()], [true, false]);
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'logon-token');
  await logOn(page, console_);
  await page.locator('#unsaved-page').click();
  await page.locator('#kept-use').waitFor();
  assert.equal((await readControls(page)).layers, saved, 'nothing was saved');
  await page.locator('#kept-use').click();
  assert.equal((await readControls(page)).layers, layers);
  await page.locator('#save').click();
  await page.locator('.notice.success').waitFor();
});

inEveryView('while the service is away that is what is said: on the overview, at a save and at the log-on', async (page, view) => {
  const socket = join(console_.folder, 'keldrad.sock');
  await page.goto(addresses.scheduled);
  await page.locator('#chosen li').first().waitFor();
  const { layers: saved } = await readControls(page);
  await setControls(page, { layers: saved === '9' ? '8' : '9' });
  const overview = await page.context().newPage();
  await overview.goto(addresses.overview);
  renameSync(socket, `${socket}.away`);
  try {
    const down = view.text('VERDICT_DOWN');
    await overview.locator('#verdict.danger', { hasText: down }).waitFor();
    assert.match(overview.url(), /norv_main/, 'whoever looks on is not sent away');
    await view.suits(overview);
    if (view.plain) await fitsAndIsAccessible(overview, 'overview-down');
    await page.locator('#save').click();
    await page.locator('#down').waitFor();
    assert.equal(await page.locator('#kept').isVisible(), true, 'what was typed is kept');
    await view.suits(page);
    if (view.plain) await fitsAndIsAccessible(page, 'logon-down');
    renameSync(`${socket}.away`, socket);
    if (view.plain) await overview.locator('#verdict', { hasNotText: down }).waitFor();
  } finally {
    if (!existsSync(socket)) renameSync(`${socket}.away`, socket);
  }
  await page.reload();
  await page.waitForLoadState('networkidle');
  assert.equal(await page.locator('#down').isVisible(), false);
  page.errors.length = 0;
});
