// A manual update from its form to its end.
import assert from 'node:assert/strict';
import { chmodSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { once } from 'node:events';
import { createServer } from 'node:http';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test from 'node:test';
import { addresses } from './support/console.mjs';
import { setControls } from './support/controls.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { console_, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

const source = mkdtempSync(join(tmpdir(), 'keldra-source-'));

let release = 0;
/** Something new to fetch. */
function publish() {
  release += 1;
  writeFileSync(join(source, 'local.ndb'), `Keldra.Browser.Test-${release}:0:0:6b656c647261\n`);
}

shareConsole({
  prepare: () => { chmodSync(source, 0o755); publish(); },
  tidy: () => rmSync(source, { recursive: true }),
});

test('an update without a component is told before anything is asked for', async () => {
  await page.goto(addresses.update);
  await setControls(page, { 'virus-pattern': false, 'spyware-pattern': false, 'scan-engine': false });
  await page.locator('#update').click();
  await page.locator('#components-none').waitFor();
  assert.match(page.url(), /update_manual/);
});

async function update(on = page) {
  await on.goto(addresses.update);
  await setControls(on, { 'virus-pattern': true, 'spyware-pattern': true });
  await on.locator('#update').click();
  await on.waitForURL(/id=update_progress&RequestID=[0-9_]+$/);
  await on.locator('body[data-page="update-done"], body[data-page="update-ended"]').waitFor({ timeout: 60_000 });
}
/** A source that lets an update wait for what it fetches until it is released. */
async function slowSource() {
  let release;
  const released = new Promise((go) => { release = go; });
  const server = createServer(async (_, answer) => {
    await released;
    answer.writeHead(404).end();
  }).listen(0, '127.0.0.1');
  await once(server, 'listening');
  return { url: `http://127.0.0.1:${server.address().port}/local.ndb`, release, close: () => server.close() };
}

inEveryView('an update that takes its time may be watched, left and found again', async (own, view) => {
  const slow = await slowSource();
  console_.configureUpdates({ Source: 'custom', CustomURLs: slow.url });
  await own.goto(addresses.update);
  await setControls(own, { 'virus-pattern': true });
  await own.locator('#update').click();
  await own.locator('body[data-page="update-progress"]').waitFor();
  await view.suits(own);
  if (view.plain) await fitsAndIsAccessible(own, 'update-progress');
  await own.goto(addresses.update);
  await own.locator('#already-running a').waitFor();
  await view.suits(own);
  slow.release();
  slow.close();
  await own.locator('#running-link').click();
  await own.locator('body[data-page="update-ended"]').waitFor({ timeout: 60_000 });
});
const state = (on) => on.locator('#virus-pattern-state').textContent();

inEveryView('an update from a local source is followed to its end, and its versions are shown', async (own, view) => {
  publish();
  console_.configureUpdates({ Source: 'custom', CustomURLs: join(source, 'local.ndb') });
  await own.goto(addresses.update);
  await view.suits(own);
  const before = await state(own);
  await update(own);
  assert.equal(await own.locator('main .notice').textContent(), view.text('UPDATE_DONE_TEXT'));
  await view.suits(own);
  await own.locator('#back').click();
  await own.waitForURL('**/showpage.cgi?page=update_manual.html');
  assert.notEqual(await state(own), before);
  await view.suits(own);

  await update(own);
  assert.equal(await own.locator('h1').textContent(), view.said('Update complete'));
  assert.equal(await own.locator('main .notice').textContent(), view.said('All components are current.'));
  await view.suits(own);

  console_.configureUpdates({ CustomURLs: join(source, 'missing.ndb') });
  await update(own);
  assert.equal(await own.locator('h1').textContent(), view.said('Update not completed.'));
  await view.suits(own);
});
