// A sender in a process of its own: bench/sender.cpp, or its like on another stack.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import readline from 'node:readline';

const kPatience = 30_000;
const kFailed = 5; // as KOVRA_STATE; CLOSED is the only one above

export class Sender {
  #results = []; // who waits for the result of a command, in the order of the commands
  #sessions = new Map(); // session to function that takes its events
  #early = new Map(); // events of sessions whose creation is not yet known here
  #ended = new Set(); // sessions that the sender has given up by itself

  constructor(program) {
    this.process = spawn(program, { stdio: ['pipe', 'pipe', 'inherit'] });
    this.exited = new Promise((resolve) => this.process.once('exit', (code, signal) => resolve(code ?? signal)));
    this.exited.then((how) => this.#results.splice(0).forEach(({ reject }) => reject(new Error(`${program} ended: ${how}`))));
    this.process.stdin.on('error', () => {}); // an end shows by its exit code
    readline.createInterface({ input: this.process.stdout }).on('line', (line) => this.#take(JSON.parse(line)));
  }

  #take(event) {
    if (event.event === 'result') return this.#results.shift().resolve(event);
    if (event.event === 'state' && event.state >= kFailed) this.#ended.add(event.session);
    const take = this.#sessions.get(event.session);
    if (take) take(event);
    else this.#early.set(event.session, [...(this.#early.get(event.session) ?? []), event]);
  }

  ask(what, details = {}) {
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`${what} was not answered`)), kPatience);
      const done = (settle) => (value) => { clearTimeout(timer); settle(value); };
      this.#results.push({ resolve: done(resolve), reject: done(reject) });
      this.process.stdin.write(`${JSON.stringify({ do: what, ...details })}\n`);
    });
  }

  async do(what, details) {
    const { value } = await this.ask(what, details);
    if (value < 0 || (what === 'offer' && value !== 0)) throw new Error(`${what} failed`);
    return value;
  }

  // Calls take with the session's events from its begin on.
  follow(session, take) {
    this.#sessions.set(session, take);
    for (const event of this.#early.get(session) ?? []) take(event);
    this.#early.delete(session);
  }

  async close(session) {
    this.#sessions.set(session, () => {});
    const { value } = await this.ask('close', { session });
    if (value !== 0 && !this.#ended.has(session)) throw new Error('close failed');
  }

  // In MiB. pss divides pages of libraries by the processes that use them, and so depends on what else runs; rss does
  // not. anonymous leaves out what comes from files, which the kernel can drop and read again.
  memory() {
    const text = fs.readFileSync(`/proc/${this.process.pid}/smaps_rollup`, 'utf8');
    const read = (field) => Number(new RegExp(`^${field}:\\s+(\\d+) kB`, 'm').exec(text)[1]) / 1024;
    return { pss: read('Pss'), rss: read('Rss'), anonymous: read('Anonymous') };
  }

  threads() {
    return fs.readdirSync(`/proc/${this.process.pid}/task`).length;
  }

  async stop() {
    this.process.stdin.end();
    await this.exited;
  }
}
