// A path of our own between the engine and its viewers, that delays and loses what passes, or swallows it all. It stands
// where the engine's candidates are: each is exchanged for a door of the relay at the same address.
import dgram from 'node:dgram';
import { once } from 'node:events';

// The same losses in every run (a linear congruential generator; its constants are those of Numerical Recipes).
function lossesOf(share) {
  let state = 1;
  return () => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return state / 2 ** 32 < share;
  };
}

async function open(address) {
  const socket = dgram.createSocket('udp4');
  socket.bind(0, address);
  await once(socket, 'listening');
  socket.on('error', () => {}); // whoever has gone does not read any more
  return socket;
}

export class UdpRelay {
  passed = 0;
  lost = 0;
  #sockets = [];
  #isLost;
  #delay;
  #isCut = false;

  // loss: share of the packets in either direction. delay: milliseconds, likewise.
  constructor({ loss = 0, delay = 0 } = {}) {
    this.#isLost = lossesOf(loss);
    this.#delay = delay;
  }

  // The candidate, an RTCIceCandidateInit, as the viewer is to have it; null when the relay has no door for it.
  async lead(candidate) {
    const words = candidate.candidate.split(' ');
    const [address, port] = [words[4], Number(words[5])];
    if (words[2].toLowerCase() !== 'udp' || address.includes(':')) return null;
    words[5] = await this.door(address, { address, port });
    return { ...candidate, candidate: words.join(' ') };
  }

  // A port of the relay's at one of the machine's addresses, that leads to the target's.
  async door(at, { address, port }) {
    const door = await this.#socket(at);
    const backs = new Map(); // as a NAT does: a socket for each address of the viewer
    door.on('message', async (packet, from) => {
      const key = `${from.address} ${from.port}`;
      if (!backs.has(key)) backs.set(key, this.#openBack(door, from));
      const back = await backs.get(key);
      this.#pass(packet, back, port, address);
    });
    return door.address().port;
  }

  // From now on nothing passes, as when the viewer's network is gone.
  cut() {
    this.#isCut = true;
  }

  close() {
    this.cut();
    for (const socket of this.#sockets.splice(0)) socket.close();
  }

  async #openBack(door, viewer) {
    const back = await this.#socket('0.0.0.0');
    back.on('message', (packet) => this.#pass(packet, door, viewer.port, viewer.address));
    return back;
  }

  async #socket(address) {
    const socket = await open(address);
    if (this.#isCut) socket.close();
    else this.#sockets.push(socket);
    return socket;
  }

  #pass(packet, socket, port, address) {
    if (this.#isCut) return;
    if (this.#isLost()) {
      ++this.lost;
      return;
    }
    ++this.passed;
    const send = () => this.#isCut || socket.send(packet, port, address);
    if (this.#delay === 0) send();
    else setTimeout(send, this.#delay);
  }
}
