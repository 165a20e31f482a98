// A tenant's mailboxes: pages of the directory listing (the agent hands back a
// skip token for the next page), a search, each mailbox's live folders, and a
// backup of the chosen mailboxes.

import {h, fill, showError, busy} from './dom.js';
import {render_nodes} from './tree.js';
import {watch_job} from './jobs.js';

const $ = (id) => document.getElementById(id);

export function init_mailboxes(context) {
  const section = $('mailboxes');
  const list = $('mailboxes-list');
  const error = $('mailboxes-error');
  const count = $('mailboxes-count');
  const previous = $('mailboxes-previous');
  const next = $('mailboxes-next');
  const selection_text = $('backup-selection');

  let tenant = null;
  let search = '';
  // tokens[i] is the skip token that fetches page i (page 0 has none);
  // next_token the one of the page after the shown one, when there is one.
  let tokens = [''];
  let page = 0;
  let next_token = '';
  let total = null;
  let page_size = 25;
  let generation = 0;  // answers to an older listing are dropped
  const selected = new Set();

  function update_selection() {
    if ($('backup-all').checked) fill(selection_text, 'Every mailbox of the tenant will be backed up.');
    else if (selected.size === 0) fill(selection_text, 'No mailbox selected.');
    else fill(selection_text, `Selected: ${[...selected].join(', ')}.`);
  }

  function live_folders(mailbox, entry_id) {
    return async () => {
      const result = await context.call('exchange.list_folders', {uuid: tenant.uuid, mailbox, entry_id});
      const rows = Array.isArray(result.rows) ? result.rows : [];
      return rows.map((row) => ({kind: 'folder', label: row.name, load: live_folders(mailbox, row.entry_id)}));
    };
  }

  function mailbox_entry(mailbox) {
    const id = `mailbox-${Math.random().toString(36).slice(2)}`;
    const check = h('input', {type: 'checkbox', id, checked: selected.has(mailbox), onchange: (event) => {
      if (event.currentTarget.checked) selected.add(mailbox);
      else selected.delete(mailbox);
      update_selection();
    }});
    const tree = h('ul', {class: 'tree'});
    render_nodes(tree, [{kind: 'folder', label: `Folders of ${mailbox}`, load: live_folders(mailbox, '')}],
                 {empty_children_text: 'No subfolders.'});
    return h('li', {'data-mailbox': mailbox}, check, h('label', {for: id}, mailbox), tree);
  }

  async function load(target_page) {
    const mine = ++generation;
    showError(error, null);
    const params = {uuid: tenant.uuid, limit: page_size};
    if (tokens[target_page]) params.skip_token = tokens[target_page];
    if (search) params.search = search;
    previous.disabled = true;
    next.disabled = true;
    fill(count, 'Loading mailboxes…');
    try {
      const result = await context.call('exchange.list_mailboxes', params);
      if (mine !== generation) return;
      page = target_page;
      if (typeof result.total === 'number') total = result.total;
      next_token = typeof result.skip_token === 'string' ? result.skip_token : '';
      tokens = tokens.slice(0, page + 1);
      if (next_token) tokens.push(next_token);
      const rows = Array.isArray(result.rows) ? result.rows : [];
      fill(list, rows.map((row) => mailbox_entry(row.mailbox)));
      const first = page * page_size + 1;
      const shown = rows.length === 0
        ? (search ? `No mailbox matches "${search}".` : 'The tenant has no mailbox.')
        : `Mailboxes ${first}–${first + rows.length - 1}` + (total === null ? '' : ` of ${total}`) +
          (search ? ` matching "${search}"` : '') + '.';
      fill(count, shown);
    } catch (failure) {
      if (mine !== generation) return;
      fill(count);
      showError(error, failure);
    }
    previous.disabled = page === 0;
    next.disabled = !next_token;
  }

  async function load_pools() {
    const select = $('backup-pool');
    try {
      const result = await context.call('agent.list_pools');
      const rows = Array.isArray(result.rows) ? result.rows : [];
      fill(select, rows.map((pool) => h('option', {value: pool.uuid}, `${pool.name} (${pool.uuid})`)));
      if (rows.length === 0) showError($('backup-error'), 'The backup server has no storage pool.');
    } catch (failure) {
      showError($('backup-error'), failure);
    }
  }

  context.on_tenant((chosen) => {
    tenant = chosen;
    search = '';
    tokens = [''];
    total = null;
    selected.clear();
    $('mailbox-search').value = '';
    page_size = Number($('mailbox-page-size').value);
    $('backup-all').checked = false;
    fill($('mailboxes-title'), `Mailboxes of ${tenant.tenant_email || tenant.tenant_id}`);
    section.hidden = false;
    update_selection();
    load(0);
    load_pools();
    section.scrollIntoView({block: 'start'});
  });

  $('mailbox-search-form').addEventListener('submit', (event) => {
    event.preventDefault();
    search = $('mailbox-search').value.trim();
    tokens = [''];
    total = null;
    load(0);
  });
  $('mailbox-page-size').addEventListener('change', (event) => {
    page_size = Number(event.currentTarget.value);
    tokens = [''];
    if (tenant) load(0);
  });
  previous.addEventListener('click', () => load(page - 1));
  next.addEventListener('click', () => load(page + 1));
  $('backup-all').addEventListener('change', update_selection);

  $('backup-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const backup_error = $('backup-error');
    showError(backup_error, null);
    const all = $('backup-all').checked;
    if (!all && selected.size === 0) {
      showError(backup_error, 'Choose at least one mailbox, or every mailbox of the tenant.');
      return;
    }
    const params = {tenant: tenant.uuid, pool: $('backup-pool').value, compression: $('backup-compression').value};
    if (all) params.all_mailboxes = true;
    else params.mailboxes = [...selected];
    const button = $('backup-start');
    try {
      const started = await busy(button, () => context.call('agent.start_backup', params));
      const what = all ? 'every mailbox' : params.mailboxes.join(', ');
      const outcome = await watch_job(context, $('backup-jobs'), started.job_id, `Backup of ${what}`);
      if (outcome) context.sets_changed();
    } catch (failure) {
      showError(backup_error, failure);
    }
  });

  return {};
}
