// Getting in and out.
import assert from 'node:assert/strict';
import test, { after, before } from 'node:test';
import { addresses, logOn, newPage, openBrowser, startConsole } from './support/console.mjs';

let console_;
let browser;
before(async () => { [console_, browser] = await Promise.all([startConsole(), openBrowser()]); });
after(async () => { await browser?.close(); await console_?.stop(); });

test('a wrong password is told so and leads back to the log-on page', async () => {
  const page = await newPage(browser, console_);
  await page.goto('/');
  await page.locator('#user').fill(console_.user);
  await page.locator('#password').fill('not the password');
  await page.locator('button').click();
  assert.match(await page.locator('[role=alert]').textContent(), /user name or the password is wrong/);
  await page.locator('#again').click();
  assert.equal(new URL(page.url()).pathname, '/');
});

test('nobody sees a page without logging on', async () => {
  const page = await newPage(browser, console_);
  for (const address of Object.values(addresses)) {
    await page.goto(address);
    assert.equal(new URL(page.url()).pathname, '/', address);
  }
});

test('after logging on the overview shows the state of the server and leads everywhere', async () => {
  const page = await newPage(browser, console_);
  await logOn(page, console_);
  await page.locator('#verdict.warning, #verdict.success').waitFor();
  assert.notEqual(await page.locator('#schedule-now').textContent(), '…');
  for (const link of await page.locator('nav a').all()) {
    const answer = await page.request.get(new URL(await link.getAttribute('href'), page.url()).href);
    assert.equal(answer.status(), 200);
    assert.match(await answer.text(), /<main id="content">/);
  }
  assert.deepEqual(page.errors, []);
});

test('after logging off the back button does not bring the pages back', async () => {
  const page = await newPage(browser, console_);
  await logOn(page, console_);
  await page.goto(addresses.manual);
  await page.locator('#logoff button').click();
  await page.locator('#left').waitFor();
  await page.goBack().catch(() => null);
  await page.waitForURL('**/');
  assert.equal(await page.locator('#password').count(), 1);
});

test('the session cookie is out of reach of scripts and of other sites', async () => {
  const page = await newPage(browser, console_);
  await logOn(page, console_);
  const cookies = Object.fromEntries((await page.context().cookies()).map((cookie) => [cookie.name, cookie]));
  assert.equal(cookies.hvssn.httpOnly, true);
  assert.equal(cookies.hvssn.sameSite, 'Strict');
  assert.equal(cookies.CsrfToken.sameSite, 'Strict');
});

test('the log-on page speaks the language of the browser', async () => {
  for (const [locale, title] of [['de-AT', 'Anmelden'], ['ja-JP', 'ログオン'], ['fr-FR', 'Log on']]) {
    const page = await newPage(browser, console_, { locale });
    await page.goto('/');
    assert.equal(await page.locator('h1').textContent(), title);
  }
});
