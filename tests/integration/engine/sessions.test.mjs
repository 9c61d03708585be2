import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { State, withProbe } from './support/probe.mjs';
import { pause, settledResources } from './support/resources.mjs';
import { UdpRelay } from './support/udp_relay.mjs';
import { endViewers, Viewer } from './support/viewer.mjs';

after(endViewers);

const packetsFromNow = (viewer, count) =>
  viewer.video.collect(count, () => true, 'video packets', viewer.video.items.length);

// Runs the session function once, for what a process acquires for good, and then count times more.
async function leavesNothing(probe, count, session) {
  await session(0);
  const before = await settledResources(probe);
  for (let i = 1; i <= count; ++i) await session(i);
  const left = await settledResources(probe);
  assert.ok(left.descriptors <= before.descriptors && left.threads <= before.threads,
    `${JSON.stringify(before)} became ${JSON.stringify(left)}`);
}

test('several viewers watch at once, and one that leaves does not disturb the others', () => withProbe(async (probe) => {
  await probe.startVideo();
  await probe.startAudio();
  const viewers = [1, 2, 3, 4].map(() => new Viewer(probe));
  await Promise.all(viewers.map((viewer) => viewer.connect()));
  await Promise.all(viewers.map((viewer) => packetsFromNow(viewer, 20)));
  assert.equal(new Set(viewers.map((viewer) => viewer.session)).size, 4);
  assert.equal(new Set(viewers.map((viewer) => viewer.video.items[0].ssrc)).size, 4, 'each has its own SSRC');

  const [leaving, ...staying] = viewers;
  await leaving.leave();
  await Promise.all(staying.map((viewer) => packetsFromNow(viewer, 50)));
  for (const viewer of staying) assert.equal(probe.states(viewer.session).at(-1), State.CONNECTED);
  assert.ok(!probe.states(leaving.session).includes(State.CLOSED), 'closing here calls nobody back');
}));

test('a viewer that vanishes is given up within 15 seconds, while another goes on watching', () => withProbe(async (probe) => {
  await probe.startVideo();
  const [vanishing, staying] = [new Viewer(probe, { relay: new UdpRelay() }), new Viewer(probe)];
  await Promise.all([vanishing.connect(), staying.connect()]);
  await packetsFromNow(vanishing, 20);
  vanishing.vanish();
  const vanished = performance.now();
  await probe.state(vanishing.session, State.FAILED);
  const noticed = performance.now() - vanished;
  assert.ok(noticed < 15_000, `${noticed} ms`);
  assert.notEqual(await probe.do('close', { session: vanishing.session }), 0);
  await packetsFromNow(staying, 20);
  assert.deepEqual(probe.states(staying.session), [State.NEW, State.CONNECTING, State.CONNECTED]);
}));

test('viewers are seen and heard over IPv6', () => withProbe(async (probe) => {
  await probe.startVideo();
  await probe.startAudio();
  // With a server on loopback the engine uses loopback's addresses too, which every machine has.
  const viewer = new Viewer(probe, { bindAddress: '::1', session: { iceServers: [{ url: 'stun:[::1]:9' }] } });
  await viewer.connect();
  await packetsFromNow(viewer, 50);
  await viewer.audio.collect(20, () => true, 'audio packets');
  assert.equal(viewer.peer.getSelectedCandidatePair().remote.address, '::1');
  assert.equal(viewer.peer.getSelectedCandidatePair().local.address, '::1');
}));

// What a session said of itself on standard error, in words and numbers.
async function lastWords(probe, session) {
  const line = await probe.complaints.find((text) => text.startsWith(`engine: session ${session}: ends`), 'the last line');
  assert.equal(probe.complaints.items.filter((text) => text.startsWith(`engine: session ${session}: `)).length, 2,
    probe.complaints.items.join('\n'));
  return line;
}

const kSessionLines = ['3'];

test('one line tells of a session that it begins, one how it went and why it ended', () => withProbe(async (probe) => {
  await probe.startVideo();
  await probe.startAudio();
  const viewer = new Viewer(probe);
  await viewer.connect();
  await probe.complaints.find((text) => text === `engine: session ${viewer.session}: begins with video and audio`, 'a first line');
  await packetsFromNow(viewer, 50);
  await viewer.leave();
  assert.match(await lastWords(probe, viewer.session), new RegExp('^engine: session \\d+: ends after \\d+\\.\\d s: closed; '
    + 'connected in \\d+ ms by (host|prflx) to (host|prflx); [5-9]\\d|\\d{3,} video and \\d+ audio packets, 0 sent again, '
    + '0\\.0 % lost, round trip \\d+\\.\\d ms, 0 frames dropped$'));
}, kSessionLines));

test('one line tells why a session never connected', () => withProbe(async (probe) => {
  const session = await probe.createSession();
  await probe.do('offer', { session, sdp: await new Viewer(probe).makeOffer() });
  await probe.event('answer', session);
  await probe.do('close', { session });
  assert.match(await lastWords(probe, session), /: ends after \d+\.\d s, never connected: closed$/);
}, kSessionLines));

test('fifty sessions one after another leave no descriptors and no threads behind', () => withProbe(async (probe) => {
  await probe.startVideo();
  await leavesNothing(probe, 50, async () => {
    const viewer = new Viewer(probe);
    await viewer.connect();
    await viewer.video.collect(5, () => true, 'video packets');
    await viewer.leave();
  });
}));

test('sessions closed while they negotiate leave nothing behind', () => withProbe(async (probe) => {
  const offer = await new Viewer(probe).makeOffer();
  await leavesNothing(probe, 40, async (i) => {
    const session = await probe.createSession();
    assert.equal(await probe.do('offer', { session, sdp: offer }), 0);
    await pause(i / 4);
    assert.equal(await probe.do('close', { session }), 0);
  });
}));
