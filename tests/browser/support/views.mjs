// A journey through the console in every language and at every width that people use.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { basename, join } from 'node:path';
import test from 'node:test';
import { addresses, logOn, newPage } from './console.mjs';
import { desktop, fitsScreen, phone, picture } from './looks.mjs';
import { audited, browser, console_ } from './shared.mjs';
import { catalogue, languages, letters, root, stringTable } from './templates.mjs';

/** As the pages fill a text: "{name}" is the value, "{name|file|files}" the word for it. */
const filled = (text, values) => text.replace(/\{(\w+)(?:\|([^}]*))?\}/g, (blank, name, forms) =>
  (values[name] === undefined ? blank : forms?.split('|').at(values[name] === 1 ? 0 : -1) ?? String(values[name])));
const tables = new Map(languages.map((language) =>
  [language, new Map([...stringTable(language)].map(([marker, text]) => [marker.slice(2, -2), letters(text)]))]));

/** Texts that would give away an untranslated place: English ones that a language says differently. */
function foreignTexts(locale) {
  const own = new Set([...tables.get(locale).values(), ...catalogue(locale).values()].map((text) => text.trim()));
  const english = [...tables.get('en-US').values(), ...catalogue(locale).keys()].map((text) => text.trim());
  return english.filter((text) => !own.has(text) && !/[<%[\n]/.test(text) && /[A-Za-z]{3}/.test(text.replace(/\{[^}]*\}/g, '')));
}

/** Runs in the page. What is wrong with it: `width` of the screen in pixels, `foreign`: texts of another language. */
function lookThrough({ width, foreign }) {
  const faults = [];
  const name = (element) => `${element.tagName.toLowerCase()}#${element.id} “${element.textContent.trim().slice(0, 40)}”`;
  const scope = document.querySelector('dialog[open]') ?? document.body;
  const scrolls = (element) => element
    && (/auto|scroll/.test(getComputedStyle(element).overflowX) || scrolls(element.parentElement));
  const boxes = [...scope.querySelectorAll('a, button, input:not([type=hidden]), select, textarea')]
    .filter((control) => control.checkVisibility({ visibilityProperty: true }) && !control.matches('.skip'))
    .flatMap((control) => [...control.getClientRects()].map((rect) => ({ control, rect })));
  for (const { control, rect } of boxes) {
    if ((rect.left < 0 || rect.right > width + 0.5) && !scrolls(control.parentElement)) faults.push(`out of view: ${name(control)}`);
  }
  boxes.forEach(({ control, rect }, index) => {
    for (const other of boxes.slice(index + 1)) {
      const apart = rect.right <= other.rect.left + 1 || other.rect.right <= rect.left + 1
        || rect.bottom <= other.rect.top + 1 || other.rect.bottom <= rect.top + 1;
      if (apart || control.contains(other.control) || scrolls(control.parentElement) || scrolls(other.control.parentElement)) continue;
      faults.push(`${name(control)} lies over ${name(other.control)}`);
    }
  });
  for (const element of scope.querySelectorAll('button, a, label, h1, h2, h3, legend, p, dt, dd, .tag')) {
    if (!element.checkVisibility() || element.matches('.unseen, .one-line')) continue;
    if (element.scrollWidth > element.clientWidth + 1 && getComputedStyle(element).display !== 'inline') faults.push(`cut off: ${name(element)}`);
  }
  for (const select of scope.querySelectorAll('select')) {
    if (!select.checkVisibility()) continue;
    const twin = select.cloneNode(true);
    Object.assign(twin.style, { position: 'absolute', visibility: 'hidden', width: 'max-content', maxWidth: 'none' });
    select.after(twin);
    if (twin.offsetWidth > select.offsetWidth + 1) faults.push(`a choice is cut off: ${name(select)}`);
    twin.remove();
  }
  const patterns = foreign.map((text) =>
    new RegExp(`^${text.split(/\{\w+(?:\|[^}]*)?\}/).map((part) => part.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')).join('.+')}[.,:]?$`, 's'));
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT,
    (node) => (node.parentElement.closest('script, noscript, bdi, .name, .folder') ? NodeFilter.FILTER_REJECT : NodeFilter.FILTER_ACCEPT));
  const texts = [document.title.replace(/ · Keldra$/, '')];
  while (walker.nextNode()) texts.push(walker.currentNode.textContent);
  for (const element of document.querySelectorAll('[aria-label], [title]')) texts.push(element.ariaLabel ?? '', element.title ?? '');
  for (const text of new Set(texts.map((text) => text.replace(/^[\s,.·]+|\s+$/g, '')).filter(Boolean))) {
    if (patterns.some((pattern) => pattern.test(text))) faults.push(`another language: “${text}”`);
  }
  return faults;
}

/** One way of using the console: a language on a screen. */
class View {
  constructor(locale, device, viewport) {
    Object.assign(this, { locale, device, viewport, stops: 0, name: `${locale} on a ${device}` });
    this.foreign = locale === 'en-US' ? [] : foreignTexts(locale);
  }

  /** The one view in which special cases are looked at. */
  get plain() { return this.locale === 'en-US' && this.device === 'desktop'; }

  /** A text of the pages, its blanks filled. */
  text(key, values = {}) { return filled(tables.get(this.locale).get(key), values); }

  /** A sentence of the programs or the service. */
  said(english) { return this.locale === 'en-US' ? english : catalogue(this.locale).get(english); }

  /** Title and text of a page for an error that the web server answers itself. */
  errorPage(status) {
    const texts = readFileSync(join(root, `templates/texts/${this.locale}/errors.txt`), 'utf8');
    return texts.match(new RegExp(`^${status}=(.*)$`, 'm'))[1].split('|');
  }

  /** A page that suits: in the language of the view, everything readable and within reach. */
  async suits(page) {
    await page.evaluate(() => document.fonts.ready);
    assert.equal(await page.getAttribute('html', 'lang'), this.locale, page.url());
    await fitsScreen(page, page.url());
    this.stops += 1;
    const [stop, journey] = [String(this.stops).padStart(2, '0'), basename(process.argv[1], '.test.mjs')];
    await picture(page, `${journey}-${stop}-${await page.getAttribute('body', 'data-page')}-${this.locale}-${this.device}`);
    const faults = await page.evaluate(lookThrough, { width: this.viewport.width, foreign: this.foreign });
    assert.deepEqual(faults, [], page.url());
  }
}

export const views = languages.flatMap((locale) =>
  [new View(locale, 'phone', phone), new View(locale, 'desktop', desktop)]);

let session;
/** A page of the overview. Logging on is a flow of its own: the others share one session. */
async function openPage(options, guest) {
  const page = await newPage(browser, console_, { ...audited, ...options, storageState: guest ? undefined : session });
  if (guest) return page;
  if (session) await page.goto(addresses.overview);
  else await logOn(page, console_);
  session ??= await page.context().storageState();
  return page;
}

/**
 * Registers a test for each view: `journey` gets a page of somebody who logged on, unless `guest`, the view and the
 * test's context.
 */
export function inEveryView(name, journey, { guest = false } = {}) {
  for (const view of views) {
    test(`${name} (${view.name})`, async (context) => {
      const { locale, viewport } = view;
      const page = await openPage({ locale, viewport, hasTouch: view.device === 'phone' }, guest);
      await journey(page, view, context);
      assert.deepEqual(page.errors, []);
      await page.context().close();
    });
  }
}
