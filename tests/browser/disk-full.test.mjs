// A disk without any room left: what is said is true, nothing is lost, and room is all that it takes to go on.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { addresses } from './support/console.mjs';
import { readControls, setControls } from './support/controls.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

const small = mkdtempSync(join(tmpdir(), 'keldra-small-'));
const filler = join(small, 'filler');

function fill() {
  try {
    writeFileSync(filler, Buffer.alloc(64 << 20));
  } catch ({ code }) {
    assert.equal(code, 'ENOSPC');
  }
}
const makeRoom = () => rmSync(filler, { force: true });

shareConsole({
  shared: null,
  prepare() {
    execFileSync('mount', ['-t', 'tmpfs', '-o', 'size=48m,mode=1777', 'tmpfs', small]);
    process.env.TMPDIR = small;
  },
  tidy() {
    delete process.env.TMPDIR;
    if (existsSync(small)) execFileSync('umount', ['--lazy', small]);
    rmSync(small, { recursive: true, force: true });
  },
});

inEveryView('what cannot be saved for want of room is told so, is kept, and is saved once there is some', async (page, view) => {
  await page.goto(addresses.scheduled);
  await page.locator('#chosen li').first().waitFor();
  const { layers: before } = await readControls(page);
  const layers = before === '9' ? '8' : '9';
  await setControls(page, { layers });
  fill();
  await page.locator('#save').click();
  await page.locator('body[data-page="failed"], body[data-page="disk-full"]').waitFor();
  await view.suits(page);
  await page.locator('.reason', { hasText: view.said('No space left on device') }).waitFor();
  if (view.plain) await fitsAndIsAccessible(page, 'save-without-room');
  await page.goto(addresses.overview);
  await page.locator('#reasons li', { hasText: view.said('The disk of the service is full: nothing more can be stored or put into quarantine.') }).waitFor();
  await view.suits(page);
  makeRoom();
  await page.goto(addresses.scheduled);
  assert.equal((await readControls(page)).layers, before, 'nothing was saved by halves');
  await page.locator('#kept-use').click();
  assert.equal((await readControls(page)).layers, layers);
  await page.locator('#save').click();
  await page.locator('.notice.success').waitFor();
  page.errors.length = 0;
});
