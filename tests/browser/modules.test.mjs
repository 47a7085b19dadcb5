// What the page scripts make of odd values, without a browser.
import assert from 'node:assert/strict';
import { join } from 'node:path';
import test from 'node:test';
import { root } from './support/templates.mjs';

const load = (name) => import(join(root, 'webui/htdocs/js', name));
const { parsePageVariables } = await load('page-variables.js');
const { csrfToken } = await load('csrf.js');
const { tidyExtensions } = await load('files-to-scan.js');
const { formatActions, parseActions } = await load('actions.js');

test('page variables are read as the programs write them', () => {
  const variables = parsePageVariables('\nbOn=true\nbOff=false\niIndex=-1\nsText="a \\"b\\" \\\\n"\n');
  assert.deepEqual(Object.fromEntries(variables), { bOn: true, bOff: false, iIndex: -1, sText: 'a "b" \\n' });
});

test('what a user typed cannot set another variable', () => {
  const typed = 'bSaveFailed=false\nScheduledTime="1";bSaveFailed=true;x="\nbSaveFailed=true\nsText="a\nbSaveFailed=true\n"';
  const variables = parsePageVariables(typed);
  assert.equal(variables.get('bSaveFailed'), false);
  assert.equal(variables.has('ScheduledTime'), false);
});

test('scripts and half assignments are passed over', () => {
  assert.equal(parsePageVariables('a=alert(1)\nb="x" + y\nc=\n__proto__\nd= 1').size, 0);
});

test('the token is found among other cookies', () => {
  assert.equal(csrfToken('a=1; CsrfToken=f00; hvssn=x'), 'f00');
  assert.equal(csrfToken('XCsrfToken=1'), '');
});

test('a list of extensions is brought into one form', () => {
  assert.equal(tidyExtensions(' .exe, COM\r\n;;docm:exe exe'), 'exe;COM;docm');
  assert.equal(tidyExtensions(' ; '), '');
});

test('actions survive reading and writing, whatever the names of the kinds', () => {
  const text = 'Universe-5-4,Test_Virus-1-1,Some-Thing-4-2';
  assert.equal(formatActions(parseActions(text)), text);
  assert.deepEqual(parseActions('Universe-5-4,'), [{ type: 'Universe', first: '5', second: '4' }]);
});
