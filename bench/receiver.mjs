// A process with any number of viewers, driven by messages of its parent (crowd.mjs).
import { Viewer, endViewers } from './viewer.mjs';

const viewers = new Map();

const commands = {
  async offer({ id }) {
    const viewer = new Viewer({ onCandidate: (candidate) => process.send({ id, candidate }) });
    viewers.set(id, viewer);
    viewer.connected.then(() => process.send({ id, connected: true }));
    process.send({ id, offer: await viewer.offer() });
  },
  answer({ id, sdp }) { viewers.get(id).takeAnswer(sdp); },
  candidate({ id, candidate }) { viewers.get(id).takeCandidate(candidate); },
  counts() { process.send({ at: performance.now(), counts: [...viewers.values()].map((viewer) => viewer.counts()) }); },
  leave() {
    for (const viewer of viewers.values()) viewer.close();
    viewers.clear();
    endViewers();
    process.disconnect();
  },
};

process.on('message', (message) => commands[message.do](message));
