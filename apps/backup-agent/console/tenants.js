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

  async function test(tenant, button) {
    fill(outcome, `Testing ${tenant.tenant_email}…`);
    showError(error, null);
    try {
      // The registry's copy of the registration, secret included, is what the
      // agent tests when the request names the tenant by uuid.
      const result = await busy(button, () => context.call('exchange.test_auth', tenant));
      fill(outcome, test_outcome(tenant.tenant_email, result));
    } catch (failure) {
      fill(outcome);
      showError(error, failure);
    }
  }

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
      test_button.addEventListener('click', () => test(tenant, test_button));
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
      $('tenant-secret').value = '';
      await refresh();
    } catch (failure) {
      showError(add_error, failure);
    }
  });

  return {refresh};
}
