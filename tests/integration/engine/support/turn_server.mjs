// A coturn of its own on loopback.
import { spawn } from 'node:child_process';
import crypto from 'node:crypto';
import dgram from 'node:dgram';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { EventLog } from './event_log.mjs';

// As odd as coturn lets them be: no blanks, quotes and angle brackets in the user's name.
const kUser = 'kaméra@home/%20?&#+=';
const kPassword = 'p a:ss/w%3Aord?&#@"\'<ö>+=';
const kSecret = 'a secret of the server';

// As services hand them out for a while: the time of expiry before the name, and a digest for it.
function temporaryCredentials() {
  const username = `${Math.floor(Date.now() / 1000) + 3600}:camera`;
  return { username, credential: crypto.createHmac('sha1', kSecret).update(username).digest('base64') };
}

// coturn cannot be given port 0 and tell what it got: the kernel chooses, and a loss of the race shows in the log.
function freePort(address) {
  return new Promise((resolve, reject) => {
    const socket = dgram.createSocket('udp4').once('error', reject);
    socket.bind(0, address, () => {
      const { port } = socket.address();
      socket.close(() => resolve(port));
    });
  });
}

export class TurnServer {
  #output = new EventLog();

  // address: one of loopback's. temporary: with credentials that expire instead of lasting ones.
  static async start({ address = '127.0.0.1', temporary = false } = {}) {
    const server = new TurnServer();
    server.address = address;
    server.credentials = temporary ? temporaryCredentials() : { username: kUser, credential: kPassword };
    server.port = await freePort(address);
    server.directory = fs.mkdtempSync(path.join(os.tmpdir(), 'turn-'));
    // It goes with us, also when we are killed.
    server.process = spawn('setpriv', [
      '--pdeathsig', 'TERM', 'turnserver', '-n', '--realm=test', '--no-tls', '--no-dtls', '--no-cli', '--verbose',
      `--listening-ip=${address}`, `--listening-port=${server.port}`, `--relay-ip=${address}`, '--allow-loopback-peers',
      ...(temporary ? ['--use-auth-secret', `--static-auth-secret=${kSecret}`] : ['--lt-cred-mech', `--user=${kUser}:${kPassword}`]),
      '--log-file=stdout', `--pidfile=${server.directory}/pid`, `--userdb=${server.directory}/users`,
    ]);
    server.exited = new Promise((resolve) => server.process.once('exit', resolve));
    let text = '';
    server.process.stdout.on('data', (chunk) => server.#output.push((text += chunk)));
    await server.#output.find((output) => output.includes(`listener opened on : ${address}:${server.port}`), 'a listening coturn');
    return server;
  }

  // For the engine's sessions.
  iceServer(transport, more = {}) {
    return { url: this.#url(transport), ...this.credentials, ...more };
  }

  // With a server on loopback the engine's sessions use loopback too, where the relays are.
  stunServer() {
    return { url: `stun:${this.address}:${this.port}` };
  }

  // For an RTCPeerConnection that has no other path.
  relayOnlyPeer(transport) {
    return { iceTransportPolicy: 'relay', iceServers: [{ urls: this.#url(transport), ...this.credentials }] };
  }

  #url(transport) {
    return `turn:${this.address}:${this.port}?transport=${transport}`;
  }

  log() {
    return this.#output.items.at(-1) ?? '';
  }

  async stop() {
    this.process.kill();
    await this.exited;
    fs.rmSync(this.directory, { recursive: true });
  }
}
