'use strict';
// Subtitle files as WebVTT, and the service that fetches and serves them.
const test = require('node:test');
const assert = require('node:assert');
const net = require('net');
const { SubtitleService, decodeText, toVtt } = require('../lib/subtitles');
const { startWeb, request } = require('../testing/harness');

const vttOf = (bytes, ext) => toVtt(decodeText(Buffer.from(bytes)), ext);

test('SRT: BOM, CRLF, multi-line cues, comma timings, counters and "-->" in the text', () => {
  const srt = '\ufeff1\r\n00:00:01,500 --> 00:00:03,000 X1:10 X2:90\r\nFirst line\r\n<i>second</i> --> line\r\n\r\n'
    + '2\r\n01:02:03,4 --> 01:02:05,000\r\nno blank line after this\r\n3\r\n0:00:04,000 --> 0:00:05,000\r\n{\\an8}a < b\r\n';
  assert.strictEqual(vttOf(srt, 'srt'), 'WEBVTT\n\n'
    + '00:00:01.500 --> 00:00:03.000\nFirst line\n<i>second</i> --&gt; line\n\n'
    + '00:00:04.000 --> 00:00:05.000\na &lt; b\n\n'
    + '01:02:03.400 --> 01:02:05.000\nno blank line after this\n\n');
});

test('ASS: the Events Format line decides the fields; overrides and drawings go, \\N breaks', () => {
  const ass = '[Script Info]\nScriptType: v4.00+\n\n[V4+ Styles]\nFormat: Name, Fontname, Fontsize\nStyle: Default,Arial,20\n\n'
    + '[Events]\nFormat: Style, Name, Layer, End, Start, MarginL, MarginR, MarginV, Effect, Text\n'
    + 'Dialogue: Default,,0,0:00:07.00,0:00:05.20,0,0,0,,{\\b1\\pos(10,20)}Tom & Jerry{\\b0},\\Nsaid <hi>\n'
    + 'Comment: Default,,0,0:00:02.00,0:00:01.00,0,0,0,,not shown\n'
    + 'Dialogue: Default,,0,0:00:02.50,0:00:01.00,0,0,0,,{\\p1}m 0 0 l 10 10{\\p0}Drawn\\hbefore\n';
  assert.strictEqual(vttOf(ass, 'ass'), 'WEBVTT\n\n'
    + '00:00:01.000 --> 00:00:02.500\nDrawn\u00a0before\n\n'
    + '00:00:05.200 --> 00:00:07.000\nTom &amp; Jerry,\nsaid &lt;hi&gt;\n\n');
});

test('encodings: Windows-1252 when not UTF-8; WebVTT passes; anything else is no track', () => {
  const latin = Buffer.concat([Buffer.from('1\n00:00:01,000 --> 00:00:02,000\nCaf'),
    Buffer.from([0xe9, 0x20, 0x93, 0x6f, 0x6b, 0x94, 0x20, 0x80]), Buffer.from('\n')]);
  assert.match(vttOf(latin), /\nCafé “ok” €\n/);
  assert.match(vttOf('1\n00:00:01,000 --> 00:00:02,000\nCafé ✓\n'), /\nCafé ✓\n/);
  assert.strictEqual(vttOf('\ufeffWEBVTT\r\n\r\n00:01.000 --> 00:02.000\r\nHi\r\n', 'vtt'),
    'WEBVTT\n\n00:01.000 --> 00:02.000\nHi\n');
  assert.strictEqual(vttOf('<tt xmlns="http://www.w3.org/ns/ttml"></tt>', 'ttml'), null);
});

test('a subtitle that cannot be had is logged and gives no track', async (t) => {
  const agent = await startWeb((req, res) => {
    if (req.url === '/loop') res.writeHead(302, { Location: '/loop' }).end();
    else if (req.url === '/big.srt') res.write('1\n00:00:01,000 --> 00:00:02,000\n'.repeat(100)); // no length
    else if (req.url !== '/hang.srt') res.writeHead(404).end();
  });
  const closed = net.createServer().listen(0, '127.0.0.1');
  await new Promise((r) => closed.once('listening', r));
  const refused = `http://127.0.0.1:${closed.address().port}/a.srt`;
  closed.close();
  const logged = [];
  const service = new SubtitleService({ log: (l) => logged.push(l), timeoutMs: 300, maxBytes: 1000, maxRedirects: 2 });
  t.after(() => {
    service.close();
    return agent.close();
  });
  for (const [url, why] of [[agent.url('/none.srt'), /HTTP status 404/], [agent.url('/loop'), /too many redirects/],
    [agent.url('/big.srt'), /larger than 1000 bytes/], [agent.url('/hang.srt'), /within 300 ms/],
    [refused, /ECONNREFUSED/], ['ftp://127.0.0.1/a.srt', /cannot fetch ftp/]]) {
    assert.strictEqual(await service.prepare(url, '127.0.0.1'), null, url);
    assert.match(logged.pop(), why);
  }
});

test('the service serves only the latest track, on an IPv6 address in brackets', async (t) => {
  const v6 = await new Promise((r) => {
    const s = net.createServer().once('error', () => r(false)).listen(0, '::1', () => s.close(() => r(true)));
  });
  if (!v6) return t.skip('no IPv6 loopback here');
  const agent = await startWeb((req, res) => res.end(`1\n00:00:01,000 --> 00:00:02,000\n${req.url}\n`));
  const service = new SubtitleService({ log: assert.fail });
  t.after(() => {
    service.close();
    return agent.close();
  });
  const first = await service.prepare(agent.url('/one.srt'), '::1');
  assert.match(first, /^http:\/\/\[::1\]:\d+\/subtitles\/[0-9a-f]{32}\.vtt$/);
  assert.match((await request(first)).body, /\n\/one\.srt\n/);
  const second = await service.prepare(agent.url('/two.srt'), '::1');
  const [a, b] = await Promise.all([request(first), request(second)]);
  assert.deepStrictEqual([a.status, b.status, b.headers['access-control-allow-origin']], [404, 200, '*']);
});
