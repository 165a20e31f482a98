'use strict';
// The S3-compatible server of the storage tests: s3rver (pinned by package-lock.json)
// with what the tests need in front of it:
// - Signature Version 4 is checked in full (s3rver only checks that the key id
//   exists): canonical request, string to sign, signing key, the region, and the
//   payload hash when one was signed;
// - AbortMultipartUpload, "If-None-Match: *" on PutObject and
//   CompleteMultipartUpload, and the ETags and part sizes of a completion are
//   checked as Amazon S3 does (s3rver has none of them);
// - faults armed through POST /__faults (JSON): "drop_part" {part, after_bytes,
//   times} closes the connection during that UploadPart once after_bytes of its
//   body arrived; "slowdown" N answers the next N requests 503 SlowDown;
//   "complete_error" N answers the next N completions 200 with an <Error> body;
//   "complete_lost" N completes the next N uploads and closes the connection
//   instead of answering; "page_size" N lists N keys a page;
// - GET /__stats: counters (requests by operation, bytes sent by GETs, uploads
//   still open) and POST /__reset to zero them.
// Usage: node server.js --modules DIR --dir DATA --bucket B --access-key K
//          --secret-key S [--region R]; prints "listening on 127.0.0.1:PORT".
const crypto = require('crypto');
const fs = require('fs');
const path = require('path');
const { PassThrough } = require('stream');

const args = {};
for (let i = 2; i + 1 < process.argv.length; i += 2) args[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
const region = args.region || 'us-east-1';
const S3rver = require(path.join(args.modules, 'node_modules', 's3rver'));
const he = require(path.join(args.modules, 'node_modules', 'he'));
const AWSAccount = require(path.join(args.modules, 'node_modules', 's3rver', 'lib', 'models', 'account'));
AWSAccount.DUMMY_ACCOUNT.createKeyPair(args['access-key'], args['secret-key']);

const faults = { drop_part: null, slowdown: 0, complete_error: 0, complete_lost: 0, page_size: 0 };
let stats;
function resetStats() {
  stats = { requests: {}, get_bytes: 0 };
}
resetStats();

const sha256 = data => crypto.createHash('sha256').update(data).digest('hex');
const hmac = (key, data) => crypto.createHmac('sha256', key).update(data).digest();
const rfc3986 = text =>
  encodeURIComponent(text).replace(/[!'()*]/g, c => '%' + c.charCodeAt(0).toString(16).toUpperCase());

function xmlError(ctx, status, code, message) {
  ctx.status = status;
  ctx.type = 'application/xml';
  ctx.body = `<?xml version="1.0" encoding="UTF-8"?>\n<Error><Code>${code}</Code><Message>${message}</Message></Error>`;
}

function readBody(req) {
  return new Promise((resolve, reject) => {
    const chunks = [];
    req.on('data', c => chunks.push(c));
    req.on('end', () => resolve(Buffer.concat(chunks)));
    req.on('error', reject);
  });
}

// The request's operation, for the counters and the faults.
function operation(ctx) {
  const q = ctx.query;
  const hasKey = ctx.path.split('/').filter(Boolean).length > 1;
  if (!hasKey) return ctx.method === 'GET' ? 'ListObjects' : ctx.method + 'Bucket';
  if (ctx.method === 'PUT') return 'uploadId' in q ? 'UploadPart' : 'PutObject';
  if (ctx.method === 'POST') return 'uploads' in q ? 'CreateMultipartUpload' : 'CompleteMultipartUpload';
  if (ctx.method === 'DELETE') return 'uploadId' in q ? 'AbortMultipartUpload' : 'DeleteObject';
  return ctx.method === 'HEAD' ? 'HeadObject' : 'GetObject';
}

// Signature Version 4 over the request as it arrived; null when it holds.
function signatureError(ctx, body) {
  const auth = ctx.get('authorization');
  const m = /^AWS4-HMAC-SHA256 Credential=([^/]+)\/(\d{8})\/([^/]+)\/s3\/aws4_request, ?SignedHeaders=([^,]+), ?Signature=([0-9a-f]{64})$/.exec(
    auth,
  );
  if (!m) return 'missing or malformed Signature V4 authorization';
  const [, keyId, day, signedRegion, signedHeaders, signature] = m;
  if (keyId !== args['access-key']) return 'unknown access key id';
  if (signedRegion !== region) return `signed for region ${signedRegion}, not ${region}`;
  const amzDate = ctx.get('x-amz-date');
  if (!amzDate.startsWith(day)) return 'x-amz-date does not match the credential scope';
  const payloadHash = ctx.get('x-amz-content-sha256');
  if (!payloadHash) return 'no x-amz-content-sha256';
  if (payloadHash !== 'UNSIGNED-PAYLOAD' && body !== null && sha256(body) !== payloadHash)
    return 'the payload does not match x-amz-content-sha256';
  const [rawPath, rawQuery = ''] = ctx.originalUrl.split('?');
  const canonicalPath = rawPath
    .split('/')
    .map(s => rfc3986(decodeURIComponent(s)))
    .join('/');
  const canonicalQuery = rawQuery
    .split('&')
    .filter(Boolean)
    .map(p => {
      const eq = p.indexOf('=');
      const k = decodeURIComponent(eq < 0 ? p : p.slice(0, eq));
      const v = eq < 0 ? '' : decodeURIComponent(p.slice(eq + 1));
      return [rfc3986(k), rfc3986(v)];
    })
    .sort((a, b) => (a[0] < b[0] ? -1 : a[0] > b[0] ? 1 : a[1] < b[1] ? -1 : a[1] > b[1] ? 1 : 0))
    .map(([k, v]) => `${k}=${v}`)
    .join('&');
  const names = signedHeaders.split(';');
  if (!names.includes('host') || !names.includes('x-amz-date')) return 'host and x-amz-date must be signed';
  const canonicalHeaders = names.map(n => `${n}:${ctx.get(n).trim().replace(/\s+/g, ' ')}\n`).join('');
  const canonical = [ctx.method, canonicalPath, canonicalQuery, canonicalHeaders, signedHeaders, payloadHash].join(
    '\n',
  );
  const scope = `${day}/${region}/s3/aws4_request`;
  const toSign = ['AWS4-HMAC-SHA256', amzDate, scope, sha256(canonical)].join('\n');
  let key = hmac('AWS4' + args['secret-key'], day);
  key = hmac(hmac(hmac(key, region), 's3'), 'aws4_request');
  const expected = crypto.createHmac('sha256', key).update(toSign).digest('hex');
  return expected === signature ? null : 'SignatureDoesNotMatch';
}

const s3 = new S3rver({
  directory: args.dir,
  silent: true,
  vhostBuckets: false,
  configureBuckets: [{ name: args.bucket, configs: [] }],
  address: '127.0.0.1',
  port: 0,
});
const uploadsDir = () => s3.store.getResourcePath(args.bucket, undefined, 'uploads');
const uploadDir = id => path.join(uploadsDir(), path.basename(id));
const openUploads = () => (fs.existsSync(uploadsDir()) ? fs.readdirSync(uploadsDir()).length : 0);
function keyOf(ctx) {
  return decodeURIComponent(ctx.path.split('/').slice(2).join('/'));
}

async function front(ctx, next) {
  if (ctx.path === '/__faults' && ctx.method === 'POST') {
    Object.assign(faults, JSON.parse((await readBody(ctx.req)).toString() || '{}'));
    ctx.body = 'ok';
    return;
  }
  if (ctx.path === '/__stats') {
    ctx.body = JSON.stringify({ ...stats, open_uploads: openUploads() });
    return;
  }
  if (ctx.path === '/__reset' && ctx.method === 'POST') {
    resetStats();
    ctx.body = 'ok';
    return;
  }
  const op = operation(ctx);
  stats.requests[op] = (stats.requests[op] || 0) + 1;

  // Small signed bodies are read here, checked, and handed on as a fresh stream.
  let body = null;
  const hash = ctx.get('x-amz-content-sha256');
  if (hash && hash !== 'UNSIGNED-PAYLOAD' && op !== 'UploadPart') {
    body = await readBody(ctx.req);
    const stream = new PassThrough();
    stream.end(body);
    ctx.req = stream;
  }
  const problem = signatureError(ctx, body);
  if (problem) return xmlError(ctx, 403, 'SignatureDoesNotMatch', problem);

  if (faults.slowdown > 0) {
    faults.slowdown -= 1;
    ctx.set('Retry-After', '0');
    return xmlError(ctx, 503, 'SlowDown', 'Please reduce your request rate.');
  }
  // s3rver's own continuation tokens need DES, which OpenSSL 3 no longer offers:
  // ListObjectsV2 is served as a V1 listing from a marker, with a token of ours.
  const listV2 = op === 'ListObjects' && ctx.query['list-type'] === '2';
  if (listV2) {
    const q = { ...ctx.query };
    const token = q['continuation-token'];
    if (token || q['start-after']) q.marker = token ? Buffer.from(token, 'base64').toString() : q['start-after'];
    for (const name of ['list-type', 'continuation-token', 'start-after']) delete q[name];
    if (faults.page_size > 0) q['max-keys'] = String(faults.page_size);
    ctx.query = q;
  }
  if (op === 'UploadPart') {
    if (!fs.existsSync(path.join(uploadDir(ctx.query.uploadId), 'key')))
      return xmlError(ctx, 404, 'NoSuchUpload', 'The specified upload does not exist.');
    const drop = faults.drop_part;
    if (drop && drop.times > 0 && Number(ctx.query.partNumber) === drop.part) {
      drop.times -= 1;
      let seen = 0;
      await new Promise(resolve => {
        ctx.req.on('data', c => {
          seen += c.length;
          if (seen >= drop.after_bytes) {
            ctx.req.socket.destroy();
            resolve();
          }
        });
        ctx.req.on('end', resolve);
        ctx.req.on('close', resolve);
      });
      ctx.respond = false;
      return;
    }
  }
  if (op === 'AbortMultipartUpload') {
    const dir = uploadDir(ctx.query.uploadId);
    if (!fs.existsSync(dir)) return xmlError(ctx, 404, 'NoSuchUpload', 'The specified upload does not exist.');
    fs.rmSync(dir, { recursive: true, force: true });
    ctx.status = 204;
    return;
  }
  if ((op === 'PutObject' || op === 'CompleteMultipartUpload') && ctx.get('if-none-match') === '*') {
    if (await s3.store.existsObject(args.bucket, keyOf(ctx)))
      return xmlError(ctx, 412, 'PreconditionFailed', 'At least one of the pre-conditions you specified did not hold');
  }
  if (op === 'CompleteMultipartUpload') {
    const dir = uploadDir(ctx.query.uploadId);
    if (!fs.existsSync(path.join(dir, 'key')))
      return xmlError(ctx, 404, 'NoSuchUpload', 'The specified upload does not exist.');
    if (faults.complete_error > 0) {
      faults.complete_error -= 1;
      ctx.status = 200;
      ctx.type = 'application/xml';
      ctx.body = '<?xml version="1.0" encoding="UTF-8"?>\n\n<Error><Code>InternalError</Code>' +
        '<Message>We encountered an internal error. Please try again.</Message></Error>';
      return;
    }
    // Each part named with the ETag it was stored under, every part but the last 5 MiB or more.
    const parts = [...body.toString().matchAll(/<Part><PartNumber>(\d+)<\/PartNumber><ETag>([^<]*)<\/ETag><\/Part>/g)];
    for (let i = 0; i < parts.length; ++i) {
      const file = path.join(dir, parts[i][1]);
      if (Number(parts[i][1]) !== i + 1 || !fs.existsSync(file))
        return xmlError(ctx, 400, 'InvalidPart', 'One or more of the specified parts could not be found.');
      const etag = parts[i][2].replace(/&quot;/g, '"').replace(/"/g, '');
      if (fs.readFileSync(file + '.md5').toString() !== etag)
        return xmlError(ctx, 400, 'InvalidPart', `part ${i + 1} has another ETag`);
      if (i + 1 < parts.length && fs.statSync(file).size < 5 * 1024 * 1024)
        return xmlError(ctx, 400, 'EntityTooSmall', 'Your proposed upload is smaller than the minimum allowed size');
    }
    if (parts.length === 0) return xmlError(ctx, 400, 'MalformedXML', 'no parts');
  }
  await next();
  if (op === 'CompleteMultipartUpload' && ctx.status === 200 && faults.complete_lost > 0) {
    faults.complete_lost -= 1;
    ctx.req.socket.destroy();
    ctx.respond = false;
    return;
  }
  if (listV2 && typeof ctx.body === 'string' && ctx.body.includes('<IsTruncated>true</IsTruncated>')) {
    const keys = [...ctx.body.matchAll(/<Key>([^<]*)<\/Key>/g)];
    const last = he.decode(keys[keys.length - 1][1]);
    const token = Buffer.from(last).toString('base64');
    ctx.body = ctx.body.replace('</IsTruncated>', `</IsTruncated><NextContinuationToken>${token}</NextContinuationToken>`);
  }
  if (op === 'GetObject' && ctx.status >= 200 && ctx.status < 300)
    stats.get_bytes += Number(ctx.response.get('Content-Length') || 0);
}

s3.middleware.unshift(front);
s3.run()
  .then(() => {
    process.stdout.write(`listening on 127.0.0.1:${s3.httpServer.address().port}\n`);
  })
  .catch(err => {
    process.stderr.write(`cannot start: ${err}\n`);
    process.exit(1);
  });
process.on('SIGTERM', () => process.exit(0));
