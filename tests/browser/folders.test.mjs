// The folders of the manual scan: chosen in a tree, left out by a tick or a pattern, and nothing outside the roots.
import assert from 'node:assert/strict';
import { chmodSync, mkdirSync, mkdtempSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test, { after, before, beforeEach } from 'node:test';
import { addresses, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';

const share = mkdtempSync(join(tmpdir(), 'keldra-share-'));
const outside = mkdtempSync(join(tmpdir(), 'keldra-outside-'));
for (const folder of ['docs/letters', 'photos; old', 'tmp']) {
  mkdirSync(join(share, folder), { recursive: true });
  writeFileSync(join(share, folder, 'text.txt'), 'text');
  writeFileSync(join(share, folder, 'disk.iso'), 'disk');
}
symlinkSync(outside, join(share, 'link'));
chmodSync(share, 0o755);

let console_;
let browser;
let page;
before(async () => {
  [console_, browser] = await Promise.all([startConsole(['--scan-path', share]), openBrowser()]);
  page = await newPage(browser, console_, { bypassCSP: true, reducedMotion: 'reduce' });
  await logOn(page, console_);
});
after(async () => {
  await browser?.close();
  await console_?.stop();
  for (const folder of [share, outside]) rmSync(folder, { recursive: true, force: true });
});

const box = (folder) => page.locator(`#tree input[value="${join(share, folder)}"]`);
const chosen = () => page.locator('#chosen li bdi').allTextContents();
const open = async (folder) => page.locator(`#tree li:has(> .branch input[value="${folder}"]) > .branch .opener`).click();

beforeEach(async () => {
  await page.goto(addresses.manual);
  await page.locator('#tree .opener').first().waitFor();
});

test('a folder is left out with all in it, and the choice is there after a reload', async () => {
  await open(share);
  await box('tmp').uncheck();
  await page.locator('#patterns').fill('*.iso');
  await page.locator('#folders-preview').click();
  await page.locator('#preview-text', { hasText: '4 of 6 files are left out.' }).waitFor();
  assert.match(await page.locator('#preview-examples').textContent(), /tmp\/text\.txt/);
  await fitsAndIsAccessible(page, 'folders');
  await page.locator('#folders-save').click();
  await page.locator('#folders-saved').waitFor();
  await page.goto(addresses.manual);
  await page.locator('#chosen li').nth(1).waitFor();
  assert.deepEqual(await chosen(), [share, join(share, 'tmp')]);
  assert.equal(await page.locator('#patterns').inputValue(), '*.iso');
  await open(share);
  await box('docs').waitFor();
  assert.equal(await box('tmp').isChecked(), false);
  assert.equal(await box('docs').isChecked(), true);
  assert.equal(await page.locator('#tree').textContent().then((text) => text.includes('link')), false);
});

test('one folder instead of all is chosen by keyboard, also one with a semicolon in its name', async () => {
  await page.locator('#tree .opener').first().focus();
  await page.keyboard.press('Enter');
  await box('docs').waitFor();
  await page.locator('#tree input').first().focus();
  await page.keyboard.press('Space');
  await box('photos; old').focus();
  await page.keyboard.press('Space');
  assert.deepEqual(await chosen(), [join(share, 'photos; old')]);
  await page.locator('#folders-save').focus();
  await page.keyboard.press('Enter');
  await page.locator('#folders-saved').waitFor();
  await page.reload();
  await page.locator('#chosen li').first().waitFor();
  assert.deepEqual(await chosen(), [join(share, 'photos; old')]);
});

test('saving the folders raises no question when the other settings are saved afterwards, and they are saved with them', async () => {
  await page.locator('#patterns').fill('*.tmp');
  await page.locator('#folders-save').click();
  await page.locator('#folders-saved').waitFor();
  await page.locator('#patterns').fill('*.bak');
  await page.locator('#save').click();
  await page.locator('.notice.success').waitFor();
  await page.goto(addresses.manual);
  await page.locator('#chosen li').first().waitFor();
  assert.equal(await page.locator('#patterns').inputValue(), '*.bak');
  assert.deepEqual(page.errors, []);
});

test('nobody else’s change is overwritten unasked', async () => {
  const other = await newPage(browser, console_);
  await logOn(other, console_);
  await other.goto(addresses.scheduled);
  await other.locator('#save').click();
  await other.locator('.notice.success').waitFor();
  await other.context().close();
  await page.locator('#patterns').fill('*.log');
  await page.locator('#folders-save').click();
  await page.locator('#folders-question').waitFor();
  assert.equal(await page.locator('#folders-saved').isVisible(), false);
  await page.locator('#folders-overwrite').click();
  await page.locator('#folders-saved').waitFor();
});

test('no folder at all is refused beside the tree, and what was typed stays', async () => {
  await page.locator('#patterns').fill('*.keep');
  for (const button of await page.locator('#chosen button').all()) await button.click();
  await page.locator('#folders-save').click();
  await page.locator('#folders-empty').waitFor();
  assert.equal(await page.locator('#patterns').inputValue(), '*.keep');
});

test('nothing outside the roots is listed, counted or saved', async () => {
  const answers = await page.evaluate(async ({ paths }) => {
    const token = /CsrfToken=([^;]*)/.exec(document.cookie)[1];
    const stamp = document.querySelector('[name="hvLastConfigFileModifiedDate"]').value;
    const post = (fields) => fetch('/NorvLinux/folders.cgi', {
      method: 'POST', body: new URLSearchParams({ CsrfToken: token, hvLastConfigFileModifiedDate: stamp, ...fields }),
    });
    const asked = paths.flatMap((path) => [
      fetch(`/NorvLinux/folders.cgi?path=${encodeURIComponent(path)}`),
      post({ mode: 'preview', scanPaths: path }), post({ mode: 'save', scanPaths: path }),
    ]);
    return Promise.all((await Promise.all(asked)).map(async (answer) => [answer.status, (await answer.json()).error]));
  }, { paths: ['/etc', '/', outside, join(share, 'link'), `${share}/../`, `${share}/docs/../../../etc`] });
  for (const [status, error] of answers) {
    assert.ok([404, 409].includes(status), String(status));
    assert.match(error, /none of those|symbolic link|no such folder/);
  }
  await page.reload();
  await page.locator('#chosen li').first().waitFor();
  assert.ok((await chosen()).every((path) => path.startsWith(share)));
  page.errors.length = 0;
});
