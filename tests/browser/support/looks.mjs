// Whether a page in its present state suits everybody: assistive technology, both colour schemes, a phone's width.
import assert from 'node:assert/strict';
import { mkdirSync, readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join } from 'node:path';

const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const rules = ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'];
const pictures = process.env.KELDRA_PICTURES;
if (pictures) mkdirSync(pictures, { recursive: true });

export const phone = { width: 360, height: 740 };
export const desktop = { width: 1280, height: 800 };

/** Rules of accessibility that a page breaks, with the elements concerned. */
export async function faults(page) {
  await page.evaluate(axe);
  const { violations, passes } = await page.evaluate((values) => window.axe.run({ runOnly: values }), rules);
  assert.ok(passes.length > 10);
  return violations.map(({ id, nodes }) => `${id}: ${nodes.map((node) => node.html).join(' ')}`);
}

export async function fitsScreen(page, name) {
  const wider = await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);
  assert.ok(wider <= 0, `${name} is ${wider} pixels wider than the screen`);
}

export async function picture(page, name) {
  if (pictures) await page.screenshot({ path: join(pictures, `${name}.png`), fullPage: true });
}

/** Looks at a page as it stands, wide and narrow, light and dark. */
export async function fitsAndIsAccessible(page, name) {
  for (const [width, viewport] of [['phone', phone], ['desktop', desktop]]) {
    for (const colorScheme of ['dark', 'light']) {
      await page.setViewportSize(viewport);
      await page.emulateMedia({ colorScheme });
      await fitsScreen(page, name);
      assert.deepEqual(await faults(page), [], `${name}, ${width}, ${colorScheme}`);
      await picture(page, `${name}-${width}-${colorScheme}`);
    }
  }
}
