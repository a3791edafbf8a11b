// Types the fixed queries letter by letter into the web page in Debian's
// headless Chromium and prints, per user, how long the results took to be
// painted. Run by web_keystroke_bench (which starts the services); settings:
// ROUNDS (default 2), KEY_DELAY ms between keystrokes (default 200, steady
// typing: each keystroke then sends a search, which the next one overtakes).
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';

const require = createRequire(new URL('../tests/browser/package.json', import.meta.url));
const { chromium } = require('playwright-core');

const USERS = JSON.parse(process.env.KEST_USERS);
const ROUNDS = Number(process.env.ROUNDS || 2);
const KEY_DELAY = Number(process.env.KEY_DELAY || 200);
const queries = readFileSync(process.env.KEST_QUERIES, 'utf8').split('\n')
  .filter((line) => line && !line.startsWith('#')).map((line) => line.split('\t')[2]);

const percentile = (values, p) => {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.min(sorted.length - 1, Math.floor(p * sorted.length))];
};

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
console.log(`${queries.length} queries x ${ROUNDS} rounds, typed ${KEY_DELAY} ms apart, Chromium ${browser.version()}`);

async function typeQuery(page, query) {
  await page.fill('#q', '');
  await page.waitForTimeout(800);
  const before = await page.evaluate(() => Math.max(0, ...window.kestPaint.map((p) => p.serial)));
  await page.locator('#q').pressSequentially(query, { delay: KEY_DELAY });
  // The first results of the whole text the user sees: those of the last
  // keystroke, or the full search's when the pause sent it before the last
  // keystroke's search was answered (which it then overtakes).
  const wait = (kinds) => page.waitForFunction(([q, n, k]) => window.kestPaint.find(
    (p) => k.includes(p.kind) && p.text === q && p.serial > n), [query, before, kinds], { timeout: 60000 })
    .then((handle) => handle.jsonValue(), async (error) => {
      // Say which query and what the page shows, not only that it waited.
      const shown = await page.evaluate(() => ({
        summary: document.querySelector('#summary')?.textContent,
        notice: [...document.querySelectorAll('[role=alert], .error, #notice')].map((e) => e.textContent).join(' | '),
        painted: window.kestPaint.slice(-3),
      }));
      throw new Error(`no ${kinds} paint for "${query}": ${JSON.stringify(shown)} (${error.message})`);
    });
  const typing = await wait(['typing', 'full']);
  const full = await wait(['full']);
  const keystrokes = await page.evaluate((n) => window.kestPaint.filter((p) => p.kind === 'typing' && p.serial > n).length, before);
  return { typing, full, keystrokes };
}

const only = process.env.KEST_ONLY;  // one user's name, to run only that one
for (const [user, role] of [['carol', 'administrator'], ['ann', 'ordinary user']]) {
  if (only && only !== user) continue;
  const page = await browser.newPage({ viewport: { width: 1200, height: 900 } });
  await page.goto(process.env.KEST_URL);
  await page.fill('#login-account', user);
  await page.fill('#login-password', USERS[user]);
  await page.click('#login-submit');
  await page.locator('#app-view').waitFor();
  await typeQuery(page, queries[0]);  // warms the caches
  const sent = [], fromKey = [], answer = [], full = [];
  let painted = 0, overtaken = 0;
  for (let round = 0; round < ROUNDS; round += 1) {
    for (const query of queries) {
      const result = await typeQuery(page, query);
      sent.push(result.typing.ms);
      fromKey.push(result.typing.fromKey);
      answer.push(result.typing.answer);
      full.push(result.full.ms);
      painted += result.keystrokes;
      if (result.typing.kind === 'full') overtaken += 1;
    }
  }
  const line = (label, values) => `  ${label.padEnd(52)} p50 ${percentile(values, 0.5).toFixed(1)} ms  p95 ${percentile(values, 0.95).toFixed(1)} ms`;
  console.log(`${user} (${role}), ${sent.length} queries, ${painted} keystroke searches painted, `
    + `${overtaken} last keystrokes first painted by the pause's full search:`);
  console.log(line('last keystroke: key to results painted', fromKey));
  console.log(line('last keystroke: search sent to results painted', sent));
  console.log(line('last keystroke: search sent to answer received', answer));
  console.log(line('full search (fragments): sent to painted', full));
  await page.close();
}
await browser.close();
