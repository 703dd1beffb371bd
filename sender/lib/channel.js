'use strict';
// One cast v2 connection over an established (TLS) socket, used by both ends: frames in and
// out, JSON payloads parsed. Any fault of the stream (socket error, end, oversized or
// undecodable frame) closes it once, with the reason, and never throws to the caller.
const { EventEmitter } = require('events');
const { encodeFrame, FrameDecoder } = require('./codec');

const NS = {
  connection: 'urn:x-cast:com.google.cast.tp.connection',
  heartbeat: 'urn:x-cast:com.google.cast.tp.heartbeat',
  receiver: 'urn:x-cast:com.google.cast.receiver',
  media: 'urn:x-cast:com.google.cast.media',
};

class CastChannel extends EventEmitter {
  constructor(socket) {
    super();
    this.socket = socket;
    this.closed = false;
    this.decoder = new FrameDecoder();
    socket.on('data', (chunk) => this._onData(chunk));
    socket.on('error', (e) => this._close(e.message));
    socket.on('end', () => this._close('closed by the peer'));
    socket.on('close', () => this._close('connection closed'));
  }

  _onData(chunk) {
    if (this.closed) return;
    let msgs;
    try {
      msgs = this.decoder.push(chunk);
    } catch (e) {
      this._close(e.message);
      return;
    }
    for (const m of msgs) {
      if (this.closed) return;
      m.data = null;
      if (typeof m.payload === 'string') {
        try {
          m.data = JSON.parse(m.payload);
        } catch {
          // Not JSON: handed on with data null; the namespaces used here all carry JSON.
        }
      }
      this.emit('message', m);
    }
  }

  /** Sends one message; false when the channel is closed. */
  send(sourceId, destinationId, namespace, payload) {
    if (this.closed) return false;
    this.socket.write(encodeFrame({ sourceId, destinationId, namespace, payload }));
    return true;
  }

  /** Writes raw bytes (the simulated receiver's broken frames). */
  sendRaw(bytes) {
    if (!this.closed) this.socket.write(bytes);
  }

  /** Ends the connection after what was written is flushed; resolves once the socket is shut. */
  end() {
    if (this.closed) return Promise.resolve();
    this.closed = true;
    const shut = new Promise((resolve) => {
      this.socket.once('close', resolve);
      // A peer that never acknowledges the end must not keep the socket open.
      setTimeout(() => {
        this.socket.destroy();
        resolve();
      }, 1000).unref();
    });
    this.socket.end();
    this.emit('close', 'closed here');
    return shut;
  }

  destroy(reason = 'closed here') {
    this._close(reason);
  }

  _close(reason) {
    if (this.closed) return;
    this.closed = true;
    this.socket.destroy();
    this.emit('close', reason);
  }
}

module.exports = { CastChannel, NS };
