// Small DOM helpers. Every piece of text, the server's included, goes into the
// page as a text node or an attribute value: the console never parses markup.

// Makes element `tag`. `attributes`: "class", "for", "aria-*", "data-*" and the
// like become attributes; keys starting with "on" are event listeners; the
// rest ("type", "value", "checked", "disabled", ...) are set as properties.
// Children are nodes or strings (added as text); null and false are skipped.
export function h(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes)) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith('on') && typeof value === 'function') {
      element.addEventListener(key.slice(2), value);
    } else if (key === 'class' || key === 'for' || key === 'role' || key.startsWith('aria-') ||
               key.startsWith('data-') || key === 'list' || key === 'form') {
      element.setAttribute(key, String(value));
    } else {
      element[key] = value;
    }
  }
  append(element, children);
  return element;
}

function append(element, children) {
  for (const child of children) {
    if (child === null || child === undefined || child === false) continue;
    if (Array.isArray(child)) append(element, child);
    else if (child instanceof Node) element.appendChild(child);
    else element.appendChild(document.createTextNode(String(child)));
  }
}

// Replaces the element's children with `children`.
export function fill(element, ...children) {
  element.replaceChildren();
  append(element, children);
  return element;
}

// A byte count in words: "512 bytes", "4.2 MiB".
export function formatBytes(value) {
  const bytes = Number(value);
  if (!Number.isFinite(bytes)) return '';
  if (bytes < 1024) return `${bytes} bytes`;
  const units = ['KiB', 'MiB', 'GiB', 'TiB'];
  let amount = bytes / 1024;
  let unit = 0;
  while (amount >= 1024 && unit < units.length - 1) {
    amount /= 1024;
    unit += 1;
  }
  return `${amount.toFixed(1)} ${units[unit]}`;
}

// "failed_mailboxes" -> "Failed mailboxes".
export function keyLabel(key) {
  const words = String(key).replace(/_/g, ' ');
  return words.charAt(0).toUpperCase() + words.slice(1);
}

// Shows `error` (an Error or a string) in words in `element`, or clears it.
export function showError(element, error) {
  if (!error) {
    fill(element);
    element.hidden = true;
    return;
  }
  fill(element, typeof error === 'string' ? error : error.message || String(error));
  element.hidden = false;
}

// Runs `work` with `button` disabled, so that a request is not sent twice.
export async function busy(button, work) {
  button.disabled = true;
  try {
    return await work();
  } finally {
    button.disabled = false;
  }
}
