// Backup sets: the catalog's list (of the chosen tenant, when one is chosen),
// browsing a set's mailbox as it was backed up (each folder's subfolders and
// items come from the mailbox's index in the set), and restoring a chosen
// folder or item into a mailbox.

import {h, fill, formatBytes, showError, busy} from './dom.js';
import {render_nodes} from './tree.js';
import {watch_job} from './jobs.js';

const $ = (id) => document.getElementById(id);

export function init_sets(context) {
  const list = $('sets-list');
  const error = $('sets-error');
  const browse_error = $('browse-error');
  const tree = $('browse-tree');
  const selection_text = $('restore-selection');
  const restore_button = $('restore-start');

  let set = null;       // the set being browsed
  let mailbox = '';     // its mailbox being browsed
  let choice = null;    // {kind: "folder", path, names} or {kind: "item", id, subject, names}

  function choose(next) {
    choice = next;
    const where = next.names.join(' / ');
    if (next.kind === 'folder') fill(selection_text, `Selected: folder ${where} of ${mailbox}.`);
    else fill(selection_text, `Selected: item "${next.subject}" in ${where} of ${mailbox}.`);
    restore_button.disabled = false;
  }

  // The child nodes of the folder reached through `ids` (folder ids from the top
  // of the mailbox; none for the top itself) whose display names are `names`.
  function set_folder(ids, names) {
    return async () => {
      const result = await context.call('exchange.browse_set', {
        pool_uuid: set.pool_uuid, catalog_uuid: set.catalog_uuid, uri: set.uri, mailbox,
        parent_entry_ids: ids, rev: set.rev});
      const rows = Array.isArray(result.rows) ? result.rows : [];
      return rows.map((row) => {
        if (typeof row.name === 'string') {
          const chain = [...names, row.name];
          return {kind: 'folder', label: row.name, load: set_folder([...ids, row.entry_id], chain),
                  select: () => choose({kind: 'folder', path: chain.join('/'), names: chain})};
        }
        const subject = typeof row.subject === 'string' && row.subject ? row.subject : '(no subject)';
        return {kind: 'item', label: subject,
                select: () => choose({kind: 'item', id: row.entry_id, subject, names})};
      });
    };
  }

  async function open_mailbox(name, button) {
    mailbox = name;
    choice = null;
    restore_button.disabled = true;
    fill(selection_text, 'Nothing selected: choose a folder or an item above.');
    for (const other of $('browse-mailboxes').querySelectorAll('button')) {
      other.setAttribute('aria-pressed', String(other === button));
    }
    if (!$('restore-to').value) $('restore-to').value = name;
    showError(browse_error, null);
    fill(tree, h('li', {}, 'Loading…'));
    try {
      render_nodes(tree, await set_folder([], [])(),
                   {radio_name: 'restore-choice', empty_text: 'The mailbox has no folders in this set.',
                    empty_children_text: 'Empty folder.'});
    } catch (failure) {
      fill(tree);
      showError(browse_error, failure);
    }
  }

  function browse(chosen) {
    set = chosen;
    mailbox = '';
    choice = null;
    restore_button.disabled = true;
    $('restore-to').value = '';
    $('restore-relocation').value = `Restored ${new Date().toISOString().slice(0, 16).replace('T', ' ')}`;
    fill(selection_text, 'Nothing selected: choose a mailbox, then a folder or an item.');
    fill($('browse-title'), `Browse set ${chosen.time} (revision ${chosen.rev})`);
    fill(tree);
    showError(browse_error, null);
    const mailboxes = Array.isArray(chosen.mailboxes) ? chosen.mailboxes : [];
    fill($('browse-mailboxes'), mailboxes.length === 0 ? 'The set holds no mailbox.' : mailboxes.map((name) => {
      const button = h('button', {type: 'button', 'aria-pressed': 'false'}, name);
      button.addEventListener('click', () => open_mailbox(name, button));
      return button;
    }));
    $('browse').hidden = false;
    $('browse').scrollIntoView({block: 'start'});
  }

  function render(rows) {
    if (rows.length === 0) {
      fill(list, h('p', {}, 'No backup set yet.'));
      return;
    }
    fill(list, h('table', {},
                 h('caption', {}, `${rows.length} backup set${rows.length === 1 ? '' : 's'}, newest first`),
                 h('thead', {}, h('tr', {}, ['Started (UTC)', 'Revision', 'Mailboxes', 'Items', 'Size', 'Failed mailboxes',
                                             'Actions'].map((title) => h('th', {scope: 'col'}, title)))),
                 h('tbody', {}, rows.map((row) => h('tr', {'data-set': row.set_uuid},
                   h('td', {}, row.time),
                   h('td', {}, String(row.rev)),
                   h('td', {}, (row.mailboxes || []).join(', ')),
                   h('td', {}, String(row.items)),
                   h('td', {}, formatBytes(row.bytes)),
                   h('td', {}, (row.failed_mailboxes || []).length ? row.failed_mailboxes.join(', ') : 'none'),
                   h('td', {}, h('button', {type: 'button', 'aria-label': `Browse set ${row.time} revision ${row.rev}`,
                                            onclick: () => browse(row)}, 'Browse')))))));
  }

  async function refresh() {
    showError(error, null);
    const params = context.tenant ? {tenant: context.tenant.uuid} : {};
    try {
      const result = await context.call('agent.list_sets', params);
      render(Array.isArray(result.rows) ? result.rows : []);
    } catch (failure) {
      showError(error, failure);
    }
  }

  $('sets-refresh').addEventListener('click', refresh);
  context.on_tenant(() => refresh());
  context.sets_changed = refresh;

  $('restore-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const restore_error = $('restore-error');
    showError(restore_error, null);
    if (!set || !choice) {
      showError(restore_error, 'Choose a folder or an item of the set first.');
      return;
    }
    const params = {set: set.set_uuid, from: mailbox, to: $('restore-to').value.trim(),
                    relocation: $('restore-relocation').value.trim()};
    if (choice.kind === 'folder') params.path = choice.path;
    else params.items = [choice.id];
    const what = choice.kind === 'folder' ? `folder ${choice.names.join(' / ')}` : `item "${choice.subject}"`;
    try {
      const started = await busy(restore_button, () => context.call('agent.start_restore', params));
      await watch_job(context, $('restore-jobs'), started.job_id,
                      `Restore of ${what} from ${params.from} into ${params.to}`);
    } catch (failure) {
      showError(restore_error, failure);
    }
  });

  return {refresh};
}
