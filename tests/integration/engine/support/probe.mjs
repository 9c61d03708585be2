// The engine under test, in a process of its own (tests/support/engine_probe.cpp).
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import readline from 'node:readline';
import { EventLog } from './event_log.mjs';

export const State = { NEW: 1, CONNECTING: 2, CONNECTED: 3, DISCONNECTED: 4, FAILED: 5, CLOSED: 6 };

// ctest tells both: the program, and the directory with h264SampleFrames/frame-001.h264 and so on.
const { SIGNALCONN_ENGINE_PROBE: program, SIGNALCONN_SAMPLE_MEDIA: sampleMedia } = process.env;
if (!program || !sampleMedia) throw new Error('set SIGNALCONN_ENGINE_PROBE and SIGNALCONN_SAMPLE_MEDIA, or run ctest');

export class Probe {
  events = new EventLog();
  complaints = new EventLog(); // lines on standard error: warnings and errors
  #results = new EventLog();
  #asked = 0;

  // options: the program's.
  constructor(options = []) {
    this.process = spawn(program, options, { stdio: ['pipe', 'pipe', 'pipe'] });
    this.process.stdin.on('error', () => {}); // a probe that died shows by its exit code
    this.exited = new Promise((resolve) => this.process.once('exit', (code, signal) => resolve(code ?? signal)));
    readline.createInterface({ input: this.process.stderr }).on('line', (line) => this.complaints.push(line));
    this.stdoutEnded = new Promise((resolve) => {
      readline.createInterface({ input: this.process.stdout }).on('line', (line) => this.#take(line)).on('close', resolve);
    });
  }

  // Anything on standard output that is not an event of the probe's own would end the test run here.
  #take(line) {
    const event = JSON.parse(line);
    (event.event === 'result' ? this.#results : this.events).push(event);
  }

  async do(what, details = {}) {
    const index = this.#asked++;
    this.process.stdin.write(`${JSON.stringify({ do: what, ...details })}\n`);
    return (await this.#results.find(() => true, `the result of ${what}`, { from: index })).value;
  }

  createSession(config = {}) {
    return this.do('create', config);
  }

  startVideo({ videoType = 1, onDemand = true } = {}) {
    return this.do('startVideo', { directory: `${sampleMedia}/h264SampleFrames`, videoType, onDemand });
  }

  startAudio(audioType = 0) {
    return this.do('startAudio', { audioType });
  }

  event(name, session, matches = () => true, options = {}) {
    return this.events.find((e) => e.event === name && e.session === session && matches(e),
      `${name} of session ${session}`, options);
  }

  state(session, state, options) {
    return this.event('state', session, (e) => e.state === state, options);
  }

  states(session) {
    return this.events.items.filter((e) => e.event === 'state' && e.session === session).map((e) => e.state);
  }

  descriptors() {
    return fs.readdirSync(`/proc/${this.process.pid}/fd`).length;
  }

  threads() {
    return fs.readdirSync(`/proc/${this.process.pid}/task`).length;
  }

  // MiB that do not come from files.
  memory() {
    const status = fs.readFileSync(`/proc/${this.process.pid}/status`, 'utf8');
    return Number(/^RssAnon:\s*(\d+) kB$/m.exec(status)[1]) / 1024;
  }

  async stop() {
    this.process.stdin.end();
    assert.equal(await this.exited, 0, `the probe ends well; it said:\n${this.complaints.items.join('\n')}`);
    await this.stdoutEnded;
  }
}

// Runs body with a probe that is stopped afterwards, whatever happens.
export async function withProbe(body, options) {
  const probe = new Probe(options);
  try {
    await body(probe);
  } finally {
    await probe.stop();
  }
}
