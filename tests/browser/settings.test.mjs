// Settings pages: whatever is set and saved is there when the page is opened again.
import assert from 'node:assert/strict';
import test from 'node:test';
import { addresses, goBack, logOn, newPage } from './support/console.mjs';
import { readControls, setControls } from './support/controls.mjs';
import { fitsAndIsAccessible } from './support/looks.mjs';
import { browser, console_, page, shareConsole } from './support/shared.mjs';
import { inEveryView } from './support/views.mjs';

shareConsole();

const customScan = {
  'files-custom': true, 'default-list': true, extensions: 'exe;docm;tar.gz',
  'scan-archives': true, layers: '7', 'size-limit': '99',
  'actions-custom': true,
  'first:Virus': '5', 'second:Virus': '2', 'first:Trojan': '3', 'first:Spyware': '2', 'first:Joke': '1',
  'first:Test_Virus': '4', 'first:Other': '5', 'second:Other': '3',
  backup: true,
};
const uniformScan = {
  'files-all': true, 'scan-archives': false, 'actions-universal': true, 'first:Universe': '5', 'second:Universe': '3',
  backup: false,
};
const smartScan = {
  'files-smart': true, 'scan-archives': true, layers: '1', 'size-limit': '1', 'actions-keen': true, backup: true,
};
const scans = [customScan, uniformScan, smartScan];

const cases = {
  manual: scans,
  realtime: [
    { 'realtime-on': true, incoming: false, outgoing: true, ...customScan },
    { incoming: true, outgoing: false, ...uniformScan },
    { incoming: true, outgoing: true, ...smartScan },
    { 'realtime-on': false },
  ],
  scheduled: [
    { 'schedule-on': true, daily: true, time: '00:05', ...customScan },
    { weekly: true, 'week-day': 'Saturday', time: '23:59', ...uniformScan },
    { monthly: true, 'month-day': '31', time: '12:30', ...smartScan },
    { 'schedule-on': false },
  ],
  updateSchedule: [
    { 'schedule-on': true, hourly: true, time: '00:45', 'virus-pattern': true, 'spyware-pattern': false, 'scan-engine': true },
    { daily: true, 'day-period': '5', time: '04:10', 'virus-pattern': false, 'spyware-pattern': true, 'scan-engine': false },
    { weekly: true, 'week-period': '3', 'week-day': 'Friday', time: '22:00', 'virus-pattern': true },
    { 'schedule-on': false },
  ],
};

async function save(on = page) {
  await on.locator('#save').click();
  await on.locator('.notice.success').waitFor();
}

function assertKept(shown, state) {
  for (const [control, value] of Object.entries(state)) {
    assert.equal(shown[control], value, `${control} after saving ${JSON.stringify(state)}`);
  }
}

for (const [name, states] of Object.entries(cases)) {
  test(`${name}: every control keeps what was saved`, async () => {
    const touched = new Set();
    for (const state of states) {
      await page.goto(addresses[name]);
      await setControls(page, state);
      await save();
      await goBack(page);
      assertKept(await readControls(page), state);
      for (const control of Object.keys(state)) touched.add(control);
    }
    // A second action is there for "clean" only; those of the other kinds cannot be reached in these states.
    const all = Object.keys(await readControls(page)).filter((control) => !control.startsWith('second:'));
    assert.deepEqual(all.filter((control) => !touched.has(control)), [], 'no control was left out');
    assert.deepEqual(page.errors, []);
  });
}

test('switching a schedule off and on again keeps its times', async () => {
  for (const [name, time] of [['scheduled', '12:30'], ['updateSchedule', '22:00']]) {
    await page.goto(addresses[name]);
    await page.locator('#schedule-on').check();
    assert.equal((await readControls(page)).time, time);
  }
});

test('a wrong entry is told beside its field, nothing is sent and nothing typed is lost', async () => {
  await page.goto(addresses.manual);
  await setControls(page, { 'files-custom': true, 'default-list': false, extensions: '', 'scan-archives': true, 'size-limit': '0' });
  await page.locator('#save').click();
  await page.locator('#extensions-empty').waitFor();
  await page.locator('#size-limit-wrong').waitFor();
  assert.equal(await page.locator('#extensions').evaluate((field) => field === document.activeElement), true);
  await setControls(page, { extensions: 'exe;<script>' });
  await page.locator('#save').click();
  await page.locator('#extensions-wrong').waitFor();
  assert.equal(await page.locator('#extensions').inputValue(), 'exe;<script>');
  assert.match(page.url(), /id=manual_scan$/);
});

test('extensions may be typed with dots, blanks and line ends', async () => {
  await page.goto(addresses.manual);
  await setControls(page, { 'files-custom': true, extensions: '.exe, .com\n docm;exe', 'size-limit': '5' });
  await save();
  await goBack(page);
  assert.equal(await page.locator('#extensions').inputValue(), 'exe;com;docm');
});

test('dangerous actions say so as soon as they are chosen', async () => {
  await page.goto(addresses.manual);
  await setControls(page, { 'actions-universal': true, 'first:Universe': '4' });
  assert.equal(await page.locator('#delete-warning').isVisible(), false);
  await setControls(page, { 'first:Universe': '3' });
  assert.equal(await page.locator('#delete-warning').isVisible(), true);
  await setControls(page, { 'first:Universe': '5', 'second:Universe': '1' });
  assert.equal(await page.locator('#pass-warning').isVisible(), true);
});

test('the extensions of the default list can be looked up', async () => {
  await page.goto(addresses.defaultList);
  assert.ok(await page.locator('.extensions td').count() > 20);
});

/** Where the kernel lets no file be watched, a sentence says what that means; a service run by root may watch. */
async function explainsWhatKeepsItFromRunning(own, view) {
  const refused = (await own.locator('#realtime-state').textContent()).trim() === view.text('REALTIME_IMPOSSIBLE');
  assert.equal(await own.locator('#realtime-why').isVisible(), refused);
}

inEveryView('every settings page is set, saved and shows what was saved', async (own, view) => {
  for (const [name, [state]] of Object.entries(cases)) {
    await own.goto(addresses[name]);
    if (name === 'realtime') await explainsWhatKeepsItFromRunning(own, view);
    await setControls(own, state);
    await view.suits(own);
    await save(own);
    assert.equal(await own.locator('.notice.success').textContent(),
      view.said('Configuration changes have been successfully saved.'));
    await view.suits(own);
    await goBack(own);
    assertKept(await readControls(own), state);
  }
});

inEveryView('wrong entries are told where one stands', async (own, view) => {
  await own.goto(addresses.manual);
  await setControls(own, { 'files-custom': true, 'default-list': false, extensions: '', 'scan-archives': true, 'size-limit': '0' });
  await own.locator('#save').click();
  assert.equal(await own.locator('#extensions-empty').textContent(), view.text('FILES_LIST_EMPTY'));
  assert.equal(await own.locator('#size-limit-wrong').textContent(), view.text('SIZE_LIMIT_WRONG'));
  await view.suits(own);
});

inEveryView('of two administrators who save the second is asked, and neither loses anything unasked', async (own, view) => {
  const other = await newPage(browser, console_, { locale: view.locale });
  await logOn(other, console_);
  /** Both open a page, the other one saves first, then this one. */
  const bothSave = async (name, mine, theirs, elsewhere = name) => {
    await own.goto(addresses[name]);
    await other.goto(addresses[elsewhere]);
    await setControls(other, theirs);
    await save(other);
    await setControls(own, mine);
    await own.locator('#save').click();
  };
  const asked = () => own.locator('#overwrite-question').waitFor();
  await bothSave('realtime', { 'files-all': true, layers: '12' }, { 'files-all': true, layers: '11' }, 'scheduled');
  await own.locator('.notice.success').waitFor();

  await bothSave('scheduled', { 'files-all': true, backup: false }, { 'files-custom': true, extensions: 'abc;exe' });
  await asked();
  assert.equal(await own.locator('#overwrite-text').textContent(), view.text('OVERWRITE_TEXT'));
  assert.match(await own.locator('#overwrite-differences tbody').textContent(), /abc;exe/, 'the other’s value is shown');
  await view.suits(own);
  if (view.plain) await fitsAndIsAccessible(own, 'overwrite-question');
  await own.locator('#overwrite-edit').click();
  assert.equal((await readControls(own)).backup, false, 'what was chosen is still there');
  await own.locator('#save').click();
  await asked();
  await Promise.all([own.waitForEvent('load'), own.locator('#overwrite-no').click()]);
  assertKept(await readControls(own), { 'files-custom': true, extensions: 'abc;exe', layers: '11' });

  await bothSave('manual', { 'files-all': true, 'size-limit': '' }, { 'files-smart': true, 'scan-archives': true, layers: '9' });
  await asked();
  await own.locator('#overwrite-yes').click();
  await own.locator('.notice.success').waitFor();
  await other.goto(addresses.manual);
  assertKept(await readControls(other), { 'files-all': true });
  assert.deepEqual(other.errors, []);
  await other.context().close();
});
