'use strict';
// The origin's TLS listeners, on certificates from certs.js:
//   https    HTTP/2 with HTTP/1.1 for clients that do not offer h2 (ALPN)
//   https1   HTTP/1.1 alone, as an origin without HTTP/2 is
// and the servers a careful client must refuse, each on its own port:
//   untrusted, selfSigned, expired, wrongHost   a bad certificate of that kind
//   tls10                                        a good certificate, TLS 1.0 only
//   stall                                        accepts TCP, never says a word
// The faulty ones answer 200 to any request that gets through, and count it.
const fs = require('node:fs');
const http2 = require('node:http2');
const https = require('node:https');
const net = require('node:net');
const tls = require('node:tls');

const stats = { handshakes: 0, resumed: 0, h2Sessions: 0, h2Streams: 0, h1Requests: 0, refusedReached: 0 };

function pemPair(pair) {
  return { key: fs.readFileSync(pair.key), cert: fs.readFileSync(pair.cert) };
}

function listen(server) {
  return new Promise((resolve) => {
    server.listen(0, '127.0.0.1', () => resolve(server.address().port));
  });
}

function countHandshakes(server) {
  server.on('secureConnection', (socket) => {
    stats.handshakes += 1;
    if (socket.isSessionReused()) stats.resumed += 1;
  });
}

// Starts the two serving listeners and the faulty ones; resolves to their
// ports. `onConnection` sees every TCP connection of the serving ones.
async function listenTls(handle, certs, onConnection) {
  const leaf = pemPair(certs.leaf);
  const h2 = http2.createSecureServer({ ...leaf, allowHTTP1: true, minVersion: 'TLSv1.2' },
    (req, res) => {
      if (req.httpVersionMajor === 2) stats.h2Streams += 1;
      else stats.h1Requests += 1;
      handle(req, res);
    });
  h2.on('session', () => { stats.h2Sessions += 1; });
  const h1 = https.createServer({ ...leaf, minVersion: 'TLSv1.2', ALPNProtocols: ['http/1.1'] },
    (req, res) => {
      stats.h1Requests += 1;
      handle(req, res);
    });
  h1.keepAliveTimeout = 30000;
  for (const server of [h2, h1]) {
    countHandshakes(server);
    server.on('connection', onConnection);
  }
  const refuse = (req, res) => {
    stats.refusedReached += 1;
    res.writeHead(200, { 'Content-Type': 'text/plain' });
    res.end('a client that checks certificates never gets here');
  };
  const faulty = {
    untrusted: https.createServer(pemPair(certs.untrusted), refuse),
    selfSigned: https.createServer(pemPair(certs.selfSigned), refuse),
    expired: https.createServer(pemPair(certs.expired), refuse),
    wrongHost: https.createServer(pemPair(certs.wrongHost), refuse),
    tls10: https.createServer({ ...leaf, minVersion: 'TLSv1', maxVersion: 'TLSv1',
      ciphers: 'DEFAULT@SECLEVEL=0' }, refuse),
    stall: net.createServer(() => {}),  // the socket stays open, silent
  };
  const ports = { https: await listen(h2), https1: await listen(h1), faults: {} };
  for (const [name, server] of Object.entries(faulty)) ports.faults[name] = await listen(server);
  return ports;
}

// True when a TLS 1.0 client gets through to `port`: proves the tls10
// listener really speaks the old protocol the client is meant to refuse.
function speaksTls10(port, ca) {
  return new Promise((resolve) => {
    const socket = tls.connect({ port, host: '127.0.0.1', servername: 'localhost', ca,
      minVersion: 'TLSv1', maxVersion: 'TLSv1', ciphers: 'DEFAULT@SECLEVEL=0' },
    () => { resolve(socket.getProtocol() === 'TLSv1'); socket.destroy(); });
    socket.on('error', () => resolve(false));
  });
}

module.exports = { listenTls, stats, speaksTls10 };
