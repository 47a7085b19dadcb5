// Getting in and out.
import assert from 'node:assert/strict';
import { request } from 'node:http';
import { join } from 'node:path';
import test from 'node:test';
import { addresses, build, logOn, newPage } from './support/console.mjs';
import { browser, console_, shareConsole } from './support/shared.mjs';
import { catalogue } from './support/templates.mjs';
import { inEveryView } from './support/views.mjs';

const WRONG = 'The user name or the password is wrong. After several failed attempts there is a short wait.';

const { LANGUAGES } = await import(join(build, 'console/htdocs/js/logon-texts.js'));
shareConsole({ shared: null });

inEveryView('a wrong password is told so, the right one leads in, and the way out is confirmed', async (page, view) => {
  const { texts } = LANGUAGES[view.locale.split('-')[0]];
  await page.goto('/');
  assert.equal(await page.locator('h1').textContent(), texts.title);
  await view.suits(page);
  await page.locator('#user').fill(console_.user);
  await page.locator('#password').fill('not the password');
  await page.locator('#logon button').click();
  assert.equal(await page.locator('[role=alert]').textContent(), catalogue(view.locale).get(WRONG) ?? WRONG);
  await view.suits(page);
  await page.locator('#again').click();
  await logOn(page, console_);
  await view.suits(page);
  await page.locator('#logoff button').click();
  await page.locator('#left', { hasText: texts.left }).waitFor();
  await view.suits(page);
}, { guest: true });

inEveryView('an address that leads nowhere is explained, with a way back', async (page, view) => {
  const [title, text] = view.errorPage(404);
  const answer = await page.goto('/nothing-here');
  assert.equal(answer.status(), 404);
  assert.equal(await page.locator('h1:visible').textContent(), title);
  assert.equal(await page.locator('.notice:visible').textContent(), text);
  await view.suits(page);
  // Chromium tells of the answer's status itself.
  page.errors.length = 0;
  await page.locator('a.button:visible').click();
  assert.equal(new URL(page.url()).pathname, '/');
}, { guest: true });

/** The status of an answer to a request with these header fields, which a page could not set. */
const statusOf = (path, headers, method = 'GET') => new Promise((resolve, reject) => {
  request(`${console_.base}${path}`, { method, headers }, (answer) => resolve(answer.resume().statusCode))
    .on('error', reject).end();
});

test('no other site can start, stop or end anything, and its links still lead here', async () => {
  const there = '/NorvLinux/scanoption.cgi?id=';
  const followed = { 'Sec-Fetch-Mode': 'navigate' };
  for (const action of ['logoff', 'stop_scan&RequestID=1', 'manual_update', 'manual_scan&mode=Scan', '%6cogoff']) {
    const path = `${there}${action}`;
    const { host } = new URL(console_.base);
    for (const from of [
      { ...followed, 'Sec-Fetch-Site': 'cross-site' }, { ...followed, 'Sec-Fetch-Site': 'same-site' },
      { Referer: 'http://evil.example/' }, { Referer: `http://${host}.evil.example/` }, { Origin: 'null' }, {},
    ]) assert.equal(await statusOf(path, from), 403, `${path} ${JSON.stringify(from)}`);
    for (const from of [{ 'Sec-Fetch-Site': 'same-origin' }, { 'Sec-Fetch-Site': 'none' }, { Referer: `http://${host}/x` }])
      assert.notEqual(await statusOf(path, from), 403, `${path} ${JSON.stringify(from)}`);
  }
  assert.notEqual(await statusOf(`${there}manual_scan`, { ...followed, 'Sec-Fetch-Site': 'cross-site' }), 403);
  assert.equal(await statusOf(`${there}manual_scan`, { 'Sec-Fetch-Mode': 'no-cors', 'Sec-Fetch-Site': 'cross-site' }), 403);
  assert.equal(await statusOf(`${there}manual_scan`, { Origin: 'http://evil.example' }, 'POST'), 403);
});

test('the programs are reached by their names only, and every answer says what a browser may do with it', async () => {
  for (const [path, status] of [['/', 200], ['/nothing', 404], ['/NorvLinux/error.html', 403], ['/../x', 400],
    ['/NorvLinux/logon.cgi/more.cgi', 403]]) {
    const answer = await new Promise((resolve) => { request(console_.base, { path }, resolve).end(); });
    assert.equal(answer.resume().statusCode, status, path);
    assert.match(answer.headers['content-security-policy'], /frame-ancestors 'none'/, path);
    assert.equal(answer.headers['x-content-type-options'], 'nosniff', path);
  }
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
  await page.locator('#verdict.warning, #verdict.success, #verdict.danger').waitFor();
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

test('the log-on page speaks the language of the browser, else English', async () => {
  for (const [locale, title] of [['de-AT', LANGUAGES.de.texts.title], ['fr-FR', LANGUAGES.en.texts.title]]) {
    const page = await newPage(browser, console_, { locale });
    await page.goto('/');
    assert.equal(await page.locator('h1').textContent(), title);
  }
});
