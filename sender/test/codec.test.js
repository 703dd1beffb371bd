'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { encodeFrame, FrameDecoder, FrameError, CastMessage } = require('../lib/codec');

const msg = { sourceId: 'sender-1', destinationId: 'receiver-0', namespace: 'urn:x-cast:com.google.cast.receiver' };

test('frames survive any split of the stream and keep their payload kind', () => {
  const frames = Buffer.concat([
    encodeFrame({ ...msg, payload: { type: 'GET_STATUS', requestId: 7, title: 'L\'été <live> & ♪' } }),
    encodeFrame({ ...msg, payload: Buffer.from([0, 1, 2, 255]) }),
  ]);
  // The length prefix is big-endian and counts the protobuf body only.
  assert.strictEqual(frames.readUInt32BE(0), CastMessage.encode(CastMessage.decode(frames.subarray(4,
    4 + frames.readUInt32BE(0)))).finish().length);
  for (const step of [1, 3, frames.length]) {
    const d = new FrameDecoder();
    const out = [];
    for (let i = 0; i < frames.length; i += step) out.push(...d.push(frames.subarray(i, i + step)));
    assert.strictEqual(out.length, 2);
    assert.deepStrictEqual(JSON.parse(out[0].payload), { type: 'GET_STATUS', requestId: 7, title: 'L\'été <live> & ♪' });
    assert.strictEqual(out[0].namespace, msg.namespace);
    assert.deepStrictEqual([...out[1].payload], [0, 1, 2, 255]);
  }
});

test('broken streams are refused, not buffered or crashed on', () => {
  const oversize = Buffer.alloc(4);
  oversize.writeUInt32BE(64 * 1024 + 1, 0);
  assert.throws(() => new FrameDecoder().push(oversize), FrameError);
  assert.throws(() => new FrameDecoder().push(Buffer.from([0, 0, 0, 4, 0xff, 0xff, 0xff, 0xff])), FrameError);
  // Well-formed protobuf that lacks required fields, and a string message without its payload.
  const onlySource = Buffer.from([0, 0, 0, 3, 0x12, 0x01, 0x61]); // field 2 = "a", nothing else
  assert.throws(() => new FrameDecoder().push(onlySource), FrameError);
  const body = CastMessage.encode({ protocolVersion: 0, sourceId: 'a', destinationId: 'b', namespace: 'n',
    payloadType: 0 }).finish();
  assert.throws(() => new FrameDecoder().push(Buffer.concat([Buffer.from([0, 0, 0, body.length]), body])), FrameError);
  assert.throws(() => encodeFrame({ ...msg, payload: 'x'.repeat(70 * 1024) }), FrameError);
});
