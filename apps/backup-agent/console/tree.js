// A folder tree that loads each folder's children when it is first expanded.
// Folders are disclosure buttons (aria-expanded) over a nested list; items are
// plain entries. Both may carry a radio button that selects them.
//
// A node is {kind: "folder" | "item", label, load?, select?}: `load()` resolves
// to the folder's child nodes; `select` (optional) is called when the node's
// radio button is chosen, the radios of one tree sharing `radio_name`.

import {h, fill} from './dom.js';

let next_list_id = 1;

export function render_nodes(list, nodes, options = {}) {
  if (nodes.length === 0) {
    fill(list, h('li', {class: 'empty'}, options.empty_text || 'No folders.'));
    return;
  }
  fill(list, nodes.map((node) => node.kind === 'folder' ? folder_entry(node, options) : item_entry(node, options)));
}

function radio(node, options) {
  if (!node.select || !options.radio_name) return null;
  const what = node.kind === 'folder' ? 'folder' : 'item';
  return h('input', {type: 'radio', name: options.radio_name, 'aria-label': `Select ${what} ${node.label}`,
                     onchange: () => node.select()});
}

function item_entry(node, options) {
  return h('li', {class: 'item'}, radio(node, options), h('span', {class: 'marker', 'aria-hidden': 'true'}),
           h('span', {class: 'item-label'}, node.label));
}

function folder_entry(node, options) {
  const children = h('ul', {id: `tree-list-${next_list_id++}`, hidden: true});
  const message = h('span', {class: 'tree-message', role: 'status'});
  const toggle = h('button', {type: 'button', class: 'folder', 'aria-expanded': 'false',
                              'aria-controls': children.id},
                   h('span', {class: 'marker', 'aria-hidden': 'true'}), node.label);
  let loaded = false;

  toggle.addEventListener('click', async () => {
    if (toggle.getAttribute('aria-expanded') === 'true') {
      toggle.setAttribute('aria-expanded', 'false');
      children.hidden = true;
      return;
    }
    if (!loaded) {
      toggle.disabled = true;
      fill(message, 'Loading…');
      try {
        render_nodes(children, await node.load(), {...options, empty_text: options.empty_children_text});
        loaded = true;
        fill(message);
      } catch (failure) {
        fill(message, failure.message || String(failure));
        message.classList.add('error');
        return;
      } finally {
        toggle.disabled = false;
      }
      message.classList.remove('error');
    }
    toggle.setAttribute('aria-expanded', 'true');
    children.hidden = false;
  });

  return h('li', {class: 'folder'}, radio(node, options), toggle, ' ', message, children);
}
