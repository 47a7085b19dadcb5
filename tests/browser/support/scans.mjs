// Scans for tests whose subject is what comes after one.
import { addresses } from './console.mjs';
import { setControls } from './controls.mjs';

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
export const REPORT = '1';
export const QUARANTINE = '4';
