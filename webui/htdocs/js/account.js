// The console's password, the second step of the log-on, and who is logged on.
import { getJson, postJson } from './api.js';
import { leaveTo } from './draft.js';
import { byId, check } from './form.js';
import { strengthOf } from './password-strength.js';
import { qrPicture } from './qr.js';
import { durationText, fill, numberText, timeText } from './wording.js';

const PROGRAM = './account.cgi';
const FIRST_PAGE = './setup.cgi';
const SHORTEST = 8;
const LONGEST = 32;
const ISSUER = 'Keldra';

let mustChange = false;
let sessions = [];

function tell(text) {
  byId('refused').hidden = true;
  byId('done').hidden = false;
  byId('done').textContent = text;
  byId('done').focus();
}

function complain(error) {
  byId('done').hidden = true;
  byId('refused').hidden = false;
  byId('refused').textContent = error.message || byId('load-failed').dataset.text;
  byId('refused').focus();
}

/** Sends an action; what goes wrong is told. Returns the answer, or null. */
async function send(action, fields = {}) {
  try {
    return await postJson(PROGRAM, { action, ...fields });
  } catch (error) {
    complain(error);
    return null;
  }
}

const given = (id) => check(byId(id), `${id}-wrong`, byId(id).value !== '');

function cell(label, ...content) {
  const made = document.createElement('td');
  made.dataset.label = label;
  made.append(...content);
  return made;
}

/** A cell that says on a narrow screen what it tells. */
function numberCell(label, text) {
  const made = cell(label, text);
  made.className = 'number';
  return made;
}

const headsOf = (table) => [...byId(table).querySelectorAll('th')].map((head) => head.textContent);

/** A button that says for which of the entries it is. */
function buttonFor(text, label, act) {
  const button = Object.assign(document.createElement('button'), { type: 'button', textContent: text });
  button.setAttribute('aria-label', label);
  button.addEventListener('click', act);
  return button;
}

function sessionRow(session) {
  const row = document.createElement('tr');
  const [address, begun, used, action] = headsOf('sessions');
  const words = byId('sessions').tBodies[0].dataset;
  const tag = Object.assign(document.createElement('span'), { className: 'tag good', textContent: words.own });
  const end = buttonFor(words.end, fill(words.endOne, { address: session.address, time: timeText(session.begun) }), async () => {
    if (await send('end', { session: session.id }) === null) return;
    await load();
    tell(byId('done').dataset.end);
  });
  row.append(cell(address, session.address), numberCell(begun, timeText(session.begun)), numberCell(used, timeText(session.lastUse)),
    cell(action, session.own ? tag : end));
  return row;
}

function blockedRow({ address, failures, seconds }) {
  const row = document.createElement('tr');
  const [from, count, wait, action] = headsOf('blocked');
  const words = byId('blocked').tBodies[0].dataset;
  const lift = buttonFor(words.lift, fill(words.liftOne, { address }), async () => {
    if (await send('lift', { address }) === null) return;
    await load();
    tell(byId('done').dataset.lift);
  });
  row.append(cell(from, address), numberCell(count, numberText(failures)), numberCell(wait, durationText(seconds)), cell(action, lift));
  return row;
}

function show(account) {
  ({ mustChange, sessions } = account);
  byId('must-change').hidden = !mustChange;
  byId('second').hidden = mustChange;
  byId('second-on').hidden = !account.on;
  byId('second-off').hidden = account.on;
  byId('second-begin').hidden = account.on;
  byId('second-remove').hidden = !account.on;
  byId('second-left').hidden = !account.on;
  byId('second-left').textContent = fill(byId('second-left').dataset.text, { count: account.recoveryCodes });
  byId('sessions-card').hidden = mustChange;
  byId('sessions').tBodies[0].replaceChildren(...sessions.map(sessionRow));
  byId('end-others').hidden = sessions.length < 2;
  byId('blocked-card').hidden = account.blocked.length === 0;
  byId('blocked').tBodies[0].replaceChildren(...account.blocked.map(blockedRow));
}

async function load() {
  const failed = byId('load-failed');
  try {
    show(await getJson(`${PROGRAM}?list=1`));
    failed.hidden = true;
  } catch (error) {
    failed.textContent = error.message || failed.dataset.text;
    failed.hidden = false;
  }
}

/** What is wrong with the new password: the name of the sentence that says so, or nothing. */
function faultOf(password) {
  if ([...password].length < SHORTEST) return 'short';
  if (new TextEncoder().encode(password).length > LONGEST) return 'long';
  return password === byId('password-old').value ? 'same' : '';
}

function checkPasswords() {
  const old = given('password-old');
  const fault = faultOf(byId('password-new').value);
  byId('password-new-wrong').textContent = byId('password-new-wrong').dataset[fault] ?? '';
  const fresh = check(byId('password-new'), 'password-new-wrong', fault === '');
  const same = check(byId('password-again'), 'password-again-wrong', byId('password-new').value === byId('password-again').value);
  const wrong = [[old, 'password-old'], [fresh, 'password-new'], [same, 'password-again']].find(([right]) => !right);
  if (wrong) byId(wrong[1]).focus();
  return !wrong;
}

async function changePassword() {
  if (!checkPasswords()) return;
  const first = mustChange;
  if (await send('password', { Old: byId('password-old').value, New: byId('password-new').value }) === null) return;
  byId('password-form').reset();
  byId('strength').textContent = '';
  if (first) {
    leaveTo(FIRST_PAGE);
    return;
  }
  await load();
  tell(byId('done').dataset.password);
}

async function beginSecondStep() {
  if (!given('second-password')) return;
  const answer = await send('begin', { Old: byId('second-password').value });
  if (!answer) return;
  const address = `otpauth://totp/${ISSUER}:${encodeURIComponent(location.hostname)}?secret=${answer.secret}&issuer=${ISSUER}`;
  byId('second-password').value = '';
  byId('second-picture').replaceChildren(qrPicture(address));
  byId('second-secret').textContent = answer.secret.replace(/(.{4})(?=.)/g, '$1 ');
  byId('second-link').href = address;
  byId('second-ask').hidden = true;
  byId('second-confirm').hidden = false;
  byId('refused').hidden = true;
  byId('second-code').focus();
}

async function confirmSecondStep() {
  if (!given('second-code')) return;
  const answer = await send('confirm', { Code: byId('second-code').value });
  if (!answer) return;
  byId('second-confirm').reset();
  byId('second-confirm').hidden = true;
  byId('second-picture').replaceChildren();
  byId('second-secret').textContent = '';
  byId('second-link').removeAttribute('href');
  byId('second-ask').hidden = false;
  byId('refused').hidden = true;
  byId('recovery-codes').replaceChildren(...answer.codes.map(({ code }) =>
    Object.assign(document.createElement('li'), { textContent: code })));
  byId('recovery').hidden = false;
  await load();
  byId('recovery').focus();
}

async function removeSecondStep() {
  if (!given('second-password')) return;
  if (await send('remove', { Old: byId('second-password').value }) === null) return;
  byId('second-ask').reset();
  byId('recovery').hidden = true;
  await load();
  tell(byId('done').dataset.remove);
}

async function endOthers() {
  for (const { id, own } of sessions) if (!own && await send('end', { session: id }) === null) return;
  await load();
  tell(byId('done').dataset.others);
}

const onSubmit = (form, act) => {
  byId(form).noValidate = true;
  byId(form).addEventListener('submit', (event) => {
    event.preventDefault();
    act();
  });
};

byId('password-new').addEventListener('input', () => {
  const level = strengthOf(byId('password-new').value);
  byId('strength').dataset.level = level;
  byId('strength').textContent = byId('strength').dataset[level] ?? '';
});
onSubmit('password-form', changePassword);
onSubmit('second-ask', () => (byId('second-remove').hidden ? beginSecondStep() : removeSecondStep()));
onSubmit('second-confirm', confirmSecondStep);
byId('end-others').addEventListener('click', endOthers);
await load();
if (mustChange) byId('password-old').focus();
