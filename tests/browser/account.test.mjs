// From the first log-on to a server that is guarded, and what belongs to the account: password, second step, sessions.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { createHmac } from 'node:crypto';
import { existsSync, statSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import test from 'node:test';
import { addresses, build, logOn, newPage } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { audited, browser, console_, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

// As root the service may watch files.
shareConsole({ shared: null, options: process.getuid() === 0 ? ['--as-is'] : [] });

const ACCOUNT = '/NorvLinux/account.cgi';
const ONCE = 'only this once';

/** Sets the password as whoever administers the server does. */
function setPassword(password, ...options) {
  const state = join(console_.folder, 'state');
  const { uid, gid } = statSync(state);
  execFileSync(join(build, 'service/keldractl'), ['passwd', '--state', state, '--stdin', ...options],
    { input: password, ...(process.getuid() === 0 ? { uid, gid } : {}) });
  console_.password = password;
}

/** Logs on without waiting for what comes. */
async function enter(page, password = console_.password) {
  await page.goto('/');
  await page.locator('#user').fill(console_.user);
  await page.locator('#password').fill(password);
  await page.locator('#logon button').click();
}

async function changePassword(page, old, fresh) {
  await page.locator('#password-old').fill(old);
  await page.locator('#password-new').fill(fresh);
  await page.locator('#password-again').fill(fresh);
  await page.locator('#password-save').click();
}

inEveryView('who logs on for the first time chooses a password, and then how the server is guarded', async (page, view) => {
  setPassword(ONCE, '--once');
  await enter(page);
  await page.waitForURL(`**${ACCOUNT}`);
  await page.locator('#must-change').waitFor();
  await view.suits(page);
  for (const address of [addresses.overview, addresses.manual, addresses.quarantine]) {
    await page.goto(address);
    assert.equal(new URL(page.url()).pathname, ACCOUNT, address);
  }
  await page.locator('#password-old').fill(ONCE);
  await page.locator('#password-new').fill('short');
  await page.locator('#password-again').fill('other');
  await page.locator('#password-save').click();
  assert.equal(await page.locator('#password-new-wrong').textContent(), view.text('PASSWORD_SHORT'));
  assert.equal(await page.locator('#password-again-wrong').textContent(), view.text('PASSWORD_DIFFERS'));
  await view.suits(page);
  const fresh = 'correct horse battery';
  await changePassword(page, ONCE, fresh);
  console_.password = fresh;
  await page.waitForURL('**/setup.cgi');
  await page.locator('#form').waitFor();
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'setup');
  await page.locator('#realtime').setChecked(false, { force: true });
  await page.locator('#start').click();
  await page.locator('#update-failed:not([hidden])').waitFor({ timeout: 60_000 });
  await view.suits(page);
  await page.goto(addresses.overview);
  await page.locator('#setup:not([hidden])').waitFor();
}, { guest: true });

inEveryView('with a source of updates within reach the first steps lead to a server that is protected', async (page, view) => {
  const source = join(console_.folder, 'local.ndb');
  if (!existsSync(source)) {
    writeFileSync(source, 'Keldra.Browser.Test-1:0:0:6b656c647261\n');
    console_.configureUpdates({ Source: 'custom', CustomURLs: source });
    await page.reload();
    await page.locator('#setup a').click();
  } else await page.goto('/NorvLinux/setup.cgi');
  await page.locator('#form').waitFor();
  const possible = await page.locator('#realtime').isEnabled();
  if (possible) await page.locator('#realtime').setChecked(true, { force: true });
  await page.locator('#start').click();
  await page.waitForURL('**/scanoption.cgi?id=scan_progress_query&RequestID=*', { timeout: 90_000 });
  await page.locator('body[data-page="scan-done"] #not-fully', { hasText: /\d/ }).waitFor();
  await view.suits(page);
  await page.goto(addresses.overview);
  await page.locator('#last-scans', { hasText: view.text('MANUAL') }).waitFor();
  const verdict = possible ? 'PROTECTED' : 'ATTENTION';
  assert.equal(await page.locator('#verdict-text').textContent(), view.text(`VERDICT_${verdict}`), await page.locator('#reasons').textContent());
  assert.equal(await page.locator('#setup').isVisible(), false);
  await view.suits(page);
});

test('what was chosen is in force, also the nightly scan and update', async () => {
  const page = await newPage(browser, console_, audited);
  await logOn(page, console_);
  const state = await (await page.request.get('/NorvLinux/setup.cgi?list=1')).json();
  assert.deepEqual([state.scan, state.scanTime, state.update], [true, '03:00:00', true]);
  assert.notEqual(state.roots, '');
  await page.context().close();
});

test('a new password ends all other sessions, and who is logged on can be sent away', async () => {
  const [one, other] = [await newPage(browser, console_, audited), await newPage(browser, console_, audited)];
  await logOn(one, console_);
  await logOn(other, console_);
  await one.goto(ACCOUNT);
  await one.locator('#sessions tbody tr').nth(1).waitFor();
  assert.equal(await one.locator('#sessions .tag.good').count(), 1);
  await fitsAndIsAccessible(one, 'account');
  await one.locator('#end-others').click();
  await one.locator('#done:not([hidden])').waitFor();
  assert.equal(await one.locator('#sessions tbody tr').count(), 1);
  await other.goto(addresses.overview);
  assert.equal(new URL(other.url()).pathname, '/');
  await logOn(other, console_);
  await changePassword(one, 'not the password', 'another password');
  await one.locator('#refused', { hasText: 'present password is wrong' }).waitFor();
  await changePassword(one, console_.password, 'another password');
  await one.locator('#done:not([hidden])').waitFor();
  console_.password = 'another password';
  await other.goto(addresses.overview);
  assert.equal(new URL(other.url()).pathname, '/');
  await one.goto(addresses.overview);
  assert.equal(new URL(one.url()).pathname, '/NorvLinux/showpage.cgi', 'whoever changed it goes on');
  for (const page of [one, other]) await page.context().close();
});

function codeOf(secret, time = Date.now()) {
  const bits = [...secret].map((letter) => 'ABCDEFGHIJKLMNOPQRSTUVWXYZ234567'.indexOf(letter).toString(2).padStart(5, '0')).join('');
  const key = Buffer.from(bits.match(/.{8}/g).map((part) => parseInt(part, 2)));
  const counter = Buffer.alloc(8);
  counter.writeBigUInt64BE(BigInt(Math.floor(time / 30_000)));
  const digest = createHmac('sha1', key).update(counter).digest();
  return String((digest.readUInt32BE(digest.at(-1) & 15) & 0x7fffffff) % 1_000_000).padStart(6, '0');
}

let recovery = [];
test('the second step counts once an app knows the secret, which is shown that once', async () => {
  const page = await newPage(browser, console_, audited);
  await logOn(page, console_);
  await page.goto(ACCOUNT);
  await page.locator('#second-password').fill(console_.password);
  await page.locator('#second-begin').click();
  await page.locator('#second-confirm:not([hidden])').waitFor();
  assert.ok(await page.locator('#second-picture path').count());
  await fitsAndIsAccessible(page, 'account-second');
  const secret = (await page.locator('#second-secret').textContent()).replaceAll(' ', '');
  await page.locator('#second-code').fill('000000');
  await page.locator('#second-save').click();
  await page.locator('#refused:not([hidden])').waitFor();
  await page.locator('#second-code').fill(codeOf(secret));
  await page.locator('#second-save').click();
  await page.locator('#recovery:not([hidden])').waitFor();
  recovery = await page.locator('#recovery-codes li').allTextContents();
  assert.equal(recovery.length, 8);
  await fitsAndIsAccessible(page, 'account-recovery');
  assert.doesNotMatch(await page.content(), new RegExp(secret));
  await page.context().close();
});

inEveryView('beside the password a code is asked for, and nothing opens without it', async (page, view) => {
  await enter(page);
  await page.locator('#second-step').waitFor();
  await view.suits(page);
  await page.locator('#code').fill('123456');
  await page.locator('#second-step button').click();
  assert.equal(await page.locator('#complaint').textContent(), view.said('That code is wrong, or was used before.'));
  await view.suits(page);
  if (view.plain) await fitsAndIsAccessible(page, 'second-step');
  assert.equal((await page.context().cookies()).length, 0, 'no session yet');
  await page.locator('#code').fill(recovery.pop());
  await page.locator('#second-step button').click();
  await page.waitForURL('**/showpage.cgi?page=norv_main.html');
}, { guest: true });

test('the second step is switched off with the password, or by whoever administers the server', async () => {
  const page = await newPage(browser, console_, audited);
  await enter(page);
  await page.locator('#code').fill(recovery.pop());
  await page.locator('#second-step button').click();
  await page.waitForURL('**/showpage.cgi?page=norv_main.html');
  await page.goto(ACCOUNT);
  await page.locator('#second-password').fill(console_.password);
  await page.locator('#second-remove').click();
  await page.locator('#second-off:not([hidden])').waitFor();
  await logOn(page, console_);
  await page.context().close();
});
