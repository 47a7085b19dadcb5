// Every page in every language: what would be shown with a hole in it, or sent under a name that nobody reads.
import assert from 'node:assert/strict';
import { join } from 'node:path';
import test from 'node:test';
import { expandMarkers, languages, letters, pageNames, read, replaceItems, root, stringTable, template, templates }
  from './support/templates.mjs';

const scanItems = {
  'ScanOptionIncludeExtList=0': 'ScanOptionIncludeExtList=1',
  'ScanOptionIncludeExtListString=""': 'ScanOptionIncludeExtListString="exe;com"',
  'bScanOptionIncludeHVExtList=false': 'bScanOptionIncludeHVExtList=true',
  'bScanOptionBackupFilesBeforeClean=false': 'bScanOptionBackupFilesBeforeClean=true',
  'bScanOptionScanCompressed=false': 'bScanOptionScanCompressed=true',
  'iScanOptionCompressionLayer=0': 'iScanOptionCompressionLayer=4',
  'sScanOptionCompressFileSize=""': 'sScanOptionCompressFileSize="30"',
  '<!--___SCANACTION_SET___-->': '<input type="hidden" name="EnableKeenAct" value="1">\n'
    + '<input type="hidden" name="EnableUniAct" value="0">\n'
    + '<input type="hidden" name="CustAction" value="Universe-5-4,Virus-5-4">\n',
  __CONFIG_FILE_LAST_MODIFIED__: '1700000000',
  'bIsConfigFileModified=false': 'bIsConfigFileModified=true',
};
const scanFields = ['id', 'mode', 'CsrfToken', 'hvLastConfigFileModifiedDate', 'bOverWrite', 'E1', 'C3', 'SelectedExt',
  'Scan_config7', 'Layers', 'T1', 'Scan_BackupFilesBeforeClean', 'EnableKeenAct', 'EnableUniAct', 'CustAction'];
const versionItems = {
  __SCAN_ENGINE_VERSION__: '1.4.6', __VIRUS_PATTERN_VERSION__: '7', __SPYWARE_PATTERN_VERSION__: '8',
  __ENGINE_LAST_UPDATE__: '2026-01-01', __PATTERN_LAST_UPDATE__: '2026-01-02',
  __SPYWARE_PATTERN_LAST_UPDATE__: '2026-01-03',
  'bUpdateEngine=false': 'bUpdateEngine=true', 'bUpdatePattern=false': 'bUpdatePattern=true',
  'bUpdateSpywarePattern=false': 'bUpdateSpywarePattern=true',
};
const responseItems = {
  __PAGE_HEADER__: 'Manual Scan', __PAGE_TITLE__: 'Title', __FAIL_REASON__: 'Reason',
  __RESPONSE_BACK_PAGE__: './scanoption.cgi?id=manual_scan',
};
const counts = { __TOTAL__: '9', __SCANNED__: '7', __INFECTED__: '1' };

/** What the programs put into each page, and the fields its form sends. */
const pages = {
  'ScanOptions/Manual.html': {
    items: { ...scanItems, __START_SCAN__: 'true', 'iDoScanNow=0': 'iDoScanNow=1', 'bSaveFailed=false': 'bSaveFailed=true' },
    fields: scanFields,
  },
  'ScanOptions/Real-time.html': {
    items: {
      ...scanItems, __REALTIME_SCAN_DISABLED__: 'off', __DOT_LINE__: '<table></table>',
      'IncomingStatusCheckbox=false': 'IncomingStatusCheckbox=true',
      'OutgoingStatusCheckbox=false': 'OutgoingStatusCheckbox=true',
      'bRealTimeScanCheckbox=false': 'bRealTimeScanCheckbox=true',
      'bRealTimeScanDisabled=false': 'bRealTimeScanDisabled=true',
    },
    fields: [...scanFields, 'Scan_config5', 'Scan_config3', 'Scan_config4'],
  },
  'ScanOptions/Scheduled.html': {
    items: {
      ...scanItems, __SCHEDULED_SCAN_DISABLED__: '', __DOT_LINE__: '', __SCHEDULED_WDAY__: '3',
      'bScheduleScanCheckbox=false': 'bScheduleScanCheckbox=true', 'ScheduledTime=""': 'ScheduledTime="03:30:00"',
      'ScheduledMDay=""': 'ScheduledMDay="31"', 'ScheduledFrequency=""': 'ScheduledFrequency="3"',
    },
    fields: [...scanFields, 'Scan_config5', 'R2', 'Time_hh', 'Time_minute', 'D2', 'D6'],
  },
  'ScanOptions/HVDefaultExt.html': { items: { '..p..': 'Header', __HV_EXT_LIST__: '<tr><td class="data1b">exe</td></tr>' } },
  'ScanOptions/scan_progress.html': {
    items: {
      __PROGRESS_PERCENT__: '77%', __INFECTED__: '1', 'iProgressPercent=0': 'iProgressPercent=77',
      'iScannedFiles=0': 'iScannedFiles=7', 'iTotalFilesNeedToScan=0': 'iTotalFilesNeedToScan=9',
    },
    fields: ['id', 'RequestID', 'CsrfToken'],
  },
  'ScanOptions/scan_progress2.html': { items: counts },
  'ScanOptions/scan_progress_stop.html': { items: { ...counts, __PROGRESS_PERCENT__: 'Stopped.' } },
  'ScanOptions/scan_progress_error.html': { items: {} },
  'Update/Update_Scheduled.html': {
    items: {
      ...versionItems, 'sLastModifiedDate=0': 'sLastModifiedDate=1700000000',
      'bEnableScheduledUpdate=false': 'bEnableScheduledUpdate=true', 'Schedule=""': 'Schedule="2-3"',
      'ScheduledTime=""': 'ScheduledTime="03:30:00"', 'ScheduledWDay=""': 'ScheduledWDay="3"',
      'sRandomlizedUpdate=""': 'sRandomlizedUpdate="1"',
    },
    fields: ['id', 'mode', 'CsrfToken', 'cbEnableScheduledUpdate', 'VirusPattern', 'ScanEngine', 'SpywarePattern', 'R2',
      'DAILY_PERIOD', 'WEEKLY_PERIOD', 'Time', 'Time_min', 'D2'],
  },
  'Update/update_progress.html': { items: { __PROGRESS_PERCENT__: '70%', 'iProgressPercent=0': 'iProgressPercent=70' } },
  'Update/update_progress2.html': { items: {} },
  'Update/update_fail.html': { items: { __FAIL_TITLE__: 'Update complete', __REASON__: 'All is current.' } },
  'update_manual.html': {
    items: versionItems,
    fields: ['id', 'RequestID', 'CsrfToken', 'VirusPattern', 'ScanEngine', 'SpywarePattern'],
  },
  'response/Response_success.html': { items: responseItems },
  'response/Response_fail.html': { items: responseItems },
  'response/Disk_full.html': {
    items: {
      __PAGE_HEADER__: 'Scheduled Update', __PAGE_TITLE_1__: 'Saved', __PAGE_TITLE_2__: 'No backup',
      __FAIL_REASON__: 'Full', __RESPONSE_BACK_PAGE__: './scanoption.cgi?id=scheduled_update',
    },
  },
  'error.html': { items: {} },
  'not_support.html': { items: {} },
  'norv_main.html': { items: {} },
  'quarantine.html': { items: {} },
  'history.html': { items: {} },
  'password_wrong.html': { items: { __LOGON_FAILURE__: 'Wrong.' } },
  'settings.html': { items: {} },
  'events.html': { items: {} },
  'notices.html': { items: {} },
  'account.html': { items: {} },
  'setup.html': { items: {} },
  'second_step.html': { items: { __LOGON_TICKET__: '0a1b', __LOGON_COMPLAINT__: 'Wrong.' }, fields: ['Code', 'Ticket'] },
};

const tables = Object.fromEntries(languages.map((language) => [language, stringTable(language)]));
const sources = Object.fromEntries(pageNames().map((name) => [name, template(name)]));
sources['cgi/error.html'] = read(join(root, 'webui/cgi/error.html'));
pages['cgi/error.html'] = { items: {} };

const render = (name, language) => {
  const expanded = expandMarkers(sources[name], tables[language]);
  return replaceItems(expanded, { ...pages[name].items, __LOCALE__: language });
};
const everyPage = (check) => {
  for (const name of Object.keys(sources)) for (const language of languages) check(name, language);
};
const all = (text, pattern) => [...text.matchAll(pattern)].map((match) => match[1]);

test('every page is known to this test, and every page known here exists', () => {
  assert.deepEqual(Object.keys(sources).sort(), Object.keys(pages).sort());
});

test('no page shows a marker instead of a text or a value', () => {
  everyPage((name, language) => {
    const left = render(name, language).match(/%\[.{0,40}|.{0,40}\]%|__[A-Z][A-Z0-9_]*__|\.\.p\.\./g);
    assert.equal(left, null, `${name} in ${language}`);
  });
});

test('every value that the programs hand to a page has its place in it', () => {
  for (const name of Object.keys(sources)) {
    const page = expandMarkers(sources[name], tables['en-US']);
    for (const item of Object.keys(pages[name].items)) assert.ok(page.includes(item), `${name} lacks ${item}`);
  }
});

test('every page variable is one that the programs fill', () => {
  const filled = (items, line) => Object.keys(items).some((item) => line === item || line.endsWith(`=${item}`));
  for (const name of Object.keys(sources)) {
    const block = /id="page-variables">([^<]*)</.exec(sources[name])?.[1].trim() ?? '';
    for (const line of block.split('\n').filter(Boolean)) {
      assert.ok(filled(pages[name].items, line), `${name}: nobody fills ${line}`);
    }
  }
});

test('text that a user typed stands behind all other page variables', () => {
  const typed = ['ScheduledTime', 'ScanOptionIncludeExtListString'];
  for (const name of Object.keys(sources)) {
    const names = all(/id="page-variables">([^<]*)</.exec(sources[name])?.[1] ?? '', /^(\w+)=/gm);
    const last = names.filter((variable) => typed.includes(variable)).length;
    assert.deepEqual(names.slice(names.length - last), names.filter((variable) => typed.includes(variable)), name);
  }
});

test('forms send exactly the fields that the programs read', () => {
  for (const name of Object.keys(sources)) {
    const main = /<main[^]*<\/main>/.exec(render(name, 'en-US'))[0];
    const fields = new Set(all(main, /\bname="([^"]+)"/g).filter((field) => field !== 'action-mode'));
    assert.deepEqual([...fields].sort(), [...(pages[name].fields ?? [])].sort(), name);
    for (const form of all(main, /<form ([^>]*)>/g)) assert.match(form, /method="post"/, name);
  }
});

test('pages run under a policy without inline script and style', () => {
  everyPage((name, language) => {
    const page = render(name, language).replace(/<script type="text\/plain" id="page-variables">/, '');
    assert.doesNotMatch(page, /<script(?! type="module" src="\/js\/)|<style|\sstyle=|\son[a-z]+=|javascript:|https?:/i,
      `${name} in ${language}`);
  });
});

test('every id stands once and every reference to one leads somewhere', () => {
  everyPage((name, language) => {
    const page = render(name, language);
    const ids = all(page, /\sid="([^"]+)"/g);
    assert.equal(new Set(ids).size, ids.length, `${name}: an id stands twice`);
    const references = all(page, /\s(?:for|aria-labelledby|aria-describedby)="([^"]+)"/g).flatMap((list) => list.split(' '));
    for (const id of references) assert.ok(ids.includes(id), `${name}: no element ${id}`);
  });
});

test('pages say their language and that they are UTF-8', () => {
  everyPage((name, language) => {
    const page = render(name, language);
    assert.match(page, new RegExp(`<html lang="${language}">\n<head>\n<meta charset="utf-8">`), name);
    assert.doesNotThrow(() => new TextDecoder('utf-8', { fatal: true }).decode(Buffer.from(page, 'latin1')), name);
  });
});

test('every language has every text, and none that no page uses', () => {
  const used = new Set(Object.values(sources).join('').match(/%\[[A-Z0-9_]+\]%/g));
  for (const text of tables['en-US'].values()) for (const marker of text.match(/%\[[A-Z0-9_]+\]%/g) ?? []) used.add(marker);
  for (const language of languages) {
    assert.deepEqual([...tables[language].keys()].sort(), [...used].sort(), language);
    for (const [marker, text] of tables[language]) assert.notEqual(text.trim(), '', `${marker} in ${language}`);
  }
});

test('no text holds its own marker, which would make a page grow without end', () => {
  for (const language of languages) {
    for (const [marker, text] of tables[language]) assert.ok(!text.includes(marker), `${marker} in ${language}`);
  }
});

test('texts are safe in an attribute and keep the blanks to fill', () => {
  const blanks = (text) => [...new Set(text.match(/\{\w+(?=[}|])/g) ?? [])].sort();
  for (const language of languages) {
    const texts = ['pages.txt', 'console.txt'].map((name) => read(join(templates, 'texts', language, name)));
    for (const line of texts.join('').split('\n')) {
      const [, key, text] = /^([A-Z0-9_]+)=(.*)$/.exec(line) ?? [];
      if (!key) continue;
      assert.doesNotMatch(text, /[<>"\r]/, `${key} in ${language}: ${letters(text)}`);
      assert.deepEqual(blanks(text), blanks(tables['en-US'].get(`%[${key}]%`)), `${key} in ${language}`);
    }
  }
});
