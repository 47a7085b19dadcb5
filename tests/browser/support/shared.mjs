// What the tests of one file share: one started console, one browser, and mostly one page of somebody logged on.
import { after, before } from 'node:test';
import { logOn, newPage, openBrowser, startConsole } from './console.mjs';

export let console_;
export let browser;
export let page;

/** A page on which accessibility can be examined. */
export const audited = { bypassCSP: true, reducedMotion: 'reduce' };

/**
 * Starts everything before the first test of the file and ends it after the last. `options`: further arguments of
 * run-console; `prepare` and `tidy`: what goes before and after; `shared`: how the shared page is opened, null for none.
 */
export function shareConsole({ options = [], enclosure = [], prepare = () => {}, tidy = () => {}, shared = {} } = {}) {
  before(async () => {
    prepare();
    // One after the other: what has started is ended even when what follows does not start.
    console_ = await startConsole(options, enclosure);
    browser = await openBrowser();
    if (!shared) return;
    page = await newPage(browser, console_, shared);
    await logOn(page, console_);
  });
  after(async () => {
    await browser?.close();
    await console_?.stop();
    tidy();
  });
}

/** Opens a page with a list and waits for its entries, or for the sentence that there are none. */
export async function openList(onPage, address) {
  await onPage.goto(address);
  await onPage.locator('main .entries .entry, #nothing:not([hidden])').first().waitFor();
}
