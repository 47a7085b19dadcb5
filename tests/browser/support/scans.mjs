// Scans for tests whose subject is what comes after one, and files that keep one busy.
import { execFileSync } from 'node:child_process';
import { chmodSync, mkdirSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { addresses } from './console.mjs';
import { setControls } from './controls.mjs';
import { root } from './templates.mjs';

/** Makes the sample files, also again. They belong to whom the folder belongs, so that the service may put them back. */
export function makeSamples(folder) {
  execFileSync(join(root, 'scripts/make-samples'), [folder]);
  execFileSync('chown', ['-R', `--reference=${folder}`, folder]);
}

/** Sample files, and behind them so many others that a scan takes some seconds. */
export function fillForLongScan(folder, files) {
  makeSamples(join(folder, 'a-finds'));
  mkdirSync(join(folder, 'b-many'));
  for (let i = 0; i < files; i += 1) writeFileSync(join(folder, `b-many/${i}.txt`), `file ${i}\n`.repeat(2000));
  chmodSync(folder, 0o755);
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
  await page.locator('body[data-page="scan-done"]').waitFor();
}
let limit = 1000;
/** Settings with which the service looks at every file anew, whatever it knows to be clean from the scan before. */
export const anew = () => ({ 'scan-archives': true, 'size-limit': String(limit += 1) });

export const REPORT = '1';
export const QUARANTINE = '4';
