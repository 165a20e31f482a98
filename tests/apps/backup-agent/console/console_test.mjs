// The console's browser test. Starts a real backupd (pool "main"), exo-sim
// with the demo tenant and `backup-agent serve` on loopback ports, then drives
// the console in headless Debian chromium through playwright-core: signs in
// (a wrong key first), adds the demo tenant (a refused registration and a wrong
// secret first) and tests it, lists, pages and searches its mailboxes, expands
// live folders, backs a mailbox up, browses the new set, restores an item and a
// folder into another mailbox (and the folder again, which is refused) and
// finds them there among the live folders, signs out, and last sees a call to
// the stopped agent fail in words.
// Every step saves a screenshot under --screenshots; a step fails when the text
// it waits for does not show up (the waits only bound how long that may take).
//
//   node console_test.mjs --agent=PATH --module=PATH --backupd=PATH --exo-sim=PATH
//                         --console=DIR --screenshots=DIR --npm-dir=DIR

import {spawn} from 'node:child_process';
import {createRequire} from 'node:module';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const options = Object.fromEntries(process.argv.slice(2).map((arg) => {
  const match = /^--([^=]+)=(.*)$/.exec(arg);
  if (!match) throw new Error(`unexpected argument ${arg}`);
  return [match[1], match[2]];
}));
for (const name of ['agent', 'module', 'backupd', 'exo-sim', 'console', 'screenshots', 'npm-dir']) {
  if (!options[name]) {
    console.error(`console_test.mjs: --${name}=... is required`);
    process.exit(64);
  }
}

const {chromium} = createRequire(path.join(options['npm-dir'], 'package.json'))('playwright-core');

const demo = {
  tenant_id: '8d7a4f52-6c1b-4e0a-9f3d-2b5c7e9a1d04',
  client_id: '3f2b8c1e-5a4d-4c6f-8e7b-9a0d1c2e3f45',
  secret: 'exo-sim-demo-secret',
  admin: 'admin@demo.exosim.test',
};
const source_mailbox = 'alice.archer@demo.exosim.test';
const target_mailbox = 'bruno.brandt@demo.exosim.test';
const relocation = 'Restored by the console test';
const folder_relocation = 'Folder restored by the console test';
const wait_ms = 20000;  // how long a step may take before it counts as failed

const work = fs.mkdtempSync(path.join(os.tmpdir(), 'console_test_'));
const children = [];

// Starts `program` with `args`; resolves to the child and the HOST:PORT it
// prints on its "listening on HOST:PORT" line.
function start(name, program, args) {
  const out = fs.openSync(path.join(work, `${name}.err`), 'w');
  const child = spawn(program, args, {stdio: ['ignore', 'pipe', out]});
  children.push({name, child});
  let seen = '';
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`${name} did not start listening:\n${log_tail(name)}`)), 15000);
    child.stdout.on('data', (chunk) => {
      seen += chunk.toString();
      const match = /listening on (\S+:\d+)/.exec(seen);
      if (match) {
        clearTimeout(timer);
        child.stdout.resume();
        resolve(match[1]);
      }
    });
    child.on('exit', (code) => {
      clearTimeout(timer);
      reject(new Error(`${name} exited with ${code} before listening:\n${log_tail(name)}`));
    });
  });
}

function log_tail(name, file = `${name}.err`) {
  try {
    return fs.readFileSync(path.join(work, file), 'utf8').split('\n').slice(-20).join('\n');
  } catch {
    return '';
  }
}

// Runs `program` to its end; resolves to its standard output.
function run(program, args) {
  return new Promise((resolve, reject) => {
    const child = spawn(program, args, {stdio: ['ignore', 'pipe', 'pipe']});
    let out = '';
    let err = '';
    child.stdout.on('data', (chunk) => { out += chunk; });
    child.stderr.on('data', (chunk) => { err += chunk; });
    child.on('exit', (code) => code === 0 ? resolve(out) : reject(new Error(`${program} ${args.join(' ')}: ${err}`)));
  });
}

// Stops `child` (SIGTERM, SIGKILL after 5 s) and waits for its end.
function stop(child) {
  return new Promise((resolve) => {
    if (child.exitCode !== null || child.signalCode !== null) return resolve();
    child.once('exit', resolve);
    child.kill('SIGTERM');
    setTimeout(() => child.kill('SIGKILL'), 5000).unref();
  });
}

async function stop_all() {
  await Promise.all(children.map(({child}) => stop(child)));
}

async function start_servers() {
  const keys = path.join(work, 'keys');
  const access_key = 'console-test-access-key-0123456789';
  fs.writeFileSync(keys, `${access_key}\n`, {mode: 0o600});
  const data = path.join(work, 'backupd');
  fs.mkdirSync(data);
  const pool = (await run(options.backupd, ['pool', 'add', '--data', data, '--name', 'main'])).trim();
  const backupd = await start('backupd', options.backupd,
                              ['--data', data, '--access-key-file', keys, '--listen', '127.0.0.1:0']);
  const sim = await start('exo-sim', options['exo-sim'], ['--profile', 'demo']);

  const config = path.join(work, 'agent.json');
  fs.writeFileSync(config, JSON.stringify({
    state_dir: path.join(work, 'state'), log_file: path.join(work, 'agent.log'), host_id: 'console-test-host',
    backup_server: {url: `http://${backupd}`, access_key}}));
  const api_key = (await run(options.agent, ['--module', options.module, '--config', config, 'serve', '--print-key'])).trim();
  if (!api_key) throw new Error('serve --print-key printed no key');
  const agent = await start('agent', options.agent, ['--module', options.module, '--config', config, 'serve',
                                                     '--listen', '127.0.0.1:0', '--console-dir', options.console]);
  return {pool, sim: `http://${sim}`, agent: `http://${agent}`, api_key};
}

let page = null;
let shot = 0;

async function screenshot(name) {
  shot += 1;
  const file = path.join(options.screenshots, `${String(shot).padStart(2, '0')}-${name}.png`);
  await page.screenshot({path: file, fullPage: true});
}

// Runs one step of the walk-through; a screenshot shows where it ended.
async function step(name, work_of_step) {
  process.stdout.write(`step: ${name}\n`);
  try {
    await work_of_step();
  } catch (failure) {
    await screenshot(`FAILED-${name}`).catch(() => {});
    throw new Error(`step "${name}" failed: ${failure.message}`);
  }
  await screenshot(name);
}

// Waits until `locator` is visible (the first match when several are).
async function visible(locator) {
  await locator.first().waitFor({state: 'visible', timeout: wait_ms});
}

// Waits until text `text` (a string or a RegExp) is visible inside `scope`.
async function shows(scope, text) {
  await visible(scope.getByText(text));
}

// The list of child nodes of folder button `button` (its aria-controls).
async function subtree(button) {
  const id = await button.getAttribute('aria-controls', {timeout: wait_ms});
  return page.locator(`[id="${id}"]`);
}

async function walk_through(servers) {
  const browser = await chromium.launch({executablePath: '/usr/bin/chromium', headless: true});
  try {
    const browser_context = await browser.newContext({viewport: {width: 1280, height: 900}});
    page = await browser_context.newPage();
    const page_errors = [];
    page.on('pageerror', (error) => page_errors.push(error.message));
    page.on('console', (message) => {
      if (message.type() === 'error' && /Content Security Policy/.test(message.text())) page_errors.push(message.text());
    });

    await step('sign-in-refused', async () => {
      await page.goto(servers.agent + '/');
      await page.getByLabel('API key').fill('not-the-key');
      await page.getByRole('button', {name: 'Sign in'}).click();
      await shows(page.locator('#sign-in-error'), 'The API key was not accepted');
    });

    await step('signed-in', async () => {
      await page.getByLabel('API key').fill(servers.api_key);
      await page.getByRole('button', {name: 'Sign in'}).click();
      await shows(page.locator('#tenants'), 'No tenant is registered yet');
      await shows(page.locator('#sets'), 'No backup set yet.');
      const stored = await page.evaluate(() => ({local: localStorage.length, session: Object.values(sessionStorage)}));
      if (stored.local !== 0 || !stored.session.includes(servers.api_key)) {
        throw new Error('the key is not kept in sessionStorage alone');
      }
    });

    // The agent refuses the registration and its message quotes the tenant id:
    // the message must show as text, the markup in it never as an element.
    const form = page.locator('#tenant-add-form');
    const markup = '<img src="x" onerror="window.injected = true">';
    await step('tenant-refused', async () => {
      await page.getByText('Add a tenant registration').click();
      await form.getByLabel('Tenant (directory) ID').fill(markup);
      await form.getByLabel('Application (client) ID').fill(demo.client_id);
      await form.getByLabel('Client secret').fill(demo.secret);
      await form.getByLabel('Administrator e-mail').fill(demo.admin);
      await form.getByLabel('Login endpoint').fill(servers.sim);
      await form.getByLabel('Microsoft Graph endpoint').fill(servers.sim);
      await form.getByLabel('EWS endpoint').fill(`${servers.sim}/EWS/Exchange.asmx`);
      await form.getByRole('button', {name: 'Add tenant'}).click();
      const error = page.locator('#tenant-add-error');
      await shows(error, `the tenant id '${markup}' is neither a directory id nor a domain name`);
      if (await page.locator('img').count() !== 0 || await page.evaluate(() => window.injected === true)) {
        throw new Error('text from the agent became markup');
      }
    });

    await step('tenant-wrong-secret', async () => {
      await form.getByLabel('Tenant (directory) ID').fill(demo.tenant_id);
      await form.getByLabel('Application (client) ID').fill(demo.client_id);
      await form.getByLabel('Client secret').fill('not-the-secret');
      await form.getByLabel('Administrator e-mail').fill(demo.admin);
      await form.getByLabel('Login endpoint').fill(servers.sim);
      await form.getByLabel('Microsoft Graph endpoint').fill(servers.sim);
      await form.getByLabel('EWS endpoint').fill(`${servers.sim}/EWS/Exchange.asmx`);
      await form.getByRole('button', {name: 'Test these credentials'}).click();
      await shows(page.locator('#tenant-add-outcome'), `Connection test of ${demo.admin}: failed: `);
    });

    await step('tenant-added', async () => {
      await form.getByLabel('Client secret').fill(demo.secret);
      await form.getByRole('button', {name: 'Test these credentials'}).click();
      await shows(page.locator('#tenant-add-outcome'), `Connection test of ${demo.admin}: succeeded.`);
      await form.getByRole('button', {name: 'Add tenant'}).click();
      await shows(page.locator('#tenant-add-outcome'), `Tenant ${demo.admin} added`);
      await shows(page.locator('#tenants-list'), '1 registered tenant');
      await shows(page.locator('#tenants-list'), demo.tenant_id);
    });

    await step('tenant-tested', async () => {
      await page.getByRole('button', {name: `Test connection of ${demo.admin}`}).click();
      const test_form = page.locator('#tenant-test-form');
      await test_form.getByLabel('Client secret').fill(demo.secret);
      await test_form.getByRole('button', {name: 'Run test'}).click();
      await shows(page.locator('#tenant-test-result'), `Connection test of ${demo.admin}: succeeded.`);
    });

    const mailboxes = page.locator('#mailboxes-list');
    const count = page.locator('#mailboxes-count');
    await step('mailboxes-page-1', async () => {
      await page.getByRole('button', {name: `Mailboxes of ${demo.admin}`}).click();
      await shows(page.locator('#mailboxes-title'), `Mailboxes of ${demo.admin}`);
      await shows(mailboxes, source_mailbox);
      await page.getByLabel('Per page').selectOption('5');
      await shows(count, /^Mailboxes 1–5( of \d+)?\.$/);
      if (await mailboxes.locator(':scope > li').count() !== 5) throw new Error('page 1 does not list 5 mailboxes');
    });

    await step('mailboxes-page-2', async () => {
      await page.getByRole('button', {name: 'Next page'}).click();
      await shows(count, /^Mailboxes 6–\d+( of \d+)?\.$/);
      await shows(mailboxes, 'kenji.kato@');
      if (await mailboxes.getByText(source_mailbox).count() !== 0) throw new Error('page 2 repeats page 1');
      await page.getByRole('button', {name: 'Previous page'}).click();
      await shows(count, /^Mailboxes 1–5/);
      await shows(mailboxes, source_mailbox);
    });

    await step('mailboxes-search', async () => {
      await page.getByLabel('Search mailboxes').fill('alice');
      await page.getByRole('button', {name: 'Search', exact: true}).click();
      await shows(count, /matching "alice"\.$/);
      await shows(mailboxes, source_mailbox);
      if (await mailboxes.locator(':scope > li').count() !== 1) throw new Error('the search lists other mailboxes');
    });

    const alice = mailboxes.locator(`li[data-mailbox="${source_mailbox}"]`);
    await step('live-folders', async () => {
      await alice.getByRole('button', {name: `Folders of ${source_mailbox}`}).click();
      await visible(alice.getByRole('button', {name: 'Inbox', exact: true}));
      await visible(alice.getByRole('button', {name: 'Sent Items', exact: true}));
      await alice.getByRole('button', {name: 'Inbox', exact: true}).click();
      await visible(alice.getByRole('button', {name: 'Empty', exact: true}));
      await alice.getByRole('button', {name: 'Empty', exact: true}).click();
      await shows(alice, 'No subfolders.');
    });

    await step('backup-finished', async () => {
      await alice.getByRole('checkbox', {name: source_mailbox}).check();
      await shows(page.locator('#backup-selection'), `Selected: ${source_mailbox}.`);
      await page.getByLabel('Storage pool').selectOption(servers.pool);
      await page.getByRole('button', {name: 'Start backup'}).click();
      const job = page.locator('#backup-jobs article').first();
      await visible(job.locator('progress'));
      await job.getByText(/^Backup succeeded: 1 of 1 mailboxes/).waitFor({timeout: 45000});
      await shows(job.locator('dt'), 'Backup set');
    });

    const sets = page.locator('#sets-list');
    const browse = page.locator('#browse');
    await step('set-browsed', async () => {
      await shows(sets, '1 backup set, newest first');
      await shows(sets, source_mailbox);
      await sets.getByRole('button', {name: /^Browse set /}).click();
      await browse.getByRole('button', {name: source_mailbox}).click();
      const tree = page.locator('#browse-tree');
      await tree.getByRole('button', {name: 'Inbox', exact: true}).click();
      await visible(tree.getByRole('button', {name: 'Empty', exact: true}));
      await visible(tree.locator('li.item'));
    });

    await step('item-restored', async () => {
      const tree = page.locator('#browse-tree');
      const inbox = await subtree(tree.getByRole('button', {name: 'Inbox', exact: true}));
      await inbox.locator(':scope > li.item input[type=radio]').first().check();
      await shows(page.locator('#restore-selection'), /^Selected: item ".*" in Inbox of /);
      await page.getByLabel('Into mailbox').fill(target_mailbox);
      await page.getByLabel('Under the folder').fill(relocation);
      await page.getByRole('button', {name: 'Start restore'}).click();
      const job = page.locator('#restore-jobs article').first();
      await job.getByText(/^Restore succeeded/).waitFor({timeout: 30000});
      await shows(job, 'Items restored');
      const restored = job.locator('dt', {hasText: /^Items restored$/}).locator('xpath=following-sibling::dd[1]');
      if ((await restored.textContent()).trim() !== '1') throw new Error('the restore summary does not count 1 item');
    });

    // A folder of the set: the first subfolder of Inbox, whatever its name.
    let folder_name = '';
    await step('folder-restored', async () => {
      const tree = page.locator('#browse-tree');
      const inbox = await subtree(tree.getByRole('button', {name: 'Inbox', exact: true}));
      const first = inbox.locator(':scope > li.folder').first();
      folder_name = (await first.locator(':scope > button.folder').textContent()).trim();
      await first.locator(':scope > input[type=radio]').check();
      await shows(page.locator('#restore-selection'), `Selected: folder Inbox / ${folder_name} of ${source_mailbox}.`);
      await page.getByLabel('Under the folder').fill(folder_relocation);
      await page.getByRole('button', {name: 'Start restore'}).click();
      const job = page.locator('#restore-jobs article').first();
      await job.getByText(/^Restore succeeded/).waitFor({timeout: 30000});
      await shows(job, `Restore of folder Inbox / ${folder_name} from ${source_mailbox} into ${target_mailbox}`);
    });

    // The same restore again: its relocation folder exists now, and a restore
    // never merges into an existing folder, so the job fails and says why.
    await step('restore-refused', async () => {
      await page.getByRole('button', {name: 'Start restore'}).click();
      const job = page.locator('#restore-jobs article').first();
      await job.getByText(/^Restore failed: \S.* \(/).waitFor({timeout: 30000});
    });

    await step('restored-in-target', async () => {
      await page.getByLabel('Search mailboxes').fill('bruno');
      await page.getByRole('button', {name: 'Search', exact: true}).click();
      const bruno = mailboxes.locator(`li[data-mailbox="${target_mailbox}"]`);
      await visible(bruno);
      await bruno.getByRole('button', {name: `Folders of ${target_mailbox}`}).click();
      const restored = bruno.getByRole('button', {name: relocation, exact: true});
      await restored.click();
      await visible((await subtree(restored)).getByRole('button', {name: 'Inbox', exact: true}));
      const folder_root = bruno.getByRole('button', {name: folder_relocation, exact: true});
      await folder_root.click();
      const moved_inbox = (await subtree(folder_root)).getByRole('button', {name: 'Inbox', exact: true});
      await moved_inbox.click();
      const moved = await subtree(moved_inbox);
      await visible(moved.getByRole('button', {name: folder_name, exact: true}));
    });

    await step('signed-out', async () => {
      await page.getByRole('button', {name: 'Sign out'}).click();
      await visible(page.getByLabel('API key'));
      if (await page.locator('#workspace').isVisible()) throw new Error('the workspace is still shown');
      await page.reload();
      await visible(page.getByLabel('API key'));
      if (await page.evaluate(() => sessionStorage.length) !== 0) throw new Error('the key outlived the sign-out');
    });

    // With the agent gone, a call fails for want of a connection and says so.
    await step('agent-unreachable', async () => {
      await stop(children.find(({name}) => name === 'agent').child);
      await page.getByLabel('API key').fill(servers.api_key);
      await page.getByRole('button', {name: 'Sign in'}).click();
      await shows(page.locator('#sign-in-error'), 'The agent cannot be reached');
    });

    if (page_errors.length) throw new Error(`the page raised errors: ${page_errors.join('; ')}`);
  } finally {
    await browser.close();
  }
}

let status = 0;
try {
  fs.mkdirSync(options.screenshots, {recursive: true});
  for (const old of fs.readdirSync(options.screenshots)) fs.rmSync(path.join(options.screenshots, old));
  const servers = await start_servers();
  await walk_through(servers);
  console.log(`passed: ${shot} steps, screenshots in ${options.screenshots}`);
} catch (failure) {
  status = 1;
  console.error(`FAILED: ${failure.message}`);
  for (const {name} of children) console.error(`--- ${name}, last lines of its standard error:\n${log_tail(name)}`);
  console.error(`--- the agent's log, last lines:\n${log_tail('agent', 'agent.log')}`);
} finally {
  await stop_all();
  fs.rmSync(work, {recursive: true, force: true});
}
process.exit(status);
