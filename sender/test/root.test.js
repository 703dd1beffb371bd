'use strict';
// A simulated appliance made with --cast-receiver: its avahi-browse lists a live receiver on
// loopback, and the sender installed where the daemon runs it plays a library track there.
const test = require('node:test');
const assert = require('node:assert');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { execFileSync } = require('child_process');
const { startSender, waitUntil, REPO } = require('../testing/harness');

test('make-root --cast-receiver: listed, started on demand, played through the installed sender', async (t) => {
  const tmp = fs.mkdtempSync(path.join(os.tmpdir(), 'cast-root-'));
  const root = path.join(tmp, 'root');
  // Removing the root ends its receiver (within a second).
  t.after(() => fs.rmSync(tmp, { recursive: true, force: true }));
  execFileSync(path.join(REPO, 'sim/make-root'), ['--cast-receiver', root], { stdio: 'ignore', timeout: 120000 });

  const listing = execFileSync(path.join(root, 'usr/sbin/avahi-browse'), ['-krpt', '_googlecast._tcp'],
    { encoding: 'utf8', timeout: 30000 }).split('\n').filter((l) => l.startsWith('=;'));
  assert.strictEqual(listing.length, 1, 'only the loopback receiver is listed');
  const f = listing[0].split(';');
  assert.deepStrictEqual([f[1], f[4], f[7]], ['lo', '_googlecast._tcp', '127.0.0.1']);
  assert.match(f[9], /"md=Chromecast"/);
  const port = Number(f[8]);

  const bin = path.join(root, 'usr/local/medialibrary/bin');
  const tx = startSender(port, {}, { node: path.join(bin, 'node'), script: path.join(bin, 'nodejs/ChromecastSender.js') });
  t.after(() => tx.stop());
  assert.strictEqual((await tx.send({ cmd: 'LAUNCH' })).status, 0);
  // mu_105 is a one-second slice in the simulated library; the receiver knows its length.
  const r = await tx.send({ cmd: 'LOAD', url: 'http://127.0.0.1:8200/media/mu_105.mp3', title: 'Morning (chorus)' });
  assert.deepStrictEqual([r.status, r.duration], [0, 1], r.line);
  await waitUntil(async () => (await tx.send({ cmd: 'STATUS' })).idleReason === 'FINISHED', 'the end of the track');
  const log = fs.readFileSync(path.join(root, 'var/sim/cast', fs.readdirSync(path.join(root, 'var/sim/cast'))
    .find((d) => !d.endsWith('.json')), 'received.log'), 'utf8');
  assert.match(log, /"title":"Morning \(chorus\)"/);
});
