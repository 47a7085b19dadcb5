// Real-time protection as its owner meets it: switched on in the browser, and a dropped virus neither opens nor stays.
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test from 'node:test';
import { addresses, goBack } from './support/console.mjs';
import { readControls, setControls } from './support/controls.mjs';
import { makeSamples } from './support/scans.mjs';
import { console_, openList, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

const share = mkdtempSync(join(tmpdir(), 'keldra-watched-'));
const samples = mkdtempSync(join(tmpdir(), 'keldra-samples-'));
// The watched folder is a file system of its own that only the console's processes have mounted: nothing else on the
// machine is watched, and it is gone with them, however they end.
const enclosure = ['unshare', '--mount', '--propagation', 'private', 'sh', '-c',
  'mount -t tmpfs -o size=16m,mode=0755 tmpfs "$0" && exec "$@"', share];

function obstacle() {
  if (process.getuid() !== 0) return 'only root may watch files';
  const [program, ...rest] = enclosure;
  const { status, stderr } = spawnSync(program, [...rest, 'true'], { encoding: 'utf8' });
  return status === 0 ? '' : `no file system of its own: ${stderr.trim() || 'unshare is missing'}`;
}

/** The service's own word on why it cannot watch; empty when it can. */
async function refusal(page) {
  await page.goto(addresses.realtime);
  const report = await page.evaluate(async () => (await fetch('/NorvLinux/overview.cgi')).json());
  return report.realtime.possible ? '' : (await page.locator('#realtime-state').textContent()).trim();
}

const dropped = () => join(`/proc/${console_.pid}/root`, share, 'dropped.com');
const shown = join(share, 'dropped.com');

/** What another program meets that opens the dropped file. */
function open() {
  const { error, status, stdout, stderr } = spawnSync('cat', [dropped()], { timeout: 30_000, env: { ...process.env, LC_ALL: 'C' } });
  assert.equal(error, undefined, 'whoever opens a file is not kept waiting');
  return status === 0 ? stdout : stderr;
}

/** Opens the file, which is refused, and waits until the page lists it. */
async function isPutAway(page) {
  assert.match(String(open()), /Operation not permitted/);
  const end = Date.now() + 20_000;
  do await openList(page, addresses.quarantine); while (!(await page.locator('#items .entry').count()) && Date.now() < end);
  assert.deepEqual(await page.locator('#items .open').allTextContents(), ['dropped.com']);
  assert.equal(statSync(dropped(), { throwIfNoEntry: false }), undefined, 'it is where nobody opens it');
}

async function answerYes(page, view, outcome) {
  await view.suits(page);
  await page.locator('#question-yes').click();
  await page.locator('#outcome').getByText(outcome, { exact: true }).waitFor();
}

async function act(page, view, action, outcome) {
  await page.locator('#items .open').click();
  assert.equal(await page.locator('#details-task').textContent(), view.text('REALTIME'));
  assert.equal(await page.locator('#details-path').textContent(), shown);
  await view.suits(page);
  await page.locator(`#details [data-action="${action}"]`).click();
  await answerYes(page, view, outcome);
}

async function switchOn(page, view) {
  const wanted = {
    'realtime-on': true, incoming: true, outgoing: false, 'files-all': true, 'actions-universal': true, 'first:Universe': '4',
  };
  await page.goto(addresses.realtime);
  assert.equal(await page.locator('#realtime-why').isVisible(), false, 'switched off is not impossible');
  await view.suits(page);
  await setControls(page, wanted);
  await view.suits(page);
  await page.locator('#save').click();
  await page.locator('.notice.success').waitFor();
  await view.suits(page);
  await goBack(page);
  const kept = await readControls(page);
  for (const [name, value] of Object.entries(wanted)) assert.equal(kept[name], value, name);
  await page.goto(addresses.overview);
  await page.locator('#realtime-now.good').waitFor();
  assert.equal(await page.locator('#realtime-now').textContent(), view.text('STATE_ON'));
}

const hindered = obstacle();
if (hindered) {
  test('real-time protection in the browser', { skip: `skipped, ${hindered}` }, () => {});
  for (const folder of [share, samples]) rmSync(folder, { recursive: true, force: true });
} else {
  shareConsole({
    options: ['--as-is', '--scan-path', share],
    enclosure,
    shared: null,
    prepare: () => makeSamples(samples),
    tidy: () => { for (const folder of [share, samples]) rmSync(folder, { recursive: true, force: true }); },
  });
  inEveryView('a dropped virus is blocked and put away, comes back by a click, and opens once it is trusted',
    async (page, view, context) => {
      const refused = await refusal(page);
      if (refused) {
        context.skip(`skipped, ${refused}`);
        return;
      }
      const virus = readFileSync(join(samples, 'Downloads/test-file.com'));
      await switchOn(page, view);
      writeFileSync(dropped(), virus, { mode: 0o640 });
      await isPutAway(page);
      assert.equal(await page.locator('#items .kind').textContent(), view.text('MALWARE_TEST'));

      await act(page, view, 'restore', view.text('RESTORE_DONE', { count: 1 }));
      const { size, mode } = statSync(dropped());
      assert.deepEqual([size, mode & 0o7777], [virus.length, 0o640], 'it is back as it was');
      await isPutAway(page);

      await act(page, view, 'trust', `${view.text('TRUST_DONE', { count: 1 })} · ${view.text('RESTORE_DONE', { count: 1 })}`);
      assert.deepEqual(open(), virus);
      await page.locator('#trusted .distrust').click();
      await answerYes(page, view, view.text('DISTRUST_DONE', { count: 1 }));
      await isPutAway(page);
      await act(page, view, 'delete', view.text('DELETE_DONE', { count: 1 }));
      await page.locator('#nothing').waitFor();
    });
}
