// The console's entry point: signing in and out, and the context the page's
// parts share (the JSON-RPC call with the session's key, the chosen tenant).

import {rpc_call} from './rpc.js';
import {showError} from './dom.js';
import {init_tenants} from './tenants.js';
import {init_mailboxes} from './mailboxes.js';
import {init_sets} from './sets.js';

const key_name = 'backup-agent.api-key';

const $ = (id) => document.getElementById(id);

const context = {
  tenant: null,  // the tenant row whose mailboxes are shown
  tenant_listeners: [],

  // Calls `method`; a refused key ends the session and asks to sign in again.
  async call(method, params = {}) {
    const key = sessionStorage.getItem(key_name);
    if (!key) {
      show_sign_in('Sign in with the agent\'s API key.');
      throw new Error('Not signed in.');
    }
    try {
      return await rpc_call(key, method, params);
    } catch (error) {
      if (error.kind === 'unauthorized') show_sign_in(error.message);
      throw error;
    }
  },

  select_tenant(tenant) {
    this.tenant = tenant;
    for (const listener of this.tenant_listeners) listener(tenant);
  },

  on_tenant(listener) {
    this.tenant_listeners.push(listener);
  },
};

let parts = null;

function show_sign_in(message) {
  sessionStorage.removeItem(key_name);
  $('workspace').hidden = true;
  $('sign-out').hidden = true;
  $('sign-in').hidden = false;
  showError($('sign-in-error'), message);
  $('api-key').focus();
}

function show_workspace() {
  $('sign-in').hidden = true;
  $('workspace').hidden = false;
  $('sign-out').hidden = false;
  if (!parts) {
    parts = {
      tenants: init_tenants(context),
      mailboxes: init_mailboxes(context),
      sets: init_sets(context),
    };
  }
  parts.tenants.refresh();
  parts.sets.refresh();
}

// A key is accepted when a call made with it is: the tenant list is the first
// thing the workspace shows anyway.
async function sign_in(event) {
  event.preventDefault();
  const input = $('api-key');
  const key = input.value.trim();
  if (!key) return;
  const button = event.submitter || $('sign-in-form').querySelector('button');
  button.disabled = true;
  showError($('sign-in-error'), null);
  try {
    await rpc_call(key, 'agent.list_tenants');
    sessionStorage.setItem(key_name, key);
    input.value = '';
    show_workspace();
  } catch (error) {
    showError($('sign-in-error'), error);
  } finally {
    button.disabled = false;
  }
}

$('sign-in-form').addEventListener('submit', sign_in);
// Reloading forgets every listing the page shows.
$('sign-out').addEventListener('click', () => {
  sessionStorage.removeItem(key_name);
  location.reload();
});

if (sessionStorage.getItem(key_name)) show_workspace();
else show_sign_in(null);
