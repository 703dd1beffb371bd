#!/usr/bin/env node
'use strict';
/*
 * A simulated cast receiver speaking cast v2 over TLS on loopback, for tests and the demo.
 *
 *   node sim/cast/receiver.js --state-dir DIR [--port N] [--speed F] [--durations FILE]
 *                             [--buffering SECONDS] [--exit-with-dir]
 *
 * Listens on 127.0.0.1:N (0, the default: a free port), prints the port as its first line on
 * stdout and writes it to DIR/port (its pid to DIR/pid). The TLS key and self-signed
 * certificate are DIR/key.pem and DIR/cert.pem, made with openssl when missing. Every message
 * received is appended to DIR/received.log as one JSON line, every text track fetched to
 * DIR/tracks.log. See sim/README.md for the switches (DIR/switches.json, SIGUSR1) and how
 * durations are found.
 */
const fs = require('fs');
const http = require('http');
const https = require('https');
const path = require('path');
const tls = require('tls');
const crypto = require('crypto');
const { execFileSync } = require('child_process');
const { CastChannel, NS } = require('../../sender/lib/channel');

const PLATFORM = 'receiver-0';
const MEDIA_APP = 'CC1AD845';
const IMAGE = /\.(jpe?g|png|gif|bmp|webp)$/i;
// The page a real receiver's application runs in fetches text tracks cross-origin from here.
const PAGE_ORIGIN = 'https://receiver.invalid';

function parseArgs(argv) {
  const opts = { port: 0, speed: 1, buffering: 0.1, durations: null, stateDir: null, exitWithDir: false };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const value = () => {
      if (i + 1 >= argv.length) throw new Error(`${a} needs a value`);
      return argv[++i];
    };
    if (a === '--state-dir') opts.stateDir = value();
    else if (a === '--port') opts.port = Number(value());
    else if (a === '--speed') opts.speed = Number(value());
    else if (a === '--buffering') opts.buffering = Number(value());
    else if (a === '--durations') opts.durations = value();
    else if (a === '--exit-with-dir') opts.exitWithDir = true;
    else throw new Error(`unknown argument ${a}`);
  }
  if (!opts.stateDir) throw new Error('--state-dir is required');
  if (!(opts.speed > 0) || !(opts.buffering >= 0) || !Number.isInteger(opts.port)) throw new Error('bad number');
  return opts;
}

function ensureCertificate(dir) {
  const key = path.join(dir, 'key.pem');
  const cert = path.join(dir, 'cert.pem');
  if (!fs.existsSync(key) || !fs.existsSync(cert)) {
    execFileSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1',
      '-nodes', '-keyout', key + '.new', '-out', cert + '.new', '-days', '3650', '-subj', '/CN=simulated-cast-receiver'],
    { stdio: ['ignore', 'ignore', 'pipe'], timeout: 30000 });
    fs.renameSync(key + '.new', key);
    fs.renameSync(cert + '.new', cert);
  }
  return { key: fs.readFileSync(key), cert: fs.readFileSync(cert) };
}

class Receiver {
  constructor(opts) {
    this.opts = opts;
    this.dir = opts.stateDir;
    this.conns = new Set();
    this.nextConn = 1;
    this.volume = { controlType: 'attenuation', level: 1, muted: false, stepInterval: 0.05 };
    this.app = null;
    this.media = null;
    this.nextMediaId = 1;
    this.timer = null;
  }

  switches() {
    try {
      return JSON.parse(fs.readFileSync(path.join(this.dir, 'switches.json'), 'utf8')) || {};
    } catch {
      return {};
    }
  }

  record(conn, m) {
    this.append('received.log', { t: Date.now(), conn: conn.id, sourceId: m.sourceId, destinationId: m.destinationId,
      namespace: m.namespace, data: m.data !== null ? m.data : m.payload.toString() });
  }

  append(file, entry) {
    try {
      fs.appendFileSync(path.join(this.dir, file), JSON.stringify(entry) + '\n');
    } catch {
      // The state directory is going away with its root.
    }
  }

  /**
   * Fetches an active text track as the receiver's page would (a cross-origin GET) and records in
   * tracks.log whether it could show it: WebVTT, with an Access-Control-Allow-Origin that lets the
   * page read it. What comes of it never touches the media session.
   */
  fetchTrack(track) {
    const entry = { t: Date.now(), trackId: track.trackId, url: track.trackContentId,
      contentType: track.trackContentType };
    let recorded = false;
    const done = (more) => {
      if (!recorded) this.append('tracks.log', { ...entry, ...more });
      recorded = true;
    };
    let u;
    try {
      u = new URL(track.trackContentId);
    } catch {
      return done({ usable: false, error: 'not a URL' });
    }
    const mod = { 'http:': http, 'https:': https }[u.protocol];
    if (!mod) return done({ usable: false, error: `cannot fetch ${u.protocol}` });
    const req = mod.get(u, { headers: { Origin: PAGE_ORIGIN }, rejectUnauthorized: false, timeout: 5000 }, (res) => {
      let body = '';
      res.setEncoding('utf8');
      res.on('data', (s) => {
        if (body.length < 1 << 20) body += s;
      });
      res.on('end', () => {
        const type = res.headers['content-type'] || '';
        const allow = res.headers['access-control-allow-origin'] || '';
        done({ status: res.statusCode, type, allowOrigin: allow, bytes: Buffer.byteLength(body),
          usable: res.statusCode === 200 && /^text\/vtt\b/i.test(type) && (allow === '*' || allow === PAGE_ORIGIN)
            && /^WEBVTT/.test(body) });
      });
      res.on('error', (e) => done({ usable: false, error: e.message }));
    });
    req.on('timeout', () => req.destroy(new Error('no answer within 5 s')));
    req.on('error', (e) => done({ usable: false, error: e.message }));
    return undefined;
  }

  // --- connections --------------------------------------------------------------------

  accept(socket) {
    if (this.switches().refuseConnections) {
      socket.destroy();
      return;
    }
    const conn = { id: this.nextConn++, channel: new CastChannel(socket), links: new Set() };
    this.conns.add(conn);
    conn.channel.on('message', (m) => this.onMessage(conn, m));
    conn.channel.on('close', () => this.conns.delete(conn));
    socket.on('error', () => {});
  }

  dropAll() {
    for (const c of this.conns) c.channel.destroy('dropped');
    this.conns.clear();
  }

  /** Sends unless silent; with the garbage switch a broken frame goes out instead. */
  send(conn, from, to, ns, payload) {
    const sw = this.switches();
    if (sw.silent) return;
    if (sw.garbage === 'oversize') {
      const b = Buffer.alloc(8);
      b.writeUInt32BE(16 * 1024 * 1024, 0);
      conn.channel.sendRaw(b);
    } else if (sw.garbage === 'badproto') {
      conn.channel.sendRaw(Buffer.from([0, 0, 0, 6, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff]));
    } else {
      conn.channel.send(from, to, ns, payload);
    }
  }

  /** The answer to M on CONN; every other sender connected to FROM gets it as a broadcast. */
  answer(conn, m, payload, others = true) {
    this.send(conn, m.destinationId, m.sourceId, m.namespace, { ...payload, requestId: m.data.requestId || 0 });
    if (others) this.broadcast(m.destinationId, m.namespace, payload, conn);
  }

  broadcast(from, ns, payload, except) {
    for (const c of this.conns) {
      if (c !== except && c.links.has(from)) this.send(c, from, '*', ns, { ...payload, requestId: 0 });
    }
  }

  onMessage(conn, m) {
    this.record(conn, m);
    const d = m.data;
    if (!d || typeof d.type !== 'string') return;
    if (m.namespace === NS.connection) {
      if (d.type === 'CONNECT') conn.links.add(m.destinationId);
      else if (d.type === 'CLOSE') conn.links.delete(m.destinationId);
      return;
    }
    if (m.namespace === NS.heartbeat) {
      if (d.type === 'PING') this.send(conn, m.destinationId, m.sourceId, NS.heartbeat, { type: 'PONG' });
      return;
    }
    if (m.namespace === NS.receiver && m.destinationId === PLATFORM) this.onReceiver(conn, m);
    else if (m.namespace === NS.media && this.app && m.destinationId === this.app.transportId) this.onMedia(conn, m);
    // Anything else goes unanswered, as a receiver ignores what no application listens to.
  }

  // --- the platform: applications and volume ------------------------------------------

  receiverStatus() {
    const status = { volume: { ...this.volume }, applications: [] };
    if (this.app) status.applications.push({ ...this.app });
    return { type: 'RECEIVER_STATUS', status };
  }

  onReceiver(conn, m) {
    const d = m.data;
    switch (d.type) {
      case 'GET_STATUS':
        return this.answer(conn, m, this.receiverStatus(), false);
      case 'LAUNCH':
        if (d.appId !== MEDIA_APP || this.switches().refuseLaunch) {
          return this.answer(conn, m, { type: 'LAUNCH_ERROR', reason: 'NOT_FOUND' }, false);
        }
        if (!this.app) {
          const sessionId = crypto.randomUUID();
          this.app = {
            appId: MEDIA_APP, displayName: 'Default Media Receiver', sessionId, transportId: sessionId,
            statusText: 'Ready To Cast', isIdleScreen: false,
            namespaces: [{ name: NS.media }, { name: 'urn:x-cast:com.google.cast.cac' }],
          };
        }
        return this.answer(conn, m, this.receiverStatus());
      case 'STOP':
        this.stopApp();
        return this.answer(conn, m, this.receiverStatus());
      case 'SET_VOLUME': {
        const v = d.volume || {};
        if (typeof v.level === 'number') this.volume.level = Math.min(1, Math.max(0, v.level));
        if (typeof v.muted === 'boolean') this.volume.muted = v.muted;
        return this.answer(conn, m, this.receiverStatus());
      }
      default:
        return this.answer(conn, m, { type: 'INVALID_REQUEST', reason: 'INVALID_COMMAND' }, false);
    }
  }

  stopApp() {
    if (!this.app) return;
    const transport = this.app.transportId;
    this.endMedia(null);
    this.app = null;
    for (const c of this.conns) {
      if (c.links.delete(transport)) this.send(c, transport, '*', NS.connection, { type: 'CLOSE' });
    }
  }

  // --- the media application -----------------------------------------------------------

  position() {
    const md = this.media;
    let p = md.base;
    if (md.state === 'PLAYING') p += ((Date.now() - md.since) / 1000) * this.opts.speed;
    return md.duration > 0 ? Math.min(p, md.duration) : p;
  }

  mediaStatus() {
    const md = this.media;
    if (!md) return { type: 'MEDIA_STATUS', status: [] };
    const s = {
      mediaSessionId: md.id, playbackRate: 1, playerState: md.state, currentTime: this.position(),
      supportedMediaCommands: 15, volume: { level: this.volume.level, muted: this.volume.muted },
      media: { ...md.info, duration: md.duration > 0 ? md.duration : null },
      activeTrackIds: md.activeTrackIds,
    };
    if (md.idleReason) s.idleReason = md.idleReason;
    return { type: 'MEDIA_STATUS', status: [s] };
  }

  duration(url) {
    const q = /[?&]duration=([0-9]+(?:\.[0-9]+)?)/.exec(url);
    if (q) return Number(q[1]);
    const bare = url.split(/[?#]/)[0];
    const name = decodeURIComponent(bare.slice(bare.lastIndexOf('/') + 1));
    if (this.opts.durations) {
      try {
        const table = JSON.parse(fs.readFileSync(this.opts.durations, 'utf8'));
        for (const key of [url, bare, name, name.replace(/\.[^.]*$/, '')]) {
          if (typeof table[key] === 'number') return table[key];
        }
      } catch {
        // No table: fall through to the file itself.
      }
    }
    const file = bare.startsWith('file://') ? decodeURIComponent(bare.slice(7)) : bare;
    if (file.startsWith('/') && fs.existsSync(file)) {
      try {
        const out = execFileSync('ffprobe', ['-v', 'error', '-show_entries', 'format=duration', '-of', 'csv=p=0', file],
          { encoding: 'utf8', timeout: 10000, stdio: ['ignore', 'pipe', 'ignore'] });
        const v = Number(out.trim());
        if (v > 0) return v;
      } catch {
        // Not measurable: unknown.
      }
    }
    return 0;
  }

  /** Ends the current media session with REASON (broadcast first), or silently when null. */
  endMedia(reason) {
    clearTimeout(this.timer);
    const md = this.media;
    if (!md) return;
    if (reason) {
      md.base = reason === 'FINISHED' ? md.duration : this.position();
      md.state = 'IDLE';
      md.idleReason = reason;
      this.broadcast(this.app.transportId, NS.media, this.mediaStatus());
    }
    this.media = null;
  }

  /** Re-arms the end of the track after any change of state or position. */
  schedule() {
    clearTimeout(this.timer);
    const md = this.media;
    if (!md || md.state !== 'PLAYING' || !(md.duration > 0)) return;
    const left = Math.max(0, (md.duration - this.position()) / this.opts.speed);
    this.timer = setTimeout(() => this.endMedia('FINISHED'), left * 1000);
  }

  onMedia(conn, m) {
    const d = m.data;
    const md = this.media;
    if (d.type === 'GET_STATUS') return this.answer(conn, m, this.mediaStatus(), false);
    if (d.type === 'LOAD') return this.load(conn, m);
    if (!['PLAY', 'PAUSE', 'SEEK', 'STOP'].includes(d.type)) {
      return this.answer(conn, m, { type: 'INVALID_REQUEST', reason: 'INVALID_COMMAND' }, false);
    }
    if (!md || d.mediaSessionId !== md.id) {
      return this.answer(conn, m, { type: 'INVALID_REQUEST', reason: 'INVALID_MEDIA_SESSION_ID' }, false);
    }
    const now = Date.now();
    if (d.type === 'STOP') {
      md.base = this.position();
      md.state = 'IDLE';
      md.idleReason = 'CANCELLED';
      this.answer(conn, m, this.mediaStatus());
      this.endMedia(null);
      return undefined;
    }
    if (d.type === 'PAUSE' && md.state !== 'IDLE') {
      md.base = this.position();
      md.state = 'PAUSED';
    } else if (d.type === 'PLAY' && md.state === 'PAUSED') {
      md.since = now;
      md.state = 'PLAYING';
    } else if (d.type === 'SEEK') {
      const t = Number(d.currentTime);
      if (!Number.isFinite(t)) return this.answer(conn, m, { type: 'INVALID_REQUEST', reason: 'INVALID_PARAMS' }, false);
      md.base = Math.max(0, md.duration > 0 ? Math.min(t, md.duration) : t);
      md.since = now;
      if (d.resumeState === 'PLAYBACK_PAUSE') md.state = 'PAUSED';
      else if (d.resumeState === 'PLAYBACK_START') md.state = 'PLAYING';
    }
    this.answer(conn, m, this.mediaStatus());
    this.schedule();
    return undefined;
  }

  load(conn, m) {
    const d = m.data;
    const url = d.media && typeof d.media.contentId === 'string' ? d.media.contentId : '';
    const picture = IMAGE.test(url.split(/[?#]/)[0]) || /^image\//.test((d.media && d.media.contentType) || '');
    const duration = url && !picture ? this.duration(url) : 0;
    if (!url || this.switches().refuseLoad || (!picture && !(duration > 0))) {
      return this.answer(conn, m, { type: 'LOAD_FAILED' }, false);
    }
    if (this.media) this.endMedia('INTERRUPTED');
    const start = Number(d.currentTime) > 0 ? Number(d.currentTime) : 0;
    this.media = {
      id: this.nextMediaId++, info: { ...d.media }, duration, state: 'BUFFERING', idleReason: '',
      base: duration > 0 ? Math.min(start, duration) : start, since: Date.now(),
      activeTrackIds: Array.isArray(d.activeTrackIds) ? d.activeTrackIds : [],
    };
    this.answer(conn, m, this.mediaStatus());
    const active = new Set(this.media.activeTrackIds);
    for (const t of Array.isArray(d.media.tracks) ? d.media.tracks : []) {
      if (t && t.type === 'TEXT' && active.has(t.trackId) && typeof t.trackContentId === 'string') this.fetchTrack(t);
    }
    const md = this.media;
    setTimeout(() => {
      if (this.media !== md || md.state !== 'BUFFERING') return;
      md.state = d.autoplay === false ? 'PAUSED' : 'PLAYING';
      md.since = Date.now();
      this.broadcast(this.app.transportId, NS.media, this.mediaStatus());
      this.schedule();
    }, this.opts.buffering * 1000);
    return undefined;
  }
}

function main() {
  let opts;
  try {
    opts = parseArgs(process.argv.slice(2));
  } catch (e) {
    process.stderr.write(`receiver.js: ${e.message}\n`);
    process.exit(2);
  }
  fs.mkdirSync(opts.stateDir, { recursive: true });
  const receiver = new Receiver(opts);
  const server = tls.createServer(ensureCertificate(opts.stateDir), (s) => receiver.accept(s));
  server.on('tlsClientError', () => {});
  server.listen(opts.port, '127.0.0.1', () => {
    const port = server.address().port;
    fs.writeFileSync(path.join(opts.stateDir, 'pid'), String(process.pid));
    fs.writeFileSync(path.join(opts.stateDir, 'port.tmp'), String(port));
    fs.renameSync(path.join(opts.stateDir, 'port.tmp'), path.join(opts.stateDir, 'port'));
    process.stdout.write(`${port}\n`);
  });
  process.on('SIGUSR1', () => receiver.dropAll());
  const stop = () => {
    receiver.dropAll();
    server.close();
    process.exit(0);
  };
  process.on('SIGTERM', stop);
  process.on('SIGINT', stop);
  if (opts.exitWithDir) {
    // A test's temporary root going away takes its receiver with it.
    setInterval(() => {
      if (!fs.existsSync(opts.stateDir)) stop();
    }, 1000);
  }
}

main();
