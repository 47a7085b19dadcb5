// A nightly scan: set up with what it leaves out, run by itself, and looked at in the morning.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { cpSync, mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test from 'node:test';
import { addresses } from './support/console.mjs';
import { setControls } from './support/controls.mjs';
import { makeSamples, scanInShell } from './support/scans.mjs';
import { console_, openList, page, shareConsole } from './support/shared.mjs';
import { inEveryView, views } from './support/views.mjs';

const share = mkdtempSync(join(tmpdir(), 'keldra-share-'));
makeSamples(share);
const virus = join(share, 'Downloads/test-file.com');
/** Each view leaves out a folder and a name of its own. */
const folderOf = (view) => join(share, `left-out-${views.indexOf(view)}`);
const patternOf = (view) => `private-${views.indexOf(view)}.*`;
for (const view of views) {
  mkdirSync(folderOf(view));
  cpSync(virus, join(folderOf(view), 'test-file.com'));
  cpSync(virus, join(share, patternOf(view).replace('*', 'com')));
}
execFileSync('chmod', ['-R', 'a+rwX', share]);

shareConsole({ options: ['--scan-path', share], tidy: () => rmSync(share, { recursive: true, force: true }) });

/** A minute of the local clock that leaves time to set everything up, as the form writes it. */
const then = new Date(Date.now() + 75_000);
const soon = [then.getHours(), then.getMinutes()].map((part) => String(part).padStart(2, '0')).join(':');

inEveryView('a nightly scan is set up with what it leaves out', async (own, view) => {
  await own.goto(addresses.scheduled);
  await own.locator('#tree .opener').first().click();
  await own.locator(`#tree input[value="${folderOf(view)}"]`).uncheck();
  const patterns = own.locator('#patterns');
  await patterns.fill(`${await patterns.inputValue()}\n${patternOf(view)}`.trim());
  await own.locator('#folders-preview').click();
  await own.locator('#preview-examples', { hasText: 'test-file.com' }).waitFor();
  await view.suits(own);
  await own.locator('#folders-save').click();
  await own.locator('#folders-saved').waitFor();
  await setControls(own, { 'schedule-on': true, daily: true, time: soon, 'files-all': true, 'actions-universal': true, 'first:Universe': '4' });
  await own.locator('#save').click();
  await own.locator('.notice.success').waitFor();
  await view.suits(own);
});

test('it runs at its time, and what is scanned by hand afterwards does not hide it', async () => {
  const list = page.locator('#scans .entry');
  const end = Date.now() + 150_000;
  while (Date.now() < end && !(await list.count())) {
    await page.waitForTimeout(2000);
    await openList(page, addresses.history);
  }
  assert.deepEqual(await page.locator('#scans .name').allTextContents(), ['Scheduled scan']);
  scanInShell(console_, join(share, 'Documents/minutes.txt'));
  assert.deepEqual(page.errors, []);
});

inEveryView('in the morning one sees what was found, what became of it and nothing of what was left out', async (own, view) => {
  await own.goto(addresses.overview);
  const kind = view.text('SCHEDULED');
  const last = own.locator('#last-scans li');
  await last.filter({ hasText: kind }).waitFor();
  assert.equal(await last.count(), 1);
  await view.suits(own);
  await openList(own, addresses.history);
  await own.locator('#scans a', { hasText: kind }).click();
  await own.locator('#finds .entry').first().waitFor();
  assert.deepEqual((await own.locator('#finds .name').allTextContents()).sort(), ['test-file.com', 'test-file.zip']);
  assert.equal(await own.locator('#finds .detail').first().textContent(), view.said('moved to quarantine'));
  await view.suits(own);
  await own.locator('#scan-quarantine').click();
  await own.locator('.entry').first().waitFor();
  assert.equal(await own.locator('.entry').count(), 2);
});
