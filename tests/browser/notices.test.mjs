// Who is told of what happens: the page, and a server of this test that takes what is sent.
import assert from 'node:assert/strict';
import { once } from 'node:events';
import { createServer } from 'node:http';
import { after } from 'node:test';
import test from 'node:test';
import { logOn, newPage } from './support/console.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { audited, browser, console_, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

shareConsole({ shared: audited });

const taken = [];
let status = 200;
const sink = createServer((request, answer) => {
  let body = '';
  request.on('data', (part) => { body += part; });
  request.on('end', () => {
    taken.push({ url: request.url, head: request.headers, body });
    answer.writeHead(status).end();
  });
});
sink.listen(0, '127.0.0.1');
await once(sink, 'listening');
after(() => sink.close());
const address = `http://127.0.0.1:${sink.address().port}`;

async function open(on = page) {
  await on.goto('/NorvLinux/notices.cgi');
  await on.locator('#form').waitFor();
}

inEveryView('everything about notices is on one page, and what is missing is told beside it', async (own, view) => {
  await open(own);
  await view.suits(own);
  await own.locator('#mail').check();
  await own.locator('#mail-by').selectOption('smtp');
  await own.locator('#hook').check();
  await view.suits(own);
  if (view.plain) await fitsAndIsAccessible(own, 'notices');
  await own.locator('#mail-test').click();
  assert.equal(await own.locator('#mail-to-wrong').textContent(), view.text('FIELD_NEEDED'));
  assert.equal(await own.evaluate(() => document.activeElement.id), 'mail-to');
  await view.suits(own);
  await own.locator('#mail').uncheck();
  await own.locator('#hook-url').fill('ftp://example.org');
  await own.locator('#save').click();
  await own.locator('#refused').waitFor();
  const reason = view.said("The web hook's address must begin with https:// or http://.");
  assert.equal(await own.locator('#refused').textContent(), view.text('SETTINGS_REFUSED', { reason }));
  own.errors.length = 0;
});

test('a test reaches the other end or tells why not, and the token never comes back', async () => {
  await open();
  await page.locator('#hook').check();
  await page.locator('#hook-kind').selectOption('gotify');
  await page.locator('#hook-url').fill(address);
  await page.locator('#hook-token').fill('hush hush');
  await page.locator('#hook-test').click();
  await page.locator('#hook-outcome.success').waitFor();
  assert.equal(taken.at(-1).url, '/message');
  assert.equal(taken.at(-1).head['x-gotify-key'], 'hush hush');
  assert.match(JSON.parse(taken.at(-1).body).message, /This is a test/);
  status = 403;
  await page.locator('#hook-test').click();
  await page.locator('#hook-outcome.danger', { hasText: '403' }).waitFor();
  status = 200;
  assert.doesNotMatch(await (await page.request.get('/NorvLinux/notices.cgi?list=1')).text(), /hush/);
  await open();
  assert.equal(await page.locator('#hook-token').inputValue(), '');
  await page.locator('#hook-card .stored').waitFor();
  page.errors.length = 0;
});

test('the chosen events are kept, and of two people the second is told', async () => {
  const other = await newPage(browser, console_);
  await logOn(other, console_);
  await open();
  await open(other);
  await page.locator('#kind-logon').check();
  await page.locator('#weekly').check();
  await page.locator('#bundle').fill('5');
  await page.locator('#save').click();
  await page.locator('#saved').waitFor();
  await open();
  assert.deepEqual([await page.locator('#kind-logon').isChecked(), await page.locator('#kind-settings').isChecked(),
    await page.locator('#weekly').isChecked(), await page.locator('#bundle').inputValue()], [true, false, true, '5']);
  await other.locator('#bundle').fill('7');
  await other.locator('#save').click();
  await other.locator('#refused', { hasText: 'Somebody else changed' }).waitFor();
  assert.equal(await other.locator('#bundle').inputValue(), '7', 'what was typed stays');
  await other.context().close();
});
