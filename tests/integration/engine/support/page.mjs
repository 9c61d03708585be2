// Chromium as a viewer of a probe's session.
import { chromium } from 'playwright-core';
import { State } from './probe.mjs';

const kPatience = { timeout: 60_000 };

export function launchChromium() {
  return chromium.launch({ executablePath: '/usr/bin/chromium', args: ['--headless=new', '--no-sandbox', '--disable-gpu'] });
}

// Runs in the page: offers, and shows what comes.
async function offer(configuration) {
  const peer = (window.peer = new RTCPeerConnection(configuration));
  peer.addTransceiver('video', { direction: 'recvonly' });
  peer.addTransceiver('audio', { direction: 'recvonly' });
  const video = document.body.appendChild(document.createElement('video'));
  video.muted = true;
  peer.ontrack = ({ track }) => {
    if (track.kind !== 'video') return;
    video.srcObject = new MediaStream([track]);
    video.play();
  };
  peer.onicecandidate = ({ candidate }) => candidate && window.giveCandidate(JSON.stringify(candidate));
  await peer.setLocalDescription();
  await window.giveOffer(peer.localDescription.sdp);
}

// Runs in the page: the types of the candidates of the pair in use.
async function readPair() {
  const stats = await window.peer.getStats();
  const transport = [...stats.values()].find(({ type }) => type === 'transport');
  const pair = stats.get(transport.selectedCandidatePairId);
  return { local: stats.get(pair.localCandidateId).candidateType, remote: stats.get(pair.remoteCandidateId).candidateType };
}

export class PageViewer {
  // session: what the engine's session is created with. peer: an RTCConfiguration. relay: a UdpRelay, the only way
  // from the page to the engine.
  static async open(browser, probe, { session = {}, peer = {}, relay } = {}) {
    const viewer = new PageViewer();
    viewer.page = await browser.newPage();
    viewer.session = await probe.createSession(session);
    await viewer.page.exposeFunction('giveOffer', (sdp) => probe.do('offer', { session: viewer.session, sdp }));
    await viewer.page.exposeFunction('giveCandidate',
      (candidate) => relay || probe.do('candidate', { session: viewer.session, candidate }));
    await viewer.page.evaluate(offer, peer);
    const answer = await probe.event('answer', viewer.session);
    await viewer.page.evaluate((sdp) => window.peer.setRemoteDescription({ type: 'answer', sdp }), answer.sdp);
    viewer.unfollow = probe.events.follow((event) => {
      if (event.event === 'candidate' && event.session === viewer.session) viewer.#addCandidate(event.candidate, relay);
    });
    await probe.state(viewer.session, State.CONNECTED);
    return viewer;
  }

  async #addCandidate(text, relay) {
    const candidate = relay ? await relay.lead(JSON.parse(text)) : JSON.parse(text);
    // The page may be gone.
    if (candidate) await this.page.evaluate((init) => window.peer.addIceCandidate(init), candidate).catch(() => {});
  }

  async shows(frames) {
    await this.page.waitForFunction((count) => {
      return document.querySelector('video').getVideoPlaybackQuality().totalVideoFrames > count;
    }, frames, kPatience);
  }

  width() {
    return this.page.evaluate(() => document.querySelector('video').videoWidth);
  }

  selectedPair() {
    return this.page.evaluate(readPair);
  }

  hangUp() {
    return this.page.evaluate(() => window.peer.close());
  }

  async close() {
    this.unfollow();
    await this.page.close();
  }
}
