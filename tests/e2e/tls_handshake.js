// tls_handshake.js SERVER-CONTAINER CLIENT-CONTAINER CLIENT-CERTIFICATE
//
// A TLS 1.2 server and a client in one process. Each proves itself with a key that OpenSSL's engine "capi" finds
// in a container, and insists on the other's proof. The client sends random bytes, which the server sends back.
// The exit code is 0 if all of that came to pass; otherwise the first error, which nobody catches, ends the
// program.
'use strict';
const assert = require('assert');
const crypto = require('crypto');
const fs = require('fs');
const { buffer } = require('stream/consumers');
const tls = require('tls');

const [serverContainer, clientContainer, clientCertificate] = process.argv.slice(2);
const message = crypto.randomBytes(100000);

// A handshake that hangs must not hang the test. A password dialog that nobody answers stops this timer too: that
// one ends with the time limit of whoever started this program.
setTimeout(assert.fail, 40000, 'not finished in time').unref();

function identity(container, certificate) {
    return {
        ca: fs.readFileSync('ca.pem'),
        cert: fs.readFileSync(certificate),
        privateKeyIdentifier: container,
        privateKeyEngine: 'capi',
        maxVersion: 'TLSv1.2',
        sigalgs: 'RSA+SHA256',
    };
}

async function talk(socket) {
    socket.end(message);
    assert.ok((await buffer(socket)).equals(message));
    console.log('both sides verified each other and exchanged data');
    process.exit(0);
}

const serverOptions = { ...identity(serverContainer, 'server.pem'), requestCert: true, rejectUnauthorized: true };
const server = tls.createServer(serverOptions, (socket) => socket.pipe(socket));
server.on('tlsClientError', assert.ifError);
server.listen(0, '127.0.0.1', () => {
    const client = tls.connect({
        ...identity(clientContainer, clientCertificate),
        host: '127.0.0.1',
        port: server.address().port,
        servername: 'server',
    }, () => talk(client));
});
