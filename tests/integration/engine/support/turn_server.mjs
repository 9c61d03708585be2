// A coturn of its own on loopback.
import { spawn } from 'node:child_process';
import dgram from 'node:dgram';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { EventLog } from './event_log.mjs';

const kUser = 'camera';
const kPassword = 'pass:word/+=';

// coturn cannot be given port 0 and tell what it got: the kernel chooses, and a loss of the race shows in the log.
function freePort() {
  return new Promise((resolve, reject) => {
    const socket = dgram.createSocket('udp4').once('error', reject);
    socket.bind(0, '127.0.0.1', () => {
      const { port } = socket.address();
      socket.close(() => resolve(port));
    });
  });
}

export class TurnServer {
  #output = new EventLog();

  static async start() {
    const server = new TurnServer();
    server.port = await freePort();
    server.directory = fs.mkdtempSync(path.join(os.tmpdir(), 'turn-'));
    // It goes with us, also when we are killed.
    server.process = spawn('setpriv', [
      '--pdeathsig', 'TERM', 'turnserver', '-n', '--listening-ip=127.0.0.1', '--relay-ip=127.0.0.1', `--listening-port=${server.port}`, '--no-tls', '--no-dtls',
      '--no-cli', '--lt-cred-mech', '--realm=test', `--user=${kUser}:${kPassword}`, '--allow-loopback-peers',
      '--log-file=stdout', '--verbose', `--pidfile=${server.directory}/pid`, `--userdb=${server.directory}/users`,
    ]);
    server.exited = new Promise((resolve) => server.process.once('exit', resolve));
    let text = '';
    server.process.stdout.on('data', (chunk) => server.#output.push((text += chunk)));
    await server.#output.find((output) => output.includes(`listener opened on : 127.0.0.1:${server.port}`), 'a listening coturn');
    return server;
  }

  iceServer(transport, credential = kPassword) {
    return { url: `turn:127.0.0.1:${this.port}?transport=${transport}`, username: kUser, credential };
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
