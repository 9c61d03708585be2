// Viewers in a process of their own, each on a session of a sender.
import { fork } from 'node:child_process';
import { once } from 'node:events';

const kPatience = 30_000;

export class Crowd {
  #sessions = new Map(); // viewer to session
  #next = 0;

  constructor(sender) {
    this.sender = sender;
    this.process = fork(new URL('receiver.mjs', import.meta.url));
    this.process.setMaxListeners(0);
  }

  get size() {
    return this.#sessions.size;
  }

  #message(matches) {
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error('a viewer did not connect')), kPatience);
      const look = (message) => {
        if (!matches(message)) return;
        clearTimeout(timer);
        this.process.off('message', look);
        resolve(message);
      };
      this.process.on('message', look);
    });
  }

  async grow(count) {
    while (this.size < count) await this.#add();
  }

  async #add() {
    const id = this.#next++;
    const candidates = [];
    let give = (candidate) => candidates.push(candidate);
    this.process.on('message', (message) => message.id === id && message.candidate && give(message.candidate));
    const connected = this.#message((message) => message.id === id && message.connected);
    const offered = this.#message((message) => message.id === id && message.offer);
    this.process.send({ do: 'offer', id });
    const sdp = (await offered).offer;
    const session = await this.sender.do('create');
    this.#sessions.set(id, session);
    this.sender.follow(session, (event) => {
      if (event.event === 'answer') this.process.send({ do: 'answer', id, sdp: event.sdp });
      if (event.event === 'candidate') this.process.send({ do: 'candidate', id, candidate: event.candidate });
    });
    await this.sender.do('offer', { session, sdp });
    give = (candidate) => this.sender.ask('candidate', { session, candidate: JSON.stringify(candidate) });
    candidates.forEach(give);
    await connected;
  }

  // What each viewer has received so far, and when that was asked, in milliseconds.
  async counts() {
    const told = this.#message((message) => message.counts);
    this.process.send({ do: 'counts' });
    return told;
  }

  freeze() {
    this.process.kill('SIGSTOP');
  }

  thaw() {
    this.process.kill('SIGCONT');
  }

  // The sessions are closed first, the viewers' side after.
  async leave() {
    for (const session of this.#sessions.values()) await this.sender.close(session);
    this.#sessions.clear();
    const exited = once(this.process, 'exit');
    this.process.send({ do: 'leave' });
    await exited;
  }
}
