// The web page in Debian's headless Chromium, driven by Playwright, against
// the services that browser_test.cc started in the sandbox (it also made the
// files named here). Run by that test; not on its own.
import assert from 'node:assert/strict';
import { existsSync, readFileSync, renameSync } from 'node:fs';
import { createRequire } from 'node:module';
import { after, afterEach, before, test } from 'node:test';
import { chromium } from 'playwright-core';

const URL_BASE = process.env.KEST_URL;
const USERS = JSON.parse(process.env.KEST_USERS || '{}');
const TEAM = '/volume1/docs/team/';
let browser;
let pages = [];

before(async () => {
  browser = await chromium.launch({ executablePath: process.env.KEST_CHROMIUM,
    args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--disable-background-networking'] });
});
after(() => browser?.close());

// A fresh browser profile per user, closed after the test; a dialog the page
// did not ask for (alert from injected markup) or an error fails the test.
afterEach(async () => {
  const unexpected = pages.flatMap((page) => page.unexpected);
  await Promise.all(pages.map((page) => page.context().close()));
  pages = [];
  assert.deepEqual(unexpected, []);
});

async function open(options = {}) {
  const page = await (await browser.newContext({ viewport: { width: 1200, height: 900 }, ...options })).newPage();
  pages.push(page);
  page.unexpected = [];
  page.on('dialog', (dialog) => {
    if (dialog.type() === 'confirm') return dialog.accept();
    page.unexpected.push(dialog.message());
    return dialog.dismiss();
  });
  page.on('pageerror', (error) => page.unexpected.push(String(error)));
  await page.goto(URL_BASE);
  return page;
}

// The main screens, into the build folder (docs/web-*.png are chosen from them).
const shot = (page, name) => page.screenshot({ path: `${process.env.KEST_SCREENS}/${name}.png`, fullPage: true });

async function signIn(page, user, password = USERS[user]) {
  await page.fill('#login-account', user);
  await page.fill('#login-password', password);
  await page.click('#login-submit');
}

async function signedIn(user, options) {
  const page = await open(options);
  await signIn(page, user);
  await page.locator('#app-view').waitFor();
  return page;
}

// Runs `action`, then waits until a full search started since is painted.
async function painted(page, action) {
  const serial = await page.evaluate(() => Math.max(0, ...window.kestPaint.map((p) => p.serial)));
  await action();
  await page.waitForFunction((n) => window.kestPaint.some((p) => p.kind === 'full' && p.serial > n), serial);
}

const search = (page, text) => painted(page, () => page.fill('#q', text).then(() => page.press('#q', 'Enter')));

// The names of the hits shown, as text.
const hitNames = (page) => page.$$eval('#hits .hit-name', (links) => links.map((link) => [...link.childNodes]
  .filter((n) => !n.classList?.contains('visually-hidden')).map((n) => n.textContent).join('')).sort());

// Waits until the text of `selector` matches `pattern`; a failure says what
// the page showed instead.
async function textMatches(page, selector, pattern) {
  await page.waitForFunction(([sel, source]) => new RegExp(source).test(document.querySelector(sel).textContent),
    [selector, pattern.source], { timeout: 15000 }).catch(async () => assert.fail(`${selector} never matched `
    + `${pattern}: "${await page.textContent(selector)}"; notices: "${await page.textContent('#notices')}"`));
}

test('failed and throttled sign-ins are told in words', async () => {
  const page = await open();
  await signIn(page, 'bob', 'not-his-password');
  await textMatches(page, '#login-error', /^Wrong account or password\.$/);
  // Five failures of one account from one address, then the sixth try.
  for (let i = 0; i < 6; i += 1) {
    await signIn(page, 'mallory', 'guess');
    await page.waitForFunction(() => !document.querySelector('#login-submit').disabled);
  }
  await textMatches(page, '#login-error', /Too many failed sign-ins/);
});

test('bob searches as he types and sees only what he may read, as text', async () => {
  const page = await signedIn('bob');
  await painted(page, async () => {
    await page.locator('#q').pressSequentially('aardv', { delay: 30 });
    // Hits of the search made while typing come before the full search.
    await page.waitForFunction(() => window.kestPaint.some((p) => p.kind === 'typing'));
    await page.locator('#hits .hit').first().waitFor();
  });
  assert.deepEqual(await hitNames(page), ['<img src=x onerror=alert(1)>.txt', 'aardvark-report.pdf',
    'aardvark.jpg', 'latin\ufffd-aardvark.txt', 'memo.docx', 'notes.txt', 'tab\there & "quote".txt'].sort());
  // Markup from names and contents is text; only match marks are elements.
  assert.equal(await page.locator('#hits img, #hits script, #hits b').count(), 0);
  assert.match(await page.textContent('#hits'), /<script>alert\('aardvark'\)<\/script>/);
  const marks = await page.$$eval('#hits mark', (m) => m.map((e) => e.textContent.toLowerCase()));
  assert.ok(marks.length > 0 && marks.every((m) => m.startsWith('aardv')), marks.join());
  assert.match(await page.textContent('#summary'), /^7 of 7 files$/);

  // Each type tab's count is the number of hits it shows.
  const counts = {};
  for (const type of ['all', 'document', 'photo', 'video', 'audio', 'folder', 'other']) {
    const tab = page.locator(`[role=tab][data-type=${type}]`);
    await painted(page, () => tab.click());
    await page.waitForFunction(() => !document.querySelector('#tabs').classList.contains('stale'));
    counts[type] = Number(await tab.locator('.count').textContent());
    assert.equal(await page.locator('#hits .hit').count(), counts[type], type);
  }
  assert.deepEqual(counts, { all: 7, document: 6, photo: 1, video: 0, audio: 0, folder: 0, other: 0 });
  await painted(page, () => page.click('[role=tab][data-type=all]'));

  // Keyboard: "/" to the box, arrows through the hits, Enter opens the file.
  await page.evaluate(() => document.activeElement.blur());
  for (const key of ['/', 'ArrowDown', 'ArrowDown']) await page.keyboard.press(key);
  assert.equal(await page.evaluate(() => document.activeElement.closest('.hit').dataset.index), '1');
  const [popup] = await Promise.all([page.waitForEvent('popup'), page.keyboard.press('Enter')]);
  await popup.waitForURL(/\/webapi\/file\?path=/);
  await popup.close();
  // A link fetches the file's bytes; the server's tests check who may download what.
  const notes = await page.getAttribute('#hits a.hit-name[href*="notes.txt"]', 'href');
  assert.equal(await page.evaluate((href) => fetch(href).then((r) => r.text()), notes),
    'The quarterly figures of the aardvark project.\n');

  // A hit whose file went away since: said in words, the page goes on.
  renameSync(`${TEAM}memo.docx`, '/volume1/memo-moved.docx');
  await page.click('#hits a.hit-name[href*="memo.docx"]');
  await textMatches(page, '#notices', /no longer there/);
  renameSync('/volume1/memo-moved.docx', `${TEAM}memo.docx`);
});

test('hundreds of results page in on a narrow screen; a user sees her own private file', async () => {
  const page = await signedIn('ann', { viewport: { width: 360, height: 740 }, isMobile: true });
  await search(page, 'zebu');
  assert.match(await page.textContent('#summary'), /^50 of 120 files$/);
  for (const shown of [50, 100, 120]) {
    await page.waitForFunction((n) => document.querySelectorAll('#hits .hit').length === n, shown);
    if (shown < 120) await page.click('#more');
  }
  assert.ok(await page.locator('#more').isHidden());
  assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= 360));
  await search(page, 'diary');
  assert.deepEqual(await hitNames(page), ['ann-private.txt']);
});

test('the administrator adds a folder, watches it index, pauses and resumes; no screen has a serious accessibility fault', async () => {
  // axe-core is injected, so this profile alone does without the page's CSP.
  const page = await open({ bypassCSP: true });
  await page.evaluate(readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8'));
  const axe = () => page.evaluate(async () => (await window.axe.run(document, { resultTypes: ['violations'] }))
    .violations.filter((v) => ['serious', 'critical'].includes(v.impact))
    .map((v) => `${v.id}: ${v.nodes.map((n) => n.target.join(' ')).join(', ')}`));
  const faults = { signIn: await axe() };
  await shot(page, 'sign-in');
  await signIn(page, 'carol');
  await search(page, 'aardvark');
  faults.search = await axe();
  await shot(page, 'search');
  await page.click('#nav-folders');
  await page.locator('#folder-rows tr').first().waitFor();
  // The path is checked before it is sent, and the server's refusal is told.
  const add = async (path) => {
    await page.fill('#add-path', path);
    await page.click('#add-form button[type=submit]');
  };
  await add('volume1/staff/plans');
  assert.match(await page.textContent('#add-error'), /must start with \//);
  await add('/volume1/staff/missing');
  await textMatches(page, '#add-error', /not accepted/);

  await page.selectOption('#pause-length', '0');
  await page.click('#pause-form button[type=submit]');
  await page.waitForFunction(() => document.querySelector('#index-status').dataset.status === 'finished'
    && !document.querySelector('#resume').disabled);
  await page.fill('#add-name', 'Plans');
  await add('/volume1/staff/plans');
  const row = page.locator('#folder-rows tr[data-path="/volume1/staff/plans"]');
  await row.waitFor();
  await page.waitForFunction(() => document.querySelector('#index-status').dataset.status === 'paused');
  assert.equal(await row.locator('td.status').textContent(), 'Paused');
  await page.click('#resume');
  await page.waitForFunction(() => document.querySelector('#index-status').dataset.status === 'finished'
    && document.querySelector('tr[data-path="/volume1/staff/plans"] td.status').dataset.status === 'finished',
  null, { timeout: 30000 });

  // File types, sorting, reindexing.
  await row.locator('input[data-type=photo]').uncheck();
  await textMatches(page, '#folders-message', /Changed the file types/);
  await page.click('th[data-column=path] button');
  await page.waitForFunction(() => document.querySelector('th[data-column=path]').getAttribute('aria-sort') === 'descending');
  assert.deepEqual(await page.$$eval('#folder-rows tr', (rows) => rows.map((r) => r.dataset.path)),
    ['/volume1/staff/plans', '/volume1/docs/team']);
  assert.equal(await row.locator('input[data-type=photo]').isChecked(), false);
  await row.locator('button[data-action=reindex]').click();
  await textMatches(page, '#folders-message', /Reindexing/);

  // Staff find the new folder's file; the others do not.
  const bob = await signedIn('bob');
  await search(bob, 'wombat');
  assert.deepEqual(await hitNames(bob), ['plan.md']);
  faults.folders = await axe();
  await shot(page, 'folders');
  assert.deepEqual(faults, { signIn: [], search: [], folders: [] });
  await row.locator('button[data-action=delete]').click();
  await row.waitFor({ state: 'detached' });
});

test('an expired session signs in again and goes on where it was', async () => {
  const page = await signedIn('bob');
  await search(page, 'aardvark');
  const sid = (await page.context().cookies()).find((c) => c.name === 'kest_sid').value;
  // The server forgets the session, as after its idle time-out.
  const ended = await fetch(new URL('webapi/entry.cgi', URL_BASE), { method: 'POST',
    body: JSON.stringify({ api: 'KEST.API.Auth', method: 'logout', version: 1, _sid: sid }),
    headers: { 'Content-Type': 'application/json' } });
  assert.equal((await ended.json()).success, true);
  await page.click('[role=tab][data-type=photo]');
  await textMatches(page, '#login-note', /session has ended/);
  // The account stays filled in.
  await painted(page, () => page.fill('#login-password', USERS.bob).then(() => page.click('#login-submit')));
  assert.equal(await page.getAttribute('[role=tab][data-type=photo]', 'aria-selected'), 'true');
  assert.deepEqual(await hitNames(page), ['aardvark.jpg']);
  assert.equal(await page.inputValue('#q'), 'aardvark');
  // Signing out ends the session on the server too.
  await page.click('#sign-out');
  await textMatches(page, '#login-note', /signed out/);
  assert.ok(!(await page.context().cookies()).find((c) => c.name === 'kest_sid')?.value);
});

test('a user with no shared folder is told there is nothing; a daemon that is down, in words', async () => {
  const dave = await signedIn('dave');
  await search(dave, 'aardvark');
  assert.equal(await dave.textContent('#summary'), 'No file matches “aardvark”.');
  assert.equal(await dave.locator('#notices .error').count(), 0);
  const page = await signedIn('bob');
  process.kill(Number(process.env.KEST_DAEMON_PID), 'SIGTERM');
  // Gone once its socket is: searches already under way may still finish.
  for (let i = 0; i < 100 && existsSync('/var/run/kestelasticd.sock'); i += 1) {
    await new Promise((resolve) => { setTimeout(resolve, 100); });
  }
  await page.fill('#q', 'aardvark');
  await page.press('#q', 'Enter');
  await textMatches(page, '#notices', /search service is not running/);
  await page.click('#nav-folders');
  await page.locator('#folder-rows tr').first().waitFor();
});
