'use strict';
// The cast v2 wire format: a 4-byte big-endian length, then one protobuf CastMessage.
// The message is defined here with protobufjs' reflection API rather than loaded from a
// .proto file, so the codec exists synchronously before the first frame is sent or read.
const protobuf = require('protobufjs/light');

const MAX_FRAME = 64 * 1024; // real messages are a few KiB; anything larger is a broken peer

const root = new protobuf.Root();
const CastMessage = new protobuf.Type('CastMessage')
  .add(new protobuf.Enum('ProtocolVersion', { CASTV2_1_0: 0 }))
  .add(new protobuf.Enum('PayloadType', { STRING: 0, BINARY: 1 }))
  .add(new protobuf.Field('protocolVersion', 1, 'ProtocolVersion', 'required'))
  .add(new protobuf.Field('sourceId', 2, 'string', 'required'))
  .add(new protobuf.Field('destinationId', 3, 'string', 'required'))
  .add(new protobuf.Field('namespace', 4, 'string', 'required'))
  .add(new protobuf.Field('payloadType', 5, 'PayloadType', 'required'))
  .add(new protobuf.Field('payloadUtf8', 6, 'string', 'optional'))
  .add(new protobuf.Field('payloadBinary', 7, 'bytes', 'optional'));
root.define('extensions.api.cast_channel').add(CastMessage);
root.resolveAll();

const PAYLOAD_STRING = 0;
const PAYLOAD_BINARY = 1;

class FrameError extends Error {}

/** One frame (length prefix included) for a message; payload: object (sent as JSON), string or Buffer. */
function encodeFrame({ sourceId, destinationId, namespace, payload }) {
  const msg = { protocolVersion: 0, sourceId, destinationId, namespace };
  if (Buffer.isBuffer(payload)) {
    msg.payloadType = PAYLOAD_BINARY;
    msg.payloadBinary = payload;
  } else {
    msg.payloadType = PAYLOAD_STRING;
    msg.payloadUtf8 = typeof payload === 'string' ? payload : JSON.stringify(payload);
  }
  const body = CastMessage.encode(CastMessage.fromObject(msg)).finish();
  if (body.length > MAX_FRAME) throw new FrameError(`message of ${body.length} bytes is too large`);
  const frame = Buffer.allocUnsafe(4 + body.length);
  frame.writeUInt32BE(body.length, 0);
  Buffer.from(body.buffer, body.byteOffset, body.length).copy(frame, 4);
  return frame;
}

function decodeMessage(body) {
  let m;
  try {
    m = CastMessage.decode(body);
  } catch (e) {
    throw new FrameError(`undecodable message: ${e.message}`);
  }
  if (m.protocolVersion !== 0) throw new FrameError(`unknown protocol version ${m.protocolVersion}`);
  const binary = m.payloadType === PAYLOAD_BINARY;
  // Unset optional fields read as defaults from the prototype; only own properties were sent.
  if (!Object.prototype.hasOwnProperty.call(m, binary ? 'payloadBinary' : 'payloadUtf8')) {
    throw new FrameError('message without its payload');
  }
  return {
    sourceId: m.sourceId,
    destinationId: m.destinationId,
    namespace: m.namespace,
    payload: binary ? Buffer.from(m.payloadBinary) : m.payloadUtf8,
  };
}

/** Splits a byte stream into messages; push() throws FrameError on a broken stream. */
class FrameDecoder {
  constructor(maxFrame = MAX_FRAME) {
    this.maxFrame = maxFrame;
    this.buf = Buffer.alloc(0);
  }

  push(chunk) {
    this.buf = this.buf.length ? Buffer.concat([this.buf, chunk]) : chunk;
    const out = [];
    while (this.buf.length >= 4) {
      const len = this.buf.readUInt32BE(0);
      if (len > this.maxFrame) throw new FrameError(`frame length ${len} exceeds ${this.maxFrame}`);
      if (this.buf.length < 4 + len) break;
      out.push(decodeMessage(this.buf.subarray(4, 4 + len)));
      this.buf = this.buf.subarray(4 + len);
    }
    return out;
  }
}

module.exports = { encodeFrame, FrameDecoder, FrameError, MAX_FRAME, CastMessage };
