'use strict';
// The command loop: one JSON command per line on stdin, exactly one XML reply line per command
// on stdout, in order. Every reply carries the last known playback state.
const readline = require('readline');
const { CastClient, TimeoutError, LostError, PLATFORM, NS } = require('./client');
const { SubtitleService } = require('./subtitles');

const APP_ID = 'CC1AD845'; // the default media receiver

const OK = 0;
const LOST = -1;
const BAD_COMMAND = 1;
const NO_ANSWER = 2;
const REFUSED = 3;
const NOT_READY = 4;

// Answers by which a receiver refuses a request.
const REFUSALS = new Set(['LAUNCH_ERROR', 'LOAD_FAILED', 'LOAD_CANCELLED', 'INVALID_REQUEST',
  'INVALID_PLAYER_STATE', 'INVALID_MEDIA_SESSION_ID', 'ERROR']);

const CONTENT_TYPES = {
  mp3: 'audio/mpeg', m4a: 'audio/mp4', aac: 'audio/aac', flac: 'audio/flac', wav: 'audio/wav',
  ogg: 'audio/ogg', opus: 'audio/ogg', mp4: 'video/mp4', m4v: 'video/mp4', mov: 'video/mp4',
  mkv: 'video/x-matroska', webm: 'video/webm', ts: 'video/mp2t', m3u8: 'application/x-mpegURL',
  jpg: 'image/jpeg', jpeg: 'image/jpeg', png: 'image/png', gif: 'image/gif', bmp: 'image/bmp',
};

class CommandError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

function extension(url) {
  const path = String(url).split(/[?#]/)[0];
  const m = /\.([A-Za-z0-9]+)$/.exec(path);
  return m ? m[1].toLowerCase() : '';
}

function xmlEscape(text) {
  return String(text)
    .replace(/[\u0000-\u0008\u000b\u000c\u000e-\u001f]/g, '')
    .replace(/[\r\n\t]+/g, ' ')
    .replace(/&/g, '&amp;').replace(/</g, '&lt;').replace(/>/g, '&gt;')
    .replace(/"/g, '&quot;').replace(/'/g, '&apos;');
}

function seconds(x) {
  return Number.isFinite(x) && x > 0 ? Number(x.toFixed(3)).toString() : '0';
}

class Sender {
  constructor({ host, port, timeoutMs, heartbeatMs, out, log }) {
    this.host = host;
    this.port = port;
    this.timeoutMs = timeoutMs;
    this.heartbeatMs = heartbeatMs;
    this.out = out;
    this.log = log;
    this.subtitles = new SubtitleService({ log });
    this.client = null;
    this.launched = false; // a LAUNCH has succeeded on this sender
    this.transportId = null; // the running application's transport, null when none
    this.appSessionId = null;
    this.media = { sessionId: null, endedId: null, state: 'IDLE', position: 0, at: 0, rate: 1, duration: 0,
      idleReason: '' };
    this.volume = { level: 0, muted: false };
  }

  // --- state from the receiver's messages -------------------------------------------------

  _onMessage(m) {
    const d = m.data;
    if (!d) return;
    if (m.namespace === NS.receiver && d.type === 'RECEIVER_STATUS' && d.status) {
      this._receiverStatus(d.status);
    } else if (m.namespace === NS.media && d.type === 'MEDIA_STATUS') {
      this._mediaStatus(d.status);
    } else if (m.namespace === NS.connection && d.type === 'CLOSE' && m.sourceId === this.transportId) {
      this._appGone();
    }
  }

  _receiverStatus(status) {
    if (status.volume) {
      if (typeof status.volume.level === 'number') this.volume.level = status.volume.level;
      if (typeof status.volume.muted === 'boolean') this.volume.muted = status.volume.muted;
    }
    if (this.transportId && Array.isArray(status.applications)
        && !status.applications.some((a) => a.transportId === this.transportId)) {
      this._appGone();
    }
  }

  _appGone() {
    this.transportId = null;
    this.appSessionId = null;
    this._sessionEnded('');
  }

  _sessionEnded(reason) {
    const m = this.media;
    if (m.sessionId === null) {
      if (reason) m.idleReason = reason;
      m.state = 'IDLE';
      return;
    }
    m.position = this._position();
    m.at = Date.now();
    m.idleReason = reason;
    m.endedId = m.sessionId;
    m.sessionId = null;
    m.state = 'IDLE';
  }

  _mediaStatus(list) {
    if (!Array.isArray(list)) return;
    const s = list.find((x) => x && x.mediaSessionId !== undefined);
    if (!s) {
      if (this.media.sessionId !== null) this._sessionEnded('');
      return;
    }
    const m = this.media;
    if (s.mediaSessionId === m.endedId) return; // a late word about a session already over
    if (s.mediaSessionId !== m.sessionId) {
      m.duration = 0;
      m.idleReason = '';
    }
    m.sessionId = s.mediaSessionId;
    if (typeof s.playerState === 'string') m.state = s.playerState;
    if (typeof s.currentTime === 'number') m.position = s.currentTime;
    m.at = Date.now();
    if (typeof s.playbackRate === 'number') m.rate = s.playbackRate;
    if (s.media && typeof s.media.duration === 'number') m.duration = s.media.duration;
    if (m.state === 'IDLE') {
      // An idle session with a reason is over; one without is a load still starting.
      if (s.idleReason) this._sessionEnded(s.idleReason);
    } else {
      m.idleReason = '';
    }
  }

  _position() {
    const m = this.media;
    let p = m.position;
    if (m.state === 'PLAYING') p += ((Date.now() - m.at) / 1000) * m.rate;
    return m.duration > 0 ? Math.min(p, m.duration) : p;
  }

  // --- replies ----------------------------------------------------------------------------

  reply(status, error = '') {
    const m = this.media;
    const idle = m.state === 'IDLE' && m.idleReason ? `<idleReason>${xmlEscape(m.idleReason)}</idleReason>` : '';
    this.out(`<?xml version="1.0"?><root><status>${status}</status><error>${xmlEscape(error)}</error>`
      + `<state>${xmlEscape(m.state)}</state><position>${seconds(this._position())}</position>`
      + `<duration>${seconds(m.duration)}</duration><volume>${seconds(this.volume.level)}</volume>`
      + `<mute>${this.volume.muted ? 1 : 0}</mute>${idle}</root>\n`);
  }

  /** Handles one input line; always writes exactly one reply. */
  async handle(line) {
    try {
      await this._run(line);
      this.reply(OK);
    } catch (e) {
      let status = e.status;
      if (e instanceof TimeoutError) status = NO_ANSWER;
      else if (e instanceof LostError) status = LOST;
      else if (status === undefined) {
        status = BAD_COMMAND;
        this.log(`unexpected failure: ${e.stack || e}`);
      }
      if (status === LOST) this.log(`connection lost: ${e.message}`);
      this.reply(status, e.message);
    }
  }

  async _run(line) {
    let cmd;
    try {
      cmd = JSON.parse(line);
    } catch {
      throw new CommandError(BAD_COMMAND, 'malformed command line (not JSON)');
    }
    if (!cmd || typeof cmd !== 'object' || typeof cmd.cmd !== 'string') {
      throw new CommandError(BAD_COMMAND, 'command line without "cmd"');
    }
    const handler = COMMANDS[cmd.cmd];
    if (!handler) throw new CommandError(BAD_COMMAND, `unknown command ${cmd.cmd}`);
    if (cmd.cmd !== 'CLOSE' && cmd.cmd !== 'LAUNCH') {
      if (!this.launched) throw new CommandError(NOT_READY, `${cmd.cmd} before LAUNCH`);
      if (this.client.lost) throw new LostError(this.client.lostReason);
    }
    await handler.call(this, cmd);
  }

  _refused(answer) {
    if (answer && REFUSALS.has(answer.type)) {
      const why = answer.reason || answer.detailedErrorCode || '';
      throw new CommandError(REFUSED, `the receiver refused: ${answer.type}${why ? ` (${why})` : ''}`);
    }
    return answer;
  }

  _needTransport(what) {
    if (!this.transportId) throw new CommandError(NOT_READY, `${what}: no application is running (LAUNCH first)`);
  }

  _needSession(what) {
    this._needTransport(what);
    if (this.media.sessionId === null) throw new CommandError(NOT_READY, `${what}: no media session (LOAD first)`);
  }

  _mediaRequest(payload) {
    return this.client.request(this.transportId, NS.media, payload).then((a) => this._refused(a));
  }

  // --- commands ---------------------------------------------------------------------------

  async launch() {
    if (!this.client || this.client.lost) {
      if (this.client) this.client.removeAllListeners();
      this.transportId = null;
      this.appSessionId = null;
      this.client = new CastClient({ host: this.host, port: this.port, timeoutMs: this.timeoutMs,
        heartbeatMs: this.heartbeatMs });
      this.client.on('message', (m) => this._onMessage(m));
      this.client.on('lost', (reason) => this.log(`connection lost: ${reason}`));
      await this.client.connect();
    }
    const findApp = (status) => (status && Array.isArray(status.applications)
      ? status.applications.find((a) => a.appId === APP_ID && a.transportId) : undefined);
    const st = await this.client.request(PLATFORM, NS.receiver, { type: 'GET_STATUS' });
    let app = findApp(st.status);
    const running = app !== undefined;
    if (!app) {
      const answer = this._refused(await this.client.request(PLATFORM, NS.receiver, { type: 'LAUNCH', appId: APP_ID }));
      app = findApp(answer.status);
      if (!app) {
        // Some receivers answer before the application is up and report it a moment later.
        const m = await this.client.waitFor((x) => x.namespace === NS.receiver && x.data
          && x.data.type === 'RECEIVER_STATUS' && findApp(x.data.status), 'the launched application');
        app = findApp(m.data.status);
      }
    }
    if (app.transportId !== this.transportId) {
      this.transportId = app.transportId;
      this.appSessionId = app.sessionId;
      this.client.connectTo(this.transportId);
    }
    this.launched = true;
    if (running) {
      // A media session already playing in the joined application is picked up. Not worth
      // failing the launch for: a LOAD will tell whether the application answers.
      try {
        await this.client.request(this.transportId, NS.media, { type: 'GET_STATUS' });
      } catch (e) {
        if (!(e instanceof TimeoutError)) throw e;
        this.log(`joined application did not report its media: ${e.message}`);
      }
    }
  }

  async load(cmd) {
    this._needTransport('LOAD');
    if (typeof cmd.url !== 'string' || cmd.url === '') throw new CommandError(BAD_COMMAND, 'LOAD without url');
    const media = {
      contentId: cmd.url,
      contentType: CONTENT_TYPES[extension(cmd.url)] || 'video/mp4',
      streamType: 'BUFFERED',
      metadata: { metadataType: 0 },
    };
    if (typeof cmd.title === 'string' && cmd.title !== '') media.metadata.title = cmd.title;
    if (typeof cmd.imageUrl === 'string' && cmd.imageUrl !== '') media.metadata.images = [{ url: cmd.imageUrl }];
    const load = { type: 'LOAD', sessionId: this.appSessionId, media, autoplay: true, currentTime: 0 };
    // The receiver gets the subtitle file as WebVTT from this process (see subtitles.js); one
    // that cannot be had leaves the track out rather than the media.
    const track = typeof cmd.subtitle === 'string' && cmd.subtitle !== ''
      ? await this.subtitles.prepare(cmd.subtitle, this.client.localAddress) : null;
    if (track === null) {
      this.subtitles.forget();
    } else {
      media.tracks = [{
        trackId: 1, type: 'TEXT', subtype: 'SUBTITLES', trackContentId: track, trackContentType: 'text/vtt',
        name: 'Subtitles',
      }];
      load.activeTrackIds = [1];
    }
    await this._mediaRequest(load);
  }

  async control(cmd) {
    this._needSession(cmd.cmd);
    const payload = { type: cmd.cmd, mediaSessionId: this.media.sessionId };
    if (cmd.cmd === 'SEEK') {
      const t = Number(cmd.seektime);
      if (cmd.seektime === undefined || cmd.seektime === '' || !Number.isFinite(t) || t < 0) {
        throw new CommandError(BAD_COMMAND, 'SEEK needs a seektime of 0 or more seconds');
      }
      payload.currentTime = t;
    }
    await this._mediaRequest(payload);
    if (cmd.cmd === 'STOP' && this.media.sessionId !== null) this._sessionEnded('CANCELLED');
  }

  async status() {
    if (!this.transportId) return; // last known state; IDLE once the application is gone
    await this._mediaRequest({ type: 'GET_STATUS' });
  }

  async getVolume() {
    this._refused(await this.client.request(PLATFORM, NS.receiver, { type: 'GET_STATUS' }));
  }

  async setVolume(cmd) {
    const v = Number(cmd.volume);
    if (cmd.volume === undefined || cmd.volume === '' || !Number.isFinite(v) || v < 0 || v > 1) {
      throw new CommandError(BAD_COMMAND, 'SET_VOLUME needs a volume from 0 to 1');
    }
    this._refused(await this.client.request(PLATFORM, NS.receiver, { type: 'SET_VOLUME', volume: { level: v } }));
  }

  async setMute(cmd) {
    const text = String(cmd.mute).toLowerCase();
    if (text !== 'true' && text !== 'false') throw new CommandError(BAD_COMMAND, 'SET_MUTE needs mute true or false');
    this._refused(await this.client.request(PLATFORM, NS.receiver,
      { type: 'SET_VOLUME', volume: { muted: text === 'true' } }));
  }

  async close() {
    if (this.client) {
      this.client.removeAllListeners();
      await this.client.close();
      this.client = null;
    }
    this.launched = false;
    this.transportId = null;
    this.appSessionId = null;
  }
}

const COMMANDS = {
  LAUNCH: Sender.prototype.launch,
  LOAD: Sender.prototype.load,
  PLAY: Sender.prototype.control,
  PAUSE: Sender.prototype.control,
  SEEK: Sender.prototype.control,
  STOP: Sender.prototype.control,
  STATUS: Sender.prototype.status,
  GET_VOLUME: Sender.prototype.getVolume,
  GET_MUTE: Sender.prototype.getVolume,
  SET_VOLUME: Sender.prototype.setVolume,
  SET_MUTE: Sender.prototype.setMute,
  CLOSE: Sender.prototype.close,
};

function envMs(name, fallback) {
  const v = Number(process.env[name]);
  return Number.isFinite(v) && v > 0 ? v : fallback;
}

function usage() {
  process.stderr.write('usage: ChromecastSender.js IP [PORT]\n');
  process.exit(2);
}

/** The process: node ChromecastSender.js IP [PORT]. */
function main(argv) {
  const [host, portText] = argv;
  if (!host || argv.length > 2) usage();
  const port = portText === undefined ? 8009 : Number(portText);
  if (!Number.isInteger(port) || port < 1 || port > 65535) usage();

  const log = (text) => process.stderr.write(`ChromecastSender[${process.pid}]: ${text}\n`);
  const sender = new Sender({
    host, port,
    timeoutMs: envMs('CAST_SENDER_TIMEOUT_MS', 15000),
    heartbeatMs: envMs('CAST_SENDER_HEARTBEAT_MS', 5000),
    out: (text) => process.stdout.write(text),
    log,
  });

  let ending = false;
  const finish = () => {
    // The goodbye to the receiver and the last reply leave before the process goes.
    sender.subtitles.close();
    sender.close().then(() => process.stdout.write('', () => process.exit(0)));
    setTimeout(() => process.exit(0), 1500).unref();
  };
  process.on('SIGTERM', () => {
    ending = true;
    finish();
  });
  process.stdout.on('error', () => process.exit(0)); // the daemon went away

  // Commands run one at a time, in the order read, so replies come in the same order.
  let queue = Promise.resolve();
  let inFlight = 0;
  const rl = readline.createInterface({ input: process.stdin, crlfDelay: Infinity, terminal: false });
  rl.on('line', (raw) => {
    if (ending) return;
    inFlight++;
    const line = raw.replace(/\r$/, '');
    queue = queue.then(() => sender.handle(line)).finally(() => {
      inFlight--;
      if (stdinClosed && inFlight === 0) finish();
    });
  });
  let stdinClosed = false;
  rl.on('close', () => {
    // Commands already read are still answered (each within its time-out), then the process ends.
    stdinClosed = true;
    if (inFlight === 0) finish();
  });
}

module.exports = { main, Sender, xmlEscape };
