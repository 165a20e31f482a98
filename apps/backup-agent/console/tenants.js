// Tenants: the registry's list, a connection test per tenant, and the form that
// adds a registration (and can test its credentials before adding them).

import {h, fill, showError, busy} from './dom.js';

const $ = (id) => document.getElementById(id);

const fields = ['tenant_id', 'client_id', 'client_secret', 'tenant_email', 'ms_login_endpoint',
                'ms_graph_endpoint', 'ews_endpoint'];

function test_outcome(name, result) {
  if (result && result.result === true) return `Connection test of ${name}: succeeded.`;
  const reason = result && typeof result.message === 'string' && result.message ? result.message : 'no reason given';
  return `Connection test of ${name}: failed: ${reason}`;
}

export function init_tenants(context) {
  const list = $('tenants-list');
  const error = $('tenants-error');
  const outcome = $('tenant-test-result');

  // The agent never hands a registration's secret out, and the connection test
  // takes the whole registration: the secret is asked for each test and sent
  // with the listed fields, then forgotten.
  let testing = null;  // the tenant row whose secret is being asked for

  function ask_secret(tenant, name) {
    const prompt = $('tenant-test');
    const input = $('tenant-test-secret');
    fill($('tenant-test-title'), `Test the connection of ${name}`);
    fill(outcome);
    showError(error, null);
    input.value = '';
    prompt.hidden = false;
    testing = tenant;
    input.focus();
  }

  $('tenant-test-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    if (!testing) return;
    const tenant = testing;
    const name = tenant.tenant_email || tenant.tenant_id;
    const input = $('tenant-test-secret');
    const entry = {...tenant, client_secret: input.value};
    fill(outcome, `Testing ${name}…`);
    showError(error, null);
    try {
      const result = await busy(event.submitter || $('tenant-test-run'),
                                () => context.call('exchange.test_auth', entry));
      fill(outcome, test_outcome(name, result));
      input.value = '';
      $('tenant-test').hidden = true;
      testing = null;
    } catch (failure) {
      fill(outcome);
      showError(error, failure);
    }
  });
  $('tenant-test-cancel').addEventListener('click', () => {
    $('tenant-test-secret').value = '';
    $('tenant-test').hidden = true;
    testing = null;
  });

  function render(rows) {
    if (rows.length === 0) {
      fill(list, h('p', {}, 'No tenant is registered yet: add one below.'));
      return;
    }
    const body = h('tbody');
    for (const tenant of rows) {
      const name = tenant.tenant_email || tenant.tenant_id;
      const test_button = h('button', {type: 'button', 'aria-label': `Test connection of ${name}`},
                            'Test connection');
      test_button.addEventListener('click', () => ask_secret(tenant, name));
      const open_button = h('button', {type: 'button', 'aria-label': `Mailboxes of ${name}`,
                                       onclick: () => context.select_tenant(tenant)}, 'Mailboxes');
      body.appendChild(h('tr', {'data-uuid': tenant.uuid},
                         h('td', {}, tenant.tenant_email),
                         h('td', {}, tenant.tenant_id),
                         h('td', {}, tenant.client_id),
                         h('td', {}, tenant.ews_endpoint),
                         h('td', {class: 'actions'}, test_button, ' ', open_button)));
    }
    fill(list, h('table', {},
                 h('caption', {}, `${rows.length} registered tenant${rows.length === 1 ? '' : 's'}`),
                 h('thead', {}, h('tr', {}, h('th', {scope: 'col'}, 'Administrator'),
                                  h('th', {scope: 'col'}, 'Tenant ID'), h('th', {scope: 'col'}, 'Client ID'),
                                  h('th', {scope: 'col'}, 'EWS endpoint'), h('th', {scope: 'col'}, 'Actions'))),
                 body));
  }

  async function refresh() {
    showError(error, null);
    try {
      const result = await context.call('agent.list_tenants');
      render(Array.isArray(result.rows) ? result.rows : []);
    } catch (failure) {
      showError(error, failure);
    }
  }

  const form = $('tenant-add-form');
  const add_outcome = $('tenant-add-outcome');
  const add_error = $('tenant-add-error');

  function registration() {
    const data = new FormData(form);
    const entry = {};
    for (const field of fields) entry[field] = String(data.get(field) || '').trim();
    return entry;
  }

  $('tenant-add-test').addEventListener('click', async (event) => {
    if (!form.reportValidity()) return;
    fill(add_outcome);
    showError(add_error, null);
    const entry = registration();
    try {
      const result = await busy(event.currentTarget, () => context.call('exchange.test_auth', entry));
      fill(add_outcome, test_outcome(entry.tenant_email, result));
    } catch (failure) {
      showError(add_error, failure);
    }
  });

  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    fill(add_outcome);
    showError(add_error, null);
    const entry = registration();
    try {
      const result = await busy(event.submitter || form.querySelector('button[type=submit]'),
                                () => context.call('agent.add_tenant', entry));
      fill(add_outcome, `Tenant ${entry.tenant_email} added (${result.uuid}).`);
      form.reset();  // the secret is not kept on the page
      await refresh();
    } catch (failure) {
      showError(add_error, failure);
    }
  });

  return {refresh};
}
