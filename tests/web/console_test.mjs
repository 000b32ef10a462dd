// Drives the web console in Debian's chromium through playwright-core (no
// browser download): a router appears, a package is ticked and its
// dependency ticks itself, an address is typed, Install is pressed, the
// progress bar moves and the row ends "Done", and the buttons are enabled
// as the window enables them afterwards. Screenshots at 1366x768 and at
// phone width.
//
// usage: node console_test.mjs BASE_URL SCREENSHOT_DIR [TOKEN]
//   TOKEN: the console asks for it first (serve --web-token), and it is
//   typed once; the session cookie does the rest.
import { chromium } from 'playwright-core';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const [base, shots, token] = process.argv.slice(2);
const mac = '02:00:00:00:00:01';
const profile = mkdtempSync(join(tmpdir(), 'tl-chromium-'));
const fail = (text) => { throw new Error(text); };

const context = await chromium.launchPersistentContext(profile, {
  executablePath: '/usr/bin/chromium',
  headless: true,
  viewport: { width: 1366, height: 768 },
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  timeout: 30000,
});
try {
  const page = context.pages()[0] || await context.newPage();
  page.setDefaultTimeout(20000);
  const errors = [];
  // Every write of the console carries its own header (the server refuses a
  // cookie write without Origin or it).
  const writes = [];
  page.on('request', (r) => {
    if (r.method() !== 'GET' && r.url().includes('/api/')) writes.push([r.method(), r.url(), r.headers()['x-tarnlift']]);
  });
  page.on('pageerror', (e) => errors.push(String(e)));
  page.on('console', (m) => { if (m.type() === 'error') errors.push(m.text()); });
  await page.goto(base + '/');
  if (token) {
    await page.locator('#login').waitFor({ state: 'visible' });
    await page.screenshot({ path: join(shots, 'web_login.png') });
    await page.fill('#token', 'not-the-token');
    await page.press('#token', 'Enter');
    await page.waitForFunction(() => document.querySelector('#login-error').textContent.length > 0);
    // A wrong token costs this address a second before the next try.
    await page.waitForTimeout(1100);
    await page.fill('#token', token);
    await page.press('#token', 'Enter');
    await page.locator('#login').waitFor({ state: 'hidden' });
    const cookies = await context.cookies();
    const session = cookies.find((c) => c.name === 'tarnlift_session');
    if (!session || !session.httpOnly || session.sameSite !== 'Strict') fail('no HttpOnly, SameSite=Strict session cookie');
  }
  const row = page.locator(`#routers tr[data-mac="${mac}"]`);
  await row.waitFor();
  await page.waitForSelector('#connection.on');

  // Select the router from the keyboard.
  await row.focus();
  await page.keyboard.press('Enter');
  await page.locator('#detail').waitFor({ state: 'visible' });
  const box = (file) => page.locator(`#packages input[data-file="${file}"]`);
  await box('extra-6.41.npk').waitFor();
  if (await box('system-6.41.npk').isChecked()) fail('system was ticked before anything was chosen');

  // Ticking "extra" ticks "system", which it needs.
  await box('extra-6.41.npk').check();
  await page.waitForFunction(() => document.querySelector('#packages input[data-file="system-6.41.npk"]')?.checked);

  // A configure script as text: the events name it, the router carries it.
  const script = '/system identity set name=web-test\n';
  await page.fill('#o-configureScriptText', script);
  await page.check('#o-configureScript');
  await page.waitForFunction(() => document.querySelector('#options-error').textContent === '' &&
    document.querySelector('#o-configureScript').checked);
  await page.fill('#o-address', '10.0.0.5/24');
  await page.fill('#o-gateway', '10.0.0.1');
  if (await page.isDisabled('#b-install')) fail('Install is disabled on a Ready router');
  await page.click('#b-install');

  // The progress bar moves, then the row is "Done".
  const seen = new Set();
  let shotTaken = false;
  const deadline = Date.now() + 90000;
  for (;;) {
    const now = Number(await page.getAttribute('#d-progress', 'aria-valuenow'));
    seen.add(now);
    if (!shotTaken && now > 20 && now < 90) {
      await page.screenshot({ path: join(shots, 'web_installing.png') });
      shotTaken = true;
    }
    const status = await row.locator('.status').textContent();
    if (status === 'Done') break;
    if (status === 'Failed') fail('the installation failed');
    if (Date.now() > deadline) fail('no "Done" within 90 s; progress seen: ' + [...seen].join(','));
    await page.waitForTimeout(100);
  }
  if (![...seen].some((p) => p > 0 && p < 100)) fail('the progress bar never stood between 0 and 100: ' + [...seen].join(','));

  // After "Done": Install, Reboot and Shutdown off, Cancel on (the window's rules).
  await page.waitForFunction(() => document.querySelector('#b-install').disabled);
  for (const [id, disabled] of [['#b-install', true], ['#b-reboot', true], ['#b-shutdown', true], ['#b-cancel', false]]) {
    if ((await page.isDisabled(id)) !== disabled) fail(`${id} should be ${disabled ? 'disabled' : 'enabled'} after Done`);
  }
  if ((await page.locator('#log').textContent()).length === 0) fail('the log tail is empty');
  if ((await page.inputValue('#o-configureScriptText')) !== script) fail('the script text went from the form after the events');
  if (writes.length < 3) fail('too few writes seen: ' + JSON.stringify(writes));
  const bare = writes.filter(([, , header]) => header !== '1');
  if (bare.length) fail('writes without X-Tarnlift: ' + JSON.stringify(bare));
  await page.screenshot({ path: join(shots, 'web_console.png') });

  await page.setViewportSize({ width: 390, height: 844 });
  await page.waitForTimeout(300);
  const overflow = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
  if (overflow > 0) fail(`the page is ${overflow} px wider than a phone`);
  await page.screenshot({ path: join(shots, 'web_phone.png'), fullPage: true });
  // A wrong token answers 401, which the browser reports; nothing else may.
  const unexpected = errors.filter((e) => !(token && e.includes('401')));
  if (unexpected.length) fail('errors in the page: ' + unexpected.join('; '));
  console.log('console test passed; progress seen: ' + [...seen].sort((a, b) => a - b).join(','));
} finally {
  await context.close();
  rmSync(profile, { recursive: true, force: true });
}
