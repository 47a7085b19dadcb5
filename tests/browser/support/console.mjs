// The real thing, for one test file: service, web server and programs, on a port and in a folder of their own.
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { chromium } from 'playwright-core';
import { root } from './templates.mjs';

export const build = process.env.KELDRA_BUILD ?? join(root, 'build/release');

async function freePort() {
  const server = createServer();
  server.listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address();
  server.close();
  await once(server, 'close');
  return port;
}

/** Reads what the console prints once it is up: name, password, folders. */
async function facts(child) {
  const found = {};
  for await (const line of createInterface({ input: child.stdout })) {
    const [, name, value] = /^(\w+):\s+(.*)$/.exec(line) ?? [];
    if (name) found[name.toLowerCase()] = value;
    if (line.startsWith('Ctrl-C')) return found;
  }
  throw new Error('the console did not start');
}

/** A file of /proc; nothing when its process has ended meanwhile. */
function processFile(path) {
  try {
    return readFileSync(path, 'utf8');
  } catch {
    return '';
  }
}

/** The processes that a process started, and those that they started. */
function descendants(pid) {
  const children = processFile(`/proc/${pid}/task/${pid}/children`).split(' ').filter(Boolean).map(Number);
  return children.flatMap((child) => [child, ...descendants(child)]);
}

/** A started console. `options`: further arguments of run-console; `enclosure`: a command that runs it, with arguments. */
export async function startConsole(options = [], enclosure = []) {
  const folder = mkdtempSync(join(tmpdir(), 'keldra-browser-'));
  const port = await freePort();
  const [program, ...rest] = [...enclosure, join(root, 'scripts/run-console'), '--port', String(port), '--dir', folder,
    '--build', build, ...options];
  const child = spawn(program, rest, { stdio: ['ignore', 'pipe', 'inherit'] });
  const { console: address, user, password } = await facts(child).catch((error) => {
    rmSync(folder, { recursive: true, force: true });
    throw error;
  });
  child.stdout.resume();
  return {
    base: new URL(address).origin,
    folder,
    pid: child.pid,
    user,
    password,
    /** Sets where updates come from as an administrator would, and has the service read it. */
    configureUpdates(values) {
      const path = join(folder, 'configuration.xml');
      let text = readFileSync(path, 'utf8');
      for (const [name, value] of Object.entries(values)) {
        text = text.replace(new RegExp(`\\s*<P Name="${name}"[^>]*>`), '')
          .replace('<Group Type="Varnel">', `$&<P Name="${name}" Value="${value}"/>`);
      }
      writeFileSync(path, text);
      for (const pid of descendants(child.pid)) {
        if (processFile(`/proc/${pid}/comm`) === 'keldrad\n') process.kill(pid, 'SIGHUP');
      }
    },
    async stop() {
      child.kill('SIGTERM');
      await once(child, 'exit');
      rmSync(folder, { recursive: true, force: true });
    },
  };
}

export function openBrowser() {
  return chromium.launch({
    executablePath: process.env.KELDRA_CHROMIUM ?? '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
  });
}

/** A page of a browser with nobody logged on; fails the test on any error of its scripts. */
export async function newPage(browser, console, options = {}) {
  const context = await browser.newContext({ baseURL: console.base, locale: 'en-US', ...options });
  const page = await context.newPage();
  page.errors = [];
  page.on('pageerror', (error) => page.errors.push(error.message));
  page.on('console', (message) => { if (message.type() === 'error') page.errors.push(message.text()); });
  return page;
}

export async function logOn(page, { user, password }) {
  await page.goto('/');
  await page.locator('#user').fill(user);
  await page.locator('#password').fill(password);
  await page.locator('button').click();
  await page.waitForURL('**/showpage.cgi?page=norv_main.html');
}

export const addresses = {
  overview: '/NorvLinux/showpage.cgi?page=norv_main.html',
  manual: '/NorvLinux/scanoption.cgi?id=manual_scan',
  realtime: '/NorvLinux/scanoption.cgi?id=realtime_scan',
  scheduled: '/NorvLinux/scanoption.cgi?id=scheduled_scan',
  update: '/NorvLinux/showpage.cgi?page=update_manual.html',
  updateSchedule: '/NorvLinux/scanoption.cgi?id=scheduled_update',
  defaultList: '/NorvLinux/scanoption.cgi?id=default_ext',
  quarantine: '/NorvLinux/quarantine.cgi',
  history: '/NorvLinux/history.cgi',
  notSupported: '/NorvLinux/scanoption.cgi?id=nothing',
};

/** From the answer back to the settings page, once its script has filled it. */
export async function goBack(page) {
  // The answer is read before it is loaded wholly; its end must not be taken for that of the next page.
  await page.waitForLoadState('load');
  await Promise.all([page.waitForEvent('load'), page.locator('#back').click()]);
}
