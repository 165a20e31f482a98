'use strict';
// Installs the packages package-lock.json pins into DIR/node_modules without npm
// (Debian's npm would pull in some three hundred packages for this): each tarball
// is fetched from the npm registry with curl, checked against the lock file's
// sha512 integrity and unpacked at its lock file path. The tree is built in a
// temporary folder and renamed into place, so a cut install leaves nothing half
// done; DIR/installed.lock records which lock file it came from.
//   node install.js DIR
const { execFile } = require('child_process');
const crypto = require('crypto');
const fs = require('fs');
const path = require('path');

const dir = path.resolve(process.argv[2]);
const lockFile = path.join(__dirname, 'package-lock.json');
const lock = JSON.parse(fs.readFileSync(lockFile, 'utf8'));
const registry = 'https://registry.npmjs.org';
const run = (cmd, args) =>
  new Promise((resolve, reject) =>
    execFile(cmd, args, { maxBuffer: 1 << 20 }, err => (err ? reject(new Error(`${cmd} failed: ${err.message}`)) : resolve())),
  );

async function fetchOne(stage, index, where, entry) {
  const name = where.slice(where.lastIndexOf('node_modules/') + 'node_modules/'.length);
  const base = name.slice(name.lastIndexOf('/') + 1);
  const url = entry.resolved || `${registry}/${name}/-/${base}-${entry.version}.tgz`;
  // One file per lock entry: the same package may sit at several paths, and
  // the workers fetch at once.
  const tarball = path.join(stage, `${index}.tgz`);
  await run('curl', ['-fsS', '--retry', '3', '-o', tarball, url]);
  const [algorithm, digest] = entry.integrity.split('-', 2);
  const actual = crypto.createHash(algorithm).update(fs.readFileSync(tarball)).digest('base64');
  if (actual !== entry.integrity.slice(algorithm.length + 1) || !digest)
    throw new Error(`${name}@${entry.version}: the tarball does not match the lock file's integrity`);
  const target = path.join(stage, where);
  fs.mkdirSync(target, { recursive: true });
  await run('tar', ['-xzf', tarball, '-C', target, '--strip-components=1']);
  fs.unlinkSync(tarball);
}

async function main() {
  fs.mkdirSync(dir, { recursive: true });
  const stage = fs.mkdtempSync(path.join(dir, 'stage-'));
  const entries = Object.entries(lock.packages).filter(([where]) => where !== '');
  let next = 0;
  let failure = null;
  // After a failure no worker starts another package, and the stage is removed
  // only once every worker has stopped writing into it.
  const worker = async () => {
    while (failure === null && next < entries.length) {
      const index = next++;
      const [where, entry] = entries[index];
      try {
        await fetchOne(stage, index, where, entry);
      } catch (err) {
        if (failure === null) failure = err;
      }
    }
  };
  try {
    await Promise.all(Array.from({ length: 8 }, worker));
    if (failure !== null) throw failure;
    fs.rmSync(path.join(dir, 'node_modules'), { recursive: true, force: true });
    fs.renameSync(path.join(stage, 'node_modules'), path.join(dir, 'node_modules'));
    fs.copyFileSync(lockFile, path.join(dir, 'installed.lock'));
  } finally {
    fs.rmSync(stage, { recursive: true, force: true });
  }
}

main().catch(err => {
  process.stderr.write(`install.js: ${err.message}\n`);
  process.exit(1);
});
