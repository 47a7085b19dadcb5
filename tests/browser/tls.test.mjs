// The console over TLS and HTTP/2, as the package serves it.
import assert from 'node:assert/strict';
import test from 'node:test';
import { addresses, logOn, newPage } from './support/console.mjs';
import { browser, console_, shareConsole } from './support/shared.mjs';

shareConsole({ options: ['--tls'], shared: null });

test('over HTTP/2 one logs on, stays logged on, and the cookies travel over TLS only', async () => {
  const page = await newPage(browser, console_, { ignoreHTTPSErrors: true });
  await logOn(page, console_);
  await page.goto(addresses.manual);
  assert.equal(await page.evaluate(() => performance.getEntriesByType('navigation')[0].nextHopProtocol), 'h2');
  const cookies = Object.fromEntries((await page.context().cookies()).map((cookie) => [cookie.name, cookie]));
  assert.deepEqual(Object.keys(cookies).sort(), ['CsrfToken', 'hvssn']);
  for (const { secure, sameSite } of Object.values(cookies)) assert.deepEqual({ secure, sameSite }, { secure: true, sameSite: 'Strict' });
  assert.equal(cookies.hvssn.httpOnly, true);
});
