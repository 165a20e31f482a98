// A running job's panel: a progress bar fed by agent.job_status, polled until
// the job ends, then the job's summary.

import {h, fill, formatBytes, keyLabel} from './dom.js';

const poll_ms = 500;
const final_words = {
  succeeded: 'succeeded',
  partial: 'finished with failures',
  failed: 'failed',
  cancelled: 'was cancelled',
};

function progress_text(progress) {
  const parts = [];
  if (progress.mailboxes_total > 0) parts.push(`${progress.mailboxes_done} of ${progress.mailboxes_total} mailboxes`);
  if (progress.items !== undefined) parts.push(`${progress.items} items`);
  if (progress.bytes !== undefined) parts.push(formatBytes(progress.bytes));
  if (progress.elapsed_s !== undefined) parts.push(`${Math.round(Number(progress.elapsed_s))} s`);
  return parts.join(', ');
}

function value_text(key, value) {
  if (value === null || value === undefined || value === '') return 'none';
  if (typeof value === 'boolean') return value ? 'yes' : 'no';
  if (typeof value === 'number' && /bytes/.test(key)) return `${formatBytes(value)} (${value} bytes)`;
  if (typeof value === 'number' && /seconds|_s$/.test(key)) return `${value.toFixed(1)} s`;
  return String(value);
}

// Labels of summary keys that read badly as they are; the others are shown by
// their key ("items_restored" -> "Items restored").
const labels = {
  set_uuid: 'Backup set',
  rev: 'Revision',
  bytes: 'Item data',
  bytes_stored: 'Stored',
  duration_seconds: 'Duration',
  job_log: 'Job log',
};

function label(key) {
  return labels[key] || keyLabel(key);
}

// The summary in words: one row per key, lists for arrays.
export function summary_view(summary) {
  const list = h('dl', {class: 'summary'});
  for (const [key, value] of Object.entries(summary)) {
    let shown;
    if (Array.isArray(value)) {
      if (value.length === 0) shown = 'none';
      else shown = h('ul', {}, value.map((entry) => h('li', {}, entry !== null && typeof entry === 'object'
        ? Object.entries(entry).map(([k, v]) => `${label(k)}: ${value_text(k, v)}`).join('; ')
        : value_text(key, entry))));
    } else if (value !== null && typeof value === 'object') {
      shown = summary_view(value);
    } else {
      shown = value_text(key, value);
    }
    list.append(h('dt', {}, label(key)), h('dd', {}, shown));
  }
  return list;
}

// Follows job `job_id` in a new panel at the top of `container`; resolves to the
// final status (null when the job could no longer be followed).
export async function watch_job(context, container, job_id, title) {
  const bar = h('progress', {max: 1, 'aria-label': `${title}: progress`});
  const status = h('p', {class: 'job-status', 'aria-live': 'polite'}, 'Starting…');
  const details = h('div');
  const panel = h('article', {class: 'job', 'data-job': job_id, 'aria-label': title},
                  h('h4', {}, title), bar, status, details);
  container.prepend(panel);

  let failures = 0;
  for (;;) {
    let job;
    try {
      job = await context.call('agent.job_status', {job_id});
      failures = 0;
    } catch (failure) {
      failures += 1;
      if (failure.kind === 'unauthorized' || failure.kind === 'rpc' || failures >= 5) {
        fill(status, `The job can no longer be followed: ${failure.message}`);
        status.classList.add('error');
        return null;
      }
      fill(status, `${failure.message} Trying again…`);
      await new Promise((resolve) => setTimeout(resolve, poll_ms * 2 * failures));
      continue;
    }
    const progress = job.progress || {};
    if (progress.mailboxes_total > 0) {
      bar.max = progress.mailboxes_total;
      bar.value = Math.min(progress.mailboxes_done, progress.mailboxes_total);
    } else {
      bar.removeAttribute('value');  // indeterminate until the total is known
    }
    const kind = job.kind === 'restore' ? 'Restore' : 'Backup';
    if (job.state === 'running') {
      fill(status, `${kind} running: ${progress_text(progress)}`);
      await new Promise((resolve) => setTimeout(resolve, poll_ms));
      continue;
    }
    if (job.state === 'succeeded') {
      bar.max = 1;
      bar.value = 1;
    }
    const words = final_words[job.state] || `ended (${job.state})`;
    const reason = typeof job.error === 'string' && job.error ? job.error : '';
    fill(status, reason ? `${kind} ${words}: ${reason} (${progress_text(progress)})`
                        : `${kind} ${words}: ${progress_text(progress)}`);
    panel.classList.add(`job-${job.state}`);
    if (job.summary && typeof job.summary === 'object') {
      fill(details, h('h5', {}, 'Summary'), summary_view(job.summary));
    }
    return job;
  }
}
