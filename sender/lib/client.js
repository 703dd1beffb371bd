'use strict';
// The sender's end of a cast v2 connection: TLS connect, virtual connections, requests matched
// to their answers by requestId with a time-out each, and the heartbeat that notices a receiver
// that has gone away without closing the socket.
const tls = require('tls');
const { EventEmitter } = require('events');
const { CastChannel, NS } = require('./channel');

const PLATFORM = 'receiver-0';

class TimeoutError extends Error {}
class LostError extends Error {}

class CastClient extends EventEmitter {
  constructor({ host, port = 8009, timeoutMs = 15000, heartbeatMs = 5000, sourceId } = {}) {
    super();
    this.host = host;
    this.port = port;
    this.timeoutMs = timeoutMs;
    this.heartbeatMs = heartbeatMs;
    this.sourceId = sourceId || `sender-${process.pid}`;
    this.channel = null;
    this.lostReason = null;
    this.nextRequestId = 1;
    this.pending = new Map(); // requestId -> { resolve, reject, timer }
    this.connected = new Set(); // destinations with a virtual connection
    this.heartbeat = null;
    this.lastHeard = 0;
  }

  get lost() {
    return this.lostReason !== null;
  }

  /** This end's address on the connection to the receiver (the interface that reaches it). */
  get localAddress() {
    return this.channel ? this.channel.socket.localAddress : undefined;
  }

  /** Opens the TLS connection and the virtual connection to the platform. */
  connect() {
    return new Promise((resolve, reject) => {
      // Cast devices present certificates that no public authority signed, so the
      // certificate is not verified (see the operations guide).
      const socket = tls.connect({ host: this.host, port: this.port, rejectUnauthorized: false });
      const fail = (reason) => {
        clearTimeout(timer);
        socket.destroy();
        this.lostReason = reason;
        reject(new LostError(reason));
      };
      const timer = setTimeout(() => fail(`no TLS connection to ${this.host}:${this.port} within ${this.timeoutMs} ms`),
        this.timeoutMs);
      socket.once('error', (e) => fail(`cannot connect to ${this.host}:${this.port}: ${e.message}`));
      socket.once('secureConnect', () => {
        clearTimeout(timer);
        socket.removeAllListeners('error');
        socket.setNoDelay(true);
        this.channel = new CastChannel(socket);
        this.channel.on('message', (m) => this._onMessage(m));
        this.channel.on('close', (reason) => this._lose(reason));
        this.lastHeard = Date.now();
        this.heartbeat = setInterval(() => this._beat(), this.heartbeatMs);
        this.connectTo(PLATFORM);
        resolve();
      });
    });
  }

  /** The virtual connection to DESTINATION (the platform or an application's transport). */
  connectTo(destination) {
    if (this.connected.has(destination)) return;
    this.connected.add(destination);
    this.send(destination, NS.connection, { type: 'CONNECT', origin: {} });
  }

  send(destination, namespace, payload) {
    return this.channel !== null && this.channel.send(this.sourceId, destination, namespace, payload);
  }

  /** Sends PAYLOAD with a fresh requestId; resolves with the answer's payload. */
  request(destination, namespace, payload) {
    if (this.lost) return Promise.reject(new LostError(this.lostReason));
    const requestId = this.nextRequestId++;
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => {
        this.pending.delete(requestId);
        reject(new TimeoutError(`the receiver did not answer ${payload.type} within ${this.timeoutMs} ms`));
      }, this.timeoutMs);
      this.pending.set(requestId, { resolve, reject, timer });
      this.send(destination, namespace, { ...payload, requestId });
    });
  }

  /** Waits for a message for which TEST(message) holds, within the request time-out. */
  waitFor(test, what) {
    if (this.lost) return Promise.reject(new LostError(this.lostReason));
    return new Promise((resolve, reject) => {
      const done = () => {
        clearTimeout(timer);
        this.off('message', onMessage);
        this.off('lost', onLost);
      };
      const onMessage = (m) => {
        if (test(m)) {
          done();
          resolve(m);
        }
      };
      const onLost = (reason) => {
        done();
        reject(new LostError(reason));
      };
      const timer = setTimeout(() => {
        done();
        reject(new TimeoutError(`the receiver did not report ${what} within ${this.timeoutMs} ms`));
      }, this.timeoutMs);
      this.on('message', onMessage);
      this.on('lost', onLost);
    });
  }

  _onMessage(m) {
    this.lastHeard = Date.now();
    if (m.namespace === NS.heartbeat) {
      if (m.data && m.data.type === 'PING') this.send(m.sourceId, NS.heartbeat, { type: 'PONG' });
      return;
    }
    if (m.namespace === NS.connection && m.data && m.data.type === 'CLOSE') {
      this.connected.delete(m.sourceId);
    }
    // Listeners see every message first, so state is current when a request resolves.
    this.emit('message', m);
    const id = m.data && m.data.requestId;
    const p = id ? this.pending.get(id) : undefined;
    if (p) {
      this.pending.delete(id);
      clearTimeout(p.timer);
      p.resolve(m.data);
    }
  }

  _beat() {
    if (Date.now() - this.lastHeard > 3 * this.heartbeatMs) {
      this._lose('the receiver stopped answering the heartbeat');
      return;
    }
    this.send(PLATFORM, NS.heartbeat, { type: 'PING' });
  }

  _lose(reason) {
    if (this.lost) return;
    this.lostReason = reason || 'connection lost';
    this._stop();
    for (const [, p] of this.pending) {
      clearTimeout(p.timer);
      p.reject(new LostError(this.lostReason));
    }
    this.pending.clear();
    this.emit('lost', this.lostReason);
  }

  _stop() {
    clearInterval(this.heartbeat);
    this.heartbeat = null;
    if (this.channel) {
      this.channel.removeAllListeners('close');
      this.channel.destroy();
    }
  }

  /** Closes the virtual connections and the socket (resolves once it is shut); pending requests fail as lost. */
  close() {
    let shut = Promise.resolve();
    if (this.channel && !this.lost) {
      for (const d of [...this.connected].reverse()) this.send(d, NS.connection, { type: 'CLOSE' });
      this.channel.removeAllListeners('close');
      shut = this.channel.end();
    }
    this._lose('closed');
    return shut;
  }
}

module.exports = { CastClient, TimeoutError, LostError, PLATFORM, NS };
