'use strict';
// External subtitles for the default media receiver, which displays only WebVTT (and TTML) text
// tracks and fetches them from its own web page, i.e. cross-origin, so their server must allow
// that with CORS headers. The appliance's media agent serves .srt, .ass/.ssa and .vtt files and is
// not known to send such headers, so the sender fetches the file, converts it to WebVTT and
// serves it itself, with CORS, on the address that reaches the receiver.
const crypto = require('crypto');
const http = require('http');
const https = require('https');

// --- text -----------------------------------------------------------------------------------

// Bytes 0x80-0x9F as Windows-1252 has them; the five it leaves undefined stay the C1 controls.
const CP1252_HIGH = '\u20ac\u0081\u201a\u0192\u201e\u2026\u2020\u2021\u02c6\u2030\u0160\u2039\u0152\u008d\u017d\u008f'
  + '\u0090\u2018\u2019\u201c\u201d\u2022\u2013\u2014\u02dc\u2122\u0161\u203a\u0153\u009d\u017e\u0178';

/**
 * The text of a subtitle file. UTF-8 (with or without a byte-order mark) when the bytes are valid
 * UTF-8, UTF-16 when they start with its byte-order mark; anything else is taken as Windows-1252,
 * the usual encoding of Western subtitle files that are not UTF-8 (it agrees with Latin-1 on every
 * printable Latin-1 character and adds the curly quotes, dashes and euro sign of 0x80-0x9F).
 * Line ends come back as LF.
 */
function decodeText(buf) {
  let text;
  if (buf[0] === 0xff && buf[1] === 0xfe) {
    text = buf.subarray(2).toString('utf16le');
  } else if (buf[0] === 0xfe && buf[1] === 0xff) {
    const le = Buffer.from(buf.subarray(2, buf.length - (buf.length % 2)));
    text = le.swap16().toString('utf16le');
  } else {
    try {
      text = new TextDecoder('utf-8', { fatal: true, ignoreBOM: false }).decode(buf);
    } catch {
      text = buf.toString('latin1').replace(/[\x80-\x9f]/g, (c) => CP1252_HIGH[c.charCodeAt(0) - 0x80]);
    }
  }
  return text.replace(/^\ufeff/, '').replace(/\r\n?/g, '\n');
}

// --- conversion -----------------------------------------------------------------------------

// H:MM:SS followed by a fraction of a second (SRT's ",mmm", ASS's ".cc"); the hours may be absent.
const TIME = String.raw`(?:(\d+):)?(\d{1,2}):(\d{1,2})(?:[.,](\d{1,3}))?`;
const SRT_TIMING = new RegExp(String.raw`^\s*${TIME}\s*-->\s*${TIME}`);
const ASS_TIME = new RegExp(String.raw`^\s*${TIME}\s*$`);

function millis(h, m, s, frac) {
  return ((Number(h || 0) * 60 + Number(m)) * 60 + Number(s)) * 1000 + Math.round(Number(`0.${frac || 0}`) * 1000);
}

function stamp(ms) {
  const pad = (n, w) => String(n).padStart(w, '0');
  return `${pad(Math.floor(ms / 3600000), 2)}:${pad(Math.floor(ms / 60000) % 60, 2)}:`
    + `${pad(Math.floor(ms / 1000) % 60, 2)}.${pad(ms % 1000, 3)}`;
}

/** CUES ({ start, end, lines }) as a WebVTT file, in order of start time. */
function writeVtt(cues) {
  const kept = cues.filter((c) => c.end > c.start && c.lines.length > 0)
    .sort((a, b) => a.start - b.start); // stable: equal starts keep their order
  return `WEBVTT\n\n${kept.map((c) => `${stamp(c.start)} --> ${stamp(c.end)}\n${c.lines.join('\n')}\n\n`).join('')}`;
}

/**
 * A line of SRT cue text as WebVTT cue text: the tags both know (<i>, <b>, <u>, and <font>,
 * which a WebVTT parser skips) are kept, any other "<" is escaped, and so is the ">" of "-->"
 * (which would otherwise read as a timing line). {\...} override blocks some SRT files carry
 * from ASS are dropped.
 */
function srtLine(line) {
  return line.replace(/\{\\[^}]*\}/g, '')
    .replace(/<(?!\/?[A-Za-z][^<>]*>)/g, '&lt;')
    .replace(/-->/g, '--&gt;')
    .trimEnd();
}

function srtToVtt(text) {
  const lines = text.split('\n');
  const cues = [];
  let cue = null;
  for (let i = 0; i < lines.length; i++) {
    const t = SRT_TIMING.exec(lines[i]);
    if (t) {
      cue = { start: millis(t[1], t[2], t[3], t[4]), end: millis(t[5], t[6], t[7], t[8]), lines: [] };
      cues.push(cue);
    } else if (lines[i].trim() === '') {
      cue = null; // the blank line that ends a cue
    } else if (cue && !(/^\s*\d+\s*$/.test(lines[i]) && SRT_TIMING.test(lines[i + 1] || ''))) {
      const l = srtLine(lines[i]);
      if (l !== '') cue.lines.push(l);
    }
    // Anything else outside a cue is a counter (or stray text): dropped.
  }
  return writeVtt(cues);
}

/** ASS/SSA cue text: override blocks and drawings removed, \N and \n as line breaks, escaped. */
function assLines(raw) {
  let text = '';
  let drawing = false;
  for (const piece of raw.split(/(\{[^{}]*\})/)) {
    if (piece.startsWith('{') && piece.endsWith('}')) {
      const p = piece.match(/\\p(\d+)/g);
      if (p) drawing = Number(p[p.length - 1].slice(2)) > 0;
    } else if (!drawing) {
      text += piece;
    }
  }
  return text.replace(/\\h/g, '\u00a0').split(/\\[Nn]/)
    .map((l) => l.replace(/&/g, '&amp;').replace(/</g, '&lt;').replace(/>/g, '&gt;').trim())
    .filter((l) => l !== '');
}

// The [Events] fields when a file has no Format line (ASS v4+ and SSA v4 both start this way).
const ASS_DEFAULT_FORMAT = ['layer', 'start', 'end', 'style', 'name', 'marginl', 'marginr', 'marginv', 'effect', 'text'];

function assToVtt(text) {
  const cues = [];
  let inEvents = false;
  let format = ASS_DEFAULT_FORMAT;
  for (const line of text.split('\n')) {
    const section = /^\s*\[([^\]]*)\]\s*$/.exec(line);
    if (section) {
      inEvents = section[1].trim().toLowerCase() === 'events';
      continue;
    }
    if (!inEvents) continue;
    const m = /^\s*(Format|Dialogue)\s*:\s*(.*)$/i.exec(line);
    if (!m) continue; // Comment:, and the rest
    if (m[1].toLowerCase() === 'format') {
      format = m[2].split(',').map((f) => f.trim().toLowerCase());
      continue;
    }
    // Text is the last field and may itself hold commas.
    const parts = m[2].split(',');
    const fields = [...parts.slice(0, format.length - 1), parts.slice(format.length - 1).join(',')];
    const get = (name) => fields[format.indexOf(name)];
    const start = ASS_TIME.exec(get('start') || '');
    const end = ASS_TIME.exec(get('end') || '');
    if (!start || !end || get('text') === undefined) continue;
    cues.push({ start: millis(start[1], start[2], start[3], start[4]), end: millis(end[1], end[2], end[3], end[4]),
      lines: assLines(get('text')) });
  }
  return writeVtt(cues);
}

/**
 * TEXT (decoded) as a WebVTT file, or null when it is none of WebVTT, ASS/SSA or SRT. The content
 * decides; the extension EXT (lower case, without the dot) only breaks a tie.
 */
function toVtt(text, ext = '') {
  if (/^WEBVTT(?:[ \t\n]|$)/.test(text)) return text;
  const ass = /^\s*\[(?:Script Info|V4\+? Styles|Events)\]\s*$/im.test(text);
  const srt = text.split('\n').some((l) => SRT_TIMING.test(l));
  if (ass && (!srt || ext === 'ass' || ext === 'ssa')) return assToVtt(text);
  if (srt) return srtToVtt(text);
  return null;
}

// --- fetching -------------------------------------------------------------------------------

/** The body of URL (http or https) as a Buffer; rejects on any status but 200 after redirects. */
function fetchSubtitle(url, { timeoutMs, maxBytes, maxRedirects }) {
  return new Promise((resolve, reject) => {
    let req = null;
    let done = false;
    const finish = (err, body) => {
      if (done) return;
      done = true;
      clearTimeout(timer);
      if (req) req.destroy();
      if (err) reject(err);
      else resolve(body);
    };
    const timer = setTimeout(() => finish(new Error(`no complete answer within ${timeoutMs} ms`)), timeoutMs);
    const get = (href, base, redirectsLeft) => {
      let u;
      try {
        u = new URL(href, base);
      } catch {
        return finish(new Error(`not a URL: ${href}`));
      }
      const mod = { 'http:': http, 'https:': https }[u.protocol];
      if (!mod) return finish(new Error(`cannot fetch ${u.protocol} URLs`));
      const r = mod.get(u, { agent: false }, (res) => {
        // Once a redirect is followed, what the earlier request still does is no concern.
        const fail = (e) => r === req && finish(e);
        res.on('error', fail);
        const status = res.statusCode;
        if ([301, 302, 303, 307, 308].includes(status) && res.headers.location) {
          res.resume();
          if (redirectsLeft === 0) return fail(new Error('too many redirects'));
          return get(res.headers.location, u, redirectsLeft - 1);
        }
        if (status !== 200) return fail(new Error(`HTTP status ${status}`));
        if (Number(res.headers['content-length']) > maxBytes) return fail(new Error(`larger than ${maxBytes} bytes`));
        const chunks = [];
        let size = 0;
        res.on('data', (chunk) => {
          size += chunk.length;
          if (size > maxBytes) fail(new Error(`larger than ${maxBytes} bytes`));
          else chunks.push(chunk);
        });
        res.on('end', () => r === req && finish(null, Buffer.concat(chunks)));
        res.on('close', () => fail(new Error('the answer was cut short')));
        return undefined;
      });
      req = r;
      r.on('error', (e) => r === req && finish(e));
      return undefined;
    };
    get(url, undefined, maxRedirects);
  });
}

function extension(url) {
  const m = /\.([A-Za-z0-9]+)$/.exec(String(url).split(/[?#]/)[0]);
  return m ? m[1].toLowerCase() : '';
}

// --- serving --------------------------------------------------------------------------------

/**
 * Fetches, converts and serves one subtitle track at a time. The HTTP server listens on the
 * address the sender reaches the receiver from (any free port) and never keeps the process
 * alive. Only the latest track is served; every other path answers 404.
 */
class SubtitleService {
  constructor({ log, timeoutMs = 5000, maxBytes = 4 * 1024 * 1024, maxRedirects = 3 }) {
    this.log = log;
    this.limits = { timeoutMs, maxBytes, maxRedirects };
    this.server = null;
    this.address = null;
    this.base = null; // http://address:port of the running server
    this.current = null; // { name, body }
  }

  /**
   * The URL at which the receiver finds the subtitle file at URL as WebVTT, served from
   * LOCAL_ADDRESS; null (and a line in the log) when it cannot be had.
   */
  async prepare(url, localAddress) {
    this.forget();
    let vtt;
    try {
      vtt = toVtt(decodeText(await fetchSubtitle(url, this.limits)), extension(url));
      if (vtt === null) {
        this.log(`subtitle ${url} is not SRT, ASS/SSA or WebVTT; playing without it`);
        return null;
      }
      await this._listen(localAddress);
    } catch (e) {
      this.log(`subtitle ${url}: ${e.message}; playing without it`);
      return null;
    }
    // A name nobody on the network can guess: the track is the user's, served only to the
    // receiver it was given to.
    this.current = { name: crypto.randomBytes(16).toString('hex'), body: Buffer.from(vtt, 'utf8') };
    return `${this.base}/subtitles/${this.current.name}.vtt`;
  }

  /** Stops serving the current track. */
  forget() {
    this.current = null;
  }

  close() {
    this.forget();
    if (this.server) {
      this.server.close();
      this.server.closeAllConnections();
      this.server = null;
    }
  }

  async _listen(localAddress) {
    if (!localAddress) throw new Error('no connection to the receiver to serve it on');
    const address = localAddress.replace(/^::ffff:(?=\d+\.\d+\.\d+\.\d+$)/, '');
    if (this.server && this.address === address) return;
    this.close(); // a new connection from another interface
    const server = http.createServer((req, res) => this._answer(req, res));
    server.on('connection', (socket) => socket.unref());
    await new Promise((resolve, reject) => {
      server.once('error', reject);
      server.listen(0, address, () => {
        server.off('error', reject);
        resolve();
      });
    });
    server.on('error', (e) => this.log(`subtitle server: ${e.message}`));
    server.unref();
    this.server = server;
    this.address = address;
    this.base = `http://${address.includes(':') ? `[${address}]` : address}:${server.address().port}`;
  }

  _answer(req, res) {
    const cors = { 'Access-Control-Allow-Origin': '*' };
    const cur = this.current;
    if (!cur || req.url.split('?')[0] !== `/subtitles/${cur.name}.vtt`) {
      res.writeHead(404, { ...cors, 'Content-Type': 'text/plain' });
      res.end('not found\n');
    } else if (req.method === 'OPTIONS') {
      res.writeHead(204, { ...cors, 'Access-Control-Allow-Methods': 'GET, HEAD, OPTIONS',
        'Access-Control-Allow-Headers': req.headers['access-control-request-headers'] || '*',
        'Access-Control-Max-Age': '600' });
      res.end();
    } else if (req.method === 'GET' || req.method === 'HEAD') {
      res.writeHead(200, { ...cors, 'Content-Type': 'text/vtt; charset=utf-8', 'Content-Length': cur.body.length,
        'Cache-Control': 'no-cache' });
      res.end(req.method === 'GET' ? cur.body : undefined);
    } else {
      res.writeHead(405, { ...cors, Allow: 'GET, HEAD, OPTIONS' });
      res.end();
    }
  }
}

module.exports = { SubtitleService, decodeText, toVtt, fetchSubtitle };
