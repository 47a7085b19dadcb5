// The folders of the manual scan: chosen in a tree, left out by a tick or a pattern, and nothing outside the roots.
import assert from 'node:assert/strict';
import { chmodSync, mkdirSync, mkdtempSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test, { beforeEach } from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { audited, browser, console_, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

const share = mkdtempSync(join(tmpdir(), 'keldra-share-'));
const outside = mkdtempSync(join(tmpdir(), 'keldra-outside-'));
for (const folder of ['docs/letters', 'photos; old', 'tmp']) {
  mkdirSync(join(share, folder), { recursive: true });
  writeFileSync(join(share, folder, 'text.txt'), 'text');
  writeFileSync(join(share, folder, 'disk.iso'), 'disk');
}
symlinkSync(outside, join(share, 'link'));
chmodSync(share, 0o755);

shareConsole({
  options: ['--scan-path', share],
  shared: audited,
  tidy: () => { for (const folder of [share, outside]) rmSync(folder, { recursive: true, force: true }); },
});

const box = (folder, on = page) => on.locator(`#tree input[value="${join(share, folder)}"]`);
const chosen = (on = page) => on.locator('#chosen li bdi').allTextContents();
const open = (folder, on = page) =>
  on.locator(`#tree li:has(> .branch input[value="${folder}"]) > .branch .opener`).click();

beforeEach(async () => {
  await page.goto(addresses.manual);
  await page.locator('#tree .opener').first().waitFor();
});

inEveryView('a folder is left out with all in it, and the choice is there after a reload', async (own, view) => {
  await own.goto(addresses.manual);
  await open(share, own);
  await box('', own).setChecked(true);
  await box('tmp', own).setChecked(true);
  await box('tmp', own).uncheck();
  await own.locator('#patterns').fill('*.iso');
  await own.locator('#folders-preview').click();
  await own.locator('#preview-text').getByText(view.text('PREVIEW_TEXT', { left: 4, total: 6 }), { exact: true }).waitFor();
  assert.match(await own.locator('#preview-examples').textContent(), /tmp\/text\.txt/);
  await view.suits(own);
  await own.locator('#folders-save').click();
  await own.locator('#folders-saved').waitFor();
  await view.suits(own);
  if (view.plain) await fitsAndIsAccessible(own, 'folders');
  await own.goto(addresses.manual);
  await own.locator('#chosen li').nth(1).waitFor();
  assert.deepEqual(await chosen(own), [share, join(share, 'tmp')]);
  assert.equal(await own.locator('#patterns').inputValue(), '*.iso');
  await open(share, own);
  await box('docs', own).waitFor();
  assert.equal(await box('tmp', own).isChecked(), false);
  assert.equal(await box('docs', own).isChecked(), true);
  assert.equal(await own.locator('#tree').textContent().then((text) => text.includes('link')), false);
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
  for (const address of [addresses.scheduled, addresses.manual]) {
    await other.goto(address);
    await other.locator('#chosen li').first().waitFor();
    await other.locator('#patterns').fill('*.theirs');
    await other.locator('#save').click();
    await other.locator('.notice.success').waitFor();
    // Only what was saved of these very folders is asked about.
    if (address === addresses.manual) break;
    await page.locator('#patterns').fill('*.first');
    await page.locator('#folders-save').click();
    await page.locator('#folders-saved').waitFor();
  }
  await other.context().close();
  await page.locator('#patterns').fill('*.log');
  await page.locator('#folders-save').click();
  await page.locator('#folders-question').waitFor();
  assert.match(await page.locator('#folders-differences tbody').textContent(), /\*\.log\*\.theirs/);
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
