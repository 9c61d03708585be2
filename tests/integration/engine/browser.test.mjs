// What only a browser does: telling the engine that its peer connection is closed, and decoding.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { chromium } from 'playwright-core';
import { State, withProbe } from './support/probe.mjs';

let browser;
before(async () => {
  browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args: ['--headless=new', '--no-sandbox', '--disable-gpu'] });
});
after(() => browser.close());

// A page that watches one session of the probe; page.close() is the person closing the tab.
async function watch(probe) {
  const page = await browser.newPage();
  const session = await probe.createSession();
  await page.exposeFunction('giveOffer', (sdp) => probe.do('offer', { session, sdp }));
  await page.exposeFunction('giveCandidate', (candidate) => probe.do('candidate', { session, candidate }));
  await page.evaluate(async () => {
    const peer = (window.peer = new RTCPeerConnection());
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
  });
  const answer = await probe.event('answer', session);
  await page.evaluate((sdp) => window.peer.setRemoteDescription({ type: 'answer', sdp }), answer.sdp);
  const unfollow = probe.events.follow((event) => {
    if (event.event !== 'candidate' || event.session !== session) return;
    page.evaluate((candidate) => window.peer.addIceCandidate(JSON.parse(candidate)), event.candidate).catch(() => {});
  });
  await probe.state(session, State.CONNECTED);
  return { page, session, unfollow };
}

test('Chromium decodes the video', () => withProbe(async (probe) => {
  await probe.startVideo({ onDemand: false });
  const { page, unfollow } = await watch(probe);
  await page.waitForFunction(() => document.querySelector('video').getVideoPlaybackQuality().totalVideoFrames > 20,
    null, { timeout: 60_000 });
  assert.equal(await page.evaluate(() => document.querySelector('video').videoWidth), 640);
  unfollow();
  await page.close();
}));

test('a peer connection that the viewer closes is seen as closed, not as lost', () => withProbe(async (probe) => {
  await probe.startVideo();
  const { page, session, unfollow } = await watch(probe);
  await page.evaluate(() => window.peer.close());
  await probe.state(session, State.CLOSED);
  assert.equal(probe.states(session).at(-1), State.CLOSED);
  assert.notEqual(await probe.do('close', { session }), 0, 'the engine has let go of the session');
  unfollow();
  await page.close();
}));
