'use strict';
// The sender as the daemon runs it, against the simulated receiver over TLS on loopback.
const test = require('node:test');
const assert = require('node:assert');
const { startReceiver, startSender, launched, waitUntil, exited, startWeb, request } = require('../testing/harness');

const NS_MEDIA = 'urn:x-cast:com.google.cast.media';

async function statusUntil(tx, test, what) {
  let last;
  await waitUntil(async () => {
    last = await tx.send({ cmd: 'STATUS' });
    assert.strictEqual(last.status, 0, last.line);
    return test(last);
  }, what);
  return last;
}

test('a short track with title, picture and subtitle plays through to IDLE/FINISHED', async (t) => {
  const { rx, tx } = await launched(['--speed', '2']);
  // The media agent: an .srt behind a redirect, no CORS headers.
  const agent = await startWeb((req, res) => {
    if (req.url === '/old.srt') res.writeHead(302, { Location: '/a.srt' }).end();
    else if (req.url === '/a.srt') res.end('1\r\n00:00:00,500 --> 00:00:01,750\r\nRain\r\n');
    else res.writeHead(404).end();
  });
  t.after(() => Promise.all([tx.stop(), rx.stop(), agent.close()]));
  const url = 'http://127.0.0.1:8200/media/a.mp3?duration=2';
  const r = await tx.send(`{ "cmd":"LOAD", "url":"${url}", "title":"Rain & \\"Thunder\\"",`
    + ` "imageUrl":"http://127.0.0.1:8200/art.jpg", "subtitle":"${agent.url('/old.srt')}" }`);
  assert.strictEqual(r.status, 0, r.line);
  assert.ok(['BUFFERING', 'PLAYING'].includes(r.state), r.line);
  assert.strictEqual(r.duration, 2);

  const load = rx.received().find((m) => m.namespace === NS_MEDIA && m.data.type === 'LOAD').data;
  assert.strictEqual(load.media.contentId, url);
  assert.strictEqual(load.media.contentType, 'audio/mpeg');
  assert.strictEqual(load.media.metadata.title, 'Rain & "Thunder"');
  assert.deepStrictEqual(load.media.metadata.images, [{ url: 'http://127.0.0.1:8200/art.jpg' }]);
  assert.strictEqual(load.autoplay, true);

  // The track is the subtitle as WebVTT, served by the sender with CORS.
  const [track] = load.media.tracks;
  assert.match(track.trackContentId, /^http:\/\/127\.0\.0\.1:\d+\/subtitles\/[0-9a-f]{32}\.vtt$/);
  assert.strictEqual(track.trackContentType, 'text/vtt');
  assert.deepStrictEqual(load.activeTrackIds, [track.trackId]);

  await statusUntil(tx, (s) => s.state === 'PLAYING' && s.position > 0, 'PLAYING');
  const end = await statusUntil(tx, (s) => s.state === 'IDLE', 'the end of the track');
  assert.strictEqual(end.idleReason, 'FINISHED');
  assert.strictEqual(end.position, 2);
  // The finished session is gone: controls need a new LOAD.
  assert.strictEqual((await tx.send({ cmd: 'PAUSE' })).status, 4);

  // The subtitle is still served after the track, as WebVTT with CORS.
  const vtt = await request(track.trackContentId, { headers: { Origin: 'https://page.invalid' } });
  assert.deepStrictEqual([vtt.status, vtt.headers['content-type'], vtt.headers['access-control-allow-origin'], vtt.body],
    [200, 'text/vtt; charset=utf-8', '*', 'WEBVTT\n\n00:00:00.500 --> 00:00:01.750\nRain\n\n']);
  const preflight = await request(track.trackContentId, { method: 'OPTIONS',
    headers: { Origin: 'https://page.invalid', 'Access-Control-Request-Method': 'GET' } });
  assert.deepStrictEqual([preflight.status, preflight.headers['access-control-allow-origin']], [204, '*']);
  assert.strictEqual((await request(track.trackContentId.replace(/[0-9a-f]{32}\.vtt$/, '0.vtt'))).status, 404);
  // The simulated receiver fetched it cross-origin too, and could use it.
  const fetched = await waitUntil(() => rx.tracks()[0], 'the receiver to fetch the track');
  assert.deepStrictEqual([fetched.url, fetched.usable], [track.trackContentId, true], JSON.stringify(fetched));

  // A subtitle that cannot be fetched leaves the track out, not the media; the old one is gone.
  const again = await tx.send({ cmd: 'LOAD', url, subtitle: agent.url('/gone.srt') });
  assert.strictEqual(again.status, 0, again.line);
  const loads = rx.received().filter((m) => m.namespace === NS_MEDIA && m.data.type === 'LOAD');
  assert.deepStrictEqual([loads.length, loads[1].data.media.tracks, loads[1].data.activeTrackIds], [2, undefined, undefined]);
  await waitUntil(() => /gone\.srt: HTTP status 404/.test(tx.stderr()), 'the fetch failure in the log');
  assert.strictEqual((await request(track.trackContentId)).status, 404);

  // A second sender reuses the running application instead of launching it again.
  const other = startSender(rx.port);
  t.after(() => other.stop());
  assert.strictEqual((await other.send({ cmd: 'LAUNCH' })).status, 0);
  assert.strictEqual(rx.received().filter((m) => m.data.type === 'LAUNCH').length, 1);
});

test('pause, seek, play, volume, mute and stop', async (t) => {
  const { rx, tx } = await launched();
  t.after(() => Promise.all([tx.stop(), rx.stop()]));
  assert.strictEqual((await tx.send({ cmd: 'LOAD', url: 'http://127.0.0.1/v.mp4?duration=600' })).status, 0);
  await statusUntil(tx, (s) => s.state === 'PLAYING', 'PLAYING');

  const paused = await tx.send({ cmd: 'PAUSE' });
  assert.strictEqual(paused.state, 'PAUSED', paused.line);
  const seek = await tx.send({ cmd: 'SEEK', seektime: '300.000000' });
  assert.deepStrictEqual([seek.status, seek.state, seek.position], [0, 'PAUSED', 300], seek.line);
  const play = await tx.send({ cmd: 'PLAY' });
  assert.strictEqual(play.state, 'PLAYING', play.line);
  await statusUntil(tx, (s) => s.position > 300, 'the position to move on');
  const seeks = rx.received().filter((m) => m.data.type === 'SEEK');
  assert.strictEqual(seeks[0].data.currentTime, 300);

  let v = await tx.send({ cmd: 'SET_VOLUME', volume: '0.400000' });
  assert.deepStrictEqual([v.status, v.volume, v.mute], [0, 0.4, 0], v.line);
  v = await tx.send({ cmd: 'SET_MUTE', mute: 'true' });
  assert.deepStrictEqual([v.status, v.volume, v.mute], [0, 0.4, 1], v.line);
  v = await tx.send({ cmd: 'GET_MUTE' });
  assert.deepStrictEqual([v.status, v.mute], [0, 1], v.line);
  v = await tx.send({ cmd: 'SET_MUTE', mute: 'false' });
  v = await tx.send({ cmd: 'GET_VOLUME' });
  assert.deepStrictEqual([v.status, v.volume, v.mute], [0, 0.4, 0], v.line);

  const stop = await tx.send({ cmd: 'STOP' });
  assert.deepStrictEqual([stop.status, stop.state, stop.idleReason], [0, 'IDLE', 'CANCELLED'], stop.line);
  assert.strictEqual((await tx.send({ cmd: 'STATUS' })).state, 'IDLE');
  const close = await tx.send({ cmd: 'CLOSE' });
  assert.strictEqual(close.status, 0);
  assert.strictEqual((await tx.send({ cmd: 'STATUS' })).status, 4, 'a closed sender needs a new LAUNCH');
});

test('bad lines and commands out of order get one positive error reply each', async (t) => {
  const rx = await startReceiver();
  const tx = startSender(rx.port);
  t.after(() => Promise.all([tx.stop(), rx.stop()]));
  for (const cmd of ['PLAY', 'PAUSE', 'STOP', 'STATUS', 'GET_VOLUME', 'GET_MUTE']) {
    const r = await tx.send({ cmd });
    assert.strictEqual(r.status, 4, r.line);
    assert.match(r.error, /LAUNCH/);
  }
  assert.strictEqual((await tx.send({ cmd: 'LOAD', url: 'http://x/a.mp3' })).status, 4);
  assert.strictEqual((await tx.send({ cmd: 'CLOSE' })).status, 0);
  assert.strictEqual(rx.received().length, 0, 'nothing was sent to the receiver before LAUNCH');
  rx.setSwitches({ refuseLaunch: true });
  const refused = await tx.send({ cmd: 'LAUNCH' });
  assert.strictEqual(refused.status, 3, refused.line);
  assert.match(refused.error, /LAUNCH_ERROR/);
  assert.strictEqual((await tx.send({ cmd: 'STATUS' })).status, 4, 'a refused launch launched nothing');
  rx.setSwitches({});

  for (const line of ['{"cmd":"PLAY"', '', 'PLAY', '[]', '{"command":"PLAY"}', '{"cmd":"REWIND"}', '{"cmd":"<&>"}']) {
    const r = await tx.send(line);
    assert.strictEqual(r.status, 1, `${line} -> ${r.line}`);
  }
  assert.strictEqual((await tx.send({ cmd: 'LAUNCH' })).status, 0);
  for (const cmd of [{ cmd: 'SEEK' }, { cmd: 'SEEK', seektime: 'soon' }, { cmd: 'SET_VOLUME', volume: '1.5' },
    { cmd: 'SET_VOLUME' }, { cmd: 'SET_MUTE', mute: 'maybe' }, { cmd: 'LOAD' }]) {
    const r = await tx.send(cmd);
    assert.ok(r.status > 0, `${JSON.stringify(cmd)} -> ${r.line}`);
  }
  assert.strictEqual((await tx.send({ cmd: 'PLAY' })).status, 4, 'PLAY without a media session');

  // The receiver refuses media whose length it cannot know, and any media when told to.
  let r = await tx.send({ cmd: 'LOAD', url: 'http://127.0.0.1/unknown.mp3' });
  assert.deepStrictEqual([r.status, r.state], [3, 'IDLE'], r.line);
  assert.match(r.error, /LOAD_FAILED/);
  rx.setSwitches({ refuseLoad: true });
  r = await tx.send({ cmd: 'LOAD', url: 'http://127.0.0.1/a.mp3?duration=5' });
  assert.strictEqual(r.status, 3, r.line);
  assert.deepStrictEqual(tx.unexpected(), []);
});

test('a silent receiver times out each request, then counts as lost', async (t) => {
  const { rx, tx } = await launched([], { CAST_SENDER_TIMEOUT_MS: '400', CAST_SENDER_HEARTBEAT_MS: '800' });
  t.after(() => Promise.all([tx.stop(), rx.stop()]));
  rx.setSwitches({ silent: true });
  const r = await tx.send({ cmd: 'STATUS' });
  assert.strictEqual(r.status, 2, r.line);
  assert.match(r.error, /did not answer/);
  // A receiver that answers again is usable again.
  rx.setSwitches({});
  assert.strictEqual((await tx.send({ cmd: 'GET_VOLUME' })).status, 0);
  // Silent for longer than three heartbeats: the connection is given up.
  rx.setSwitches({ silent: true });
  await waitUntil(async () => (await tx.send({ cmd: 'STATUS' })).status === -1, 'status -1');
  rx.setSwitches({});
  assert.strictEqual((await tx.send({ cmd: 'PLAY' })).status, -1, 'a lost connection stays lost');
});

test('a receiver that goes away or sends broken frames gives status -1', async (t) => {
  const refused = startSender(1);
  t.after(() => refused.stop());
  const r = await refused.send({ cmd: 'LAUNCH' });
  assert.strictEqual(r.status, -1, r.line);
  const closing = await startReceiver();
  closing.setSwitches({ refuseConnections: true });
  const hungUp = startSender(closing.port);
  t.after(() => Promise.all([hungUp.stop(), closing.stop()]));
  assert.strictEqual((await hungUp.send({ cmd: 'LAUNCH' })).status, -1);

  for (const breakIt of [
    (rx) => rx.proc.kill('SIGKILL'),
    (rx) => rx.proc.kill('SIGUSR1'), // drops every connection, keeps listening
    (rx) => rx.setSwitches({ garbage: 'oversize' }),
    (rx) => rx.setSwitches({ garbage: 'badproto' }),
  ]) {
    const { rx, tx } = await launched();
    assert.strictEqual((await tx.send({ cmd: 'LOAD', url: 'http://127.0.0.1/a.mp3?duration=60' })).status, 0);
    breakIt(rx);
    await waitUntil(async () => (await tx.send({ cmd: 'STATUS' })).status === -1, `status -1 after ${breakIt}`);
    assert.strictEqual((await tx.send({ cmd: 'CLOSE' })).status, 0);
    await Promise.all([tx.stop(), rx.stop()]);
  }
});

test('every connected sender follows what another one does', async (t) => {
  const { rx, tx } = await launched(['--buffering', '0']);
  const watcher = startSender(rx.port);
  t.after(() => Promise.all([tx.stop(), watcher.stop(), rx.stop()]));
  assert.strictEqual((await watcher.send({ cmd: 'LAUNCH' })).status, 0);
  await tx.send({ cmd: 'LOAD', url: 'http://127.0.0.1/a.mp4?duration=600' });
  await tx.send({ cmd: 'SET_VOLUME', volume: '0.250000' });
  // A line the watcher refuses on its own shows what it heard without asking the receiver.
  const bad = { cmd: 'SEEK', seektime: 'x' };
  let seen = await waitUntil(async () => {
    const s = await watcher.send(bad);
    return s.state === 'PLAYING' && s.volume === 0.25 && s;
  }, 'the broadcasts');
  assert.strictEqual(seen.duration, 600);
  // A sender that joins later picks up the session at LAUNCH and can control it at once.
  const late = startSender(rx.port);
  t.after(() => late.stop());
  assert.strictEqual((await late.send({ cmd: 'LAUNCH' })).state, 'PLAYING');
  assert.strictEqual((await late.send({ cmd: 'PAUSE' })).state, 'PAUSED');
  await waitUntil(async () => (await watcher.send(bad)).state === 'PAUSED', 'the pause');
  await tx.send({ cmd: 'STOP' });
  seen = await waitUntil(async () => {
    const s = await watcher.send(bad);
    return s.state === 'IDLE' && s;
  }, 'the stop');
  assert.strictEqual(seen.idleReason, 'CANCELLED');
});

test('the sender ends on end of input and on SIGTERM, closing its connection', async (t) => {
  const { rx, tx } = await launched();
  t.after(() => rx.stop());
  assert.strictEqual(await tx.stop(), 0);
  const other = startSender(rx.port);
  await other.send({ cmd: 'LAUNCH' });
  other.proc.kill('SIGTERM');
  assert.strictEqual(await exited(other.proc), 0);
  // Both said goodbye on the connection namespace before going.
  await waitUntil(() => rx.received().filter((m) => m.data.type === 'CLOSE').length >= 4, 'the CLOSE messages');
});
