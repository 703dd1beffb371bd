'use strict';
// Drives the sender as the daemon does (a child process, JSON lines in, XML lines out) against
// the simulated receiver started as a child process on a free loopback port.
const { spawn } = require('child_process');
const fs = require('fs');
const http = require('http');
const os = require('os');
const path = require('path');
const readline = require('readline');

const REPO = path.resolve(__dirname, '../..');
const SENDER = path.join(REPO, 'sender/ChromecastSender.js');
const RECEIVER = path.join(REPO, 'sim/cast/receiver.js');
const DEADLINE = 20000; // generous: the machine may be busy compiling

const REPLY = new RegExp('^<\\?xml version="1.0"\\?><root><status>(-?\\d+)</status><error>([^<]*)</error>'
  + '<state>(IDLE|BUFFERING|PLAYING|PAUSED)</state><position>([0-9.]+)</position><duration>([0-9.]+)</duration>'
  + '<volume>([0-9.]+)</volume><mute>([01])</mute>(?:<idleReason>([A-Z]+)</idleReason>)?</root>$');

async function waitUntil(test, what, timeoutMs = DEADLINE) {
  const end = Date.now() + timeoutMs;
  for (;;) {
    const v = await test();
    if (v) return v;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 50));
  }
}

function exited(child) {
  return new Promise((resolve) => {
    if (child.exitCode !== null || child.signalCode !== null) resolve(child.exitCode);
    else child.once('exit', (code) => resolve(code));
  });
}

function jsonLines(file) {
  try {
    return fs.readFileSync(file, 'utf8').split('\n').filter(Boolean).map((l) => JSON.parse(l));
  } catch {
    return [];
  }
}

let certDir = null;

/** A simulated receiver; ARGS are extra command-line options. */
async function startReceiver(args = []) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'cast-rx-'));
  // One certificate for the whole run keeps start-up quick.
  if (certDir) for (const f of ['key.pem', 'cert.pem']) fs.copyFileSync(path.join(certDir, f), path.join(dir, f));
  const proc = spawn(process.execPath, [RECEIVER, '--state-dir', dir, ...args], { stdio: ['ignore', 'pipe', 'inherit'] });
  const port = await new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error('receiver did not start')), DEADLINE);
    readline.createInterface({ input: proc.stdout }).once('line', (l) => {
      clearTimeout(timer);
      resolve(Number(l));
    });
    proc.once('exit', () => reject(new Error('receiver exited')));
  });
  if (!certDir) {
    certDir = fs.mkdtempSync(path.join(os.tmpdir(), 'cast-cert-'));
    for (const f of ['key.pem', 'cert.pem']) fs.copyFileSync(path.join(dir, f), path.join(certDir, f));
    process.on('exit', () => fs.rmSync(certDir, { recursive: true, force: true }));
  }
  return {
    port, dir, proc,
    setSwitches(sw) {
      fs.writeFileSync(path.join(dir, 'switches.json.new'), JSON.stringify(sw));
      fs.renameSync(path.join(dir, 'switches.json.new'), path.join(dir, 'switches.json'));
    },
    /** The messages the receiver got, in order. */
    received: () => jsonLines(path.join(dir, 'received.log')),
    /** The text tracks it fetched after a LOAD, and what it got. */
    tracks: () => jsonLines(path.join(dir, 'tracks.log')),
    async stop() {
      if (proc.exitCode === null && proc.signalCode === null) proc.kill('SIGKILL');
      await exited(proc);
      fs.rmSync(dir, { recursive: true, force: true });
    },
  };
}

/** A sender to 127.0.0.1:PORT; send() writes one line and resolves with its parsed reply. */
function startSender(port, env = {}, { node = process.execPath, script = SENDER } = {}) {
  const proc = spawn(node, [script, '127.0.0.1', String(port)], {
    stdio: ['pipe', 'pipe', 'pipe'],
    env: { ...process.env, CAST_SENDER_TIMEOUT_MS: '5000', ...env },
  });
  let stderr = '';
  proc.stderr.on('data', (b) => { stderr += b; });
  const waiting = [];
  const extra = [];
  let raw = '';
  proc.stdout.on('data', (b) => {
    raw += b;
    let i;
    while ((i = raw.indexOf('\n')) >= 0) {
      const line = raw.slice(0, i);
      raw = raw.slice(i + 1);
      const w = waiting.shift();
      if (w) w(line);
      else extra.push(line);
    }
  });
  const parse = (line) => {
    const m = REPLY.exec(line);
    if (!m) throw new Error(`malformed reply: ${JSON.stringify(line)}`);
    return { status: Number(m[1]), error: m[2], state: m[3], position: Number(m[4]), duration: Number(m[5]),
      volume: Number(m[6]), mute: Number(m[7]), idleReason: m[8] || '', line };
  };
  return {
    proc,
    stderr: () => stderr,
    /** Replies that came without a command waiting for them (there must be none). */
    unexpected: () => extra,
    send(cmd, timeoutMs = DEADLINE) {
      const text = typeof cmd === 'string' ? cmd : JSON.stringify(cmd);
      return new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error(`no reply to ${text}`)), timeoutMs);
        waiting.push((line) => {
          clearTimeout(timer);
          try {
            resolve(parse(line));
          } catch (e) {
            reject(e);
          }
        });
        proc.stdin.write(`${text}\r\n`);
      });
    },
    async stop() {
      proc.stdin.end();
      const t = setTimeout(() => proc.kill('SIGKILL'), DEADLINE);
      const code = await exited(proc);
      clearTimeout(t);
      return code;
    },
  };
}

/** A receiver and a sender that has launched the media application on it. */
async function launched(rxArgs = [], env = {}) {
  const rx = await startReceiver(rxArgs);
  const tx = startSender(rx.port, env);
  const r = await tx.send({ cmd: 'LAUNCH' });
  if (r.status !== 0) throw new Error(`LAUNCH failed: ${r.line}`);
  return { rx, tx };
}

/** An HTTP server on loopback answering with HANDLER; url(PATH) names one of its paths. */
async function startWeb(handler) {
  const server = http.createServer(handler);
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return {
    url: (p) => `http://127.0.0.1:${server.address().port}${p}`,
    close: () => {
      server.closeAllConnections();
      return new Promise((resolve) => server.close(resolve));
    },
  };
}

/** One request without keep-alive; resolves with { status, headers, body }. */
function request(url, { method = 'GET', headers = {} } = {}) {
  return new Promise((resolve, reject) => {
    http.request(url, { method, headers, agent: false }, (res) => {
      let body = '';
      res.setEncoding('utf8');
      res.on('data', (s) => { body += s; });
      res.on('end', () => resolve({ status: res.statusCode, headers: res.headers, body }));
    }).on('error', reject).end();
  });
}

module.exports = { startReceiver, startSender, launched, waitUntil, exited, startWeb, request, REPO };
