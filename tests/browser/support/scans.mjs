// Scans for tests whose subject is what comes after one, and files that keep one busy.
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { chmodSync, existsSync, mkdirSync, truncateSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { addresses, build } from './console.mjs';
import { setControls } from './controls.mjs';
import { root } from './templates.mjs';

/** Makes the sample files, also again. They belong to whom the folder belongs, so that the service may put them back. */
export function makeSamples(folder) {
  execFileSync(join(root, 'scripts/make-samples'), [folder]);
  execFileSync('chown', ['-R', `--reference=${folder}`, folder]);
}

/** Files that take the engine a while though they hold nothing and need no room. */
function makeSlowFiles(folder, count) {
  mkdirSync(folder);
  for (let i = 0; i < count; i += 1) {
    const path = join(folder, `${i}.bin`);
    writeFileSync(path, '');
    truncateSync(path, 24 << 20);
  }
}

// Below the samples with finds: a folder's own files are scanned before its subfolders.
const behindFinds = (folder) => join(folder, 'a-finds/Downloads/many');

/** Sample files, and behind them others: a scan comes to its end after some seconds. */
export function fillForLongScan(folder) {
  makeSamples(join(folder, 'a-finds'));
  const many = behindFinds(folder);
  mkdirSync(many);
  for (let i = 0; i < 500; i += 1) writeFileSync(join(many, `${i}.txt`), `file ${i}\n`.repeat(2000));
  makeSlowFiles(join(many, 'slow'), 40);
  chmodSync(folder, 0o755);
}

/** Makes a scan of such a folder last until it is stopped, however fast the machine is. */
export function keepBusy(folder) {
  const endless = join(behindFinds(folder), 'slow/endless');
  if (!existsSync(endless)) makeSlowFiles(endless, 5000);
}

/**
 * Runs a manual scan of everything that does the same to every find, and waits for its end. `action`: as in the form;
 * `more`: further controls to set.
 */
export async function scan(page, action, more = {}) {
  await page.goto(addresses.manual);
  await setControls(page, { 'files-all': true, 'actions-universal': true, 'first:Universe': action, ...more });
  await page.locator('#save-and-scan').click();
  await page.waitForURL('**/scanoption.cgi?id=scan_progress_query&RequestID=*');
  await page.locator('body[data-page="scan-done"] #not-fully', { hasText: /\d/ }).waitFor();
}
export const REPORT = '1';
export const QUARANTINE = '4';

/** A scan of chosen files that finds nothing, as an administrator starts it in a shell. */
export function scanInShell(console, path) {
  const env = { ...process.env, KELDRA_SOCKET: join(console.folder, 'keldrad.sock') };
  const ended = spawnSync(join(build, 'service/keldractl'), ['scan', path], { env, encoding: 'utf8' });
  assert.equal(ended.status, 2, ended.stdout + ended.stderr);
  assert.match(ended.stderr, /nothing but the test file can be found/, 'there are no other signatures here');
}
