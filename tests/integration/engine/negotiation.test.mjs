import assert from 'node:assert/strict';
import { networkInterfaces } from 'node:os';
import { after, test } from 'node:test';
import { setTimeout as pause } from 'node:timers/promises';
import { State, withProbe } from './support/probe.mjs';
import { StunServer } from './support/stun_server.mjs';
import { endViewers, kH264, kPcmu, Viewer } from './support/viewer.mjs';

after(endViewers);

function mediaSections(sdp) {
  return sdp.split(/^(?=m=)/m).slice(1);
}

test('the answer takes the offered H.264 and PCMU, bundled, with our own fingerprint', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe);
  await viewer.call();
  const [video, audio] = mediaSections(viewer.answerSdp);
  assert.match(viewer.answerSdp, /^a=group:BUNDLE video audio\r?$/m);
  assert.match(video, new RegExp(`^m=video [1-9]\\d* UDP/TLS/RTP/SAVPF ${kH264}\\b`));
  assert.match(video, new RegExp(`^a=rtpmap:${kH264} H264/90000\\r?$`, 'mi'));
  assert.match(video, new RegExp(`^a=fmtp:${kH264} .*packetization-mode=1`, 'm'));
  assert.match(video, /^a=sendonly\r?$/m);
  assert.match(video, new RegExp(`^a=rtcp-fb:${kH264} nack pli\\r?$`, 'm'));
  assert.doesNotMatch(video, /^a=ssrc(-group:FID)?:? ?0\b/m);
  assert.match(audio, new RegExp(`^m=audio [1-9]\\d* UDP/TLS/RTP/SAVPF ${kPcmu}\\r?$`, 'm'));
  assert.match(audio, /^a=sendrecv\r?$/m);
  for (const section of [video, audio]) {
    assert.match(section, /^a=setup:(active|passive)\r?$/m);
    assert.match(section, /^a=rtcp-mux\r?$/m);
  }
  assert.match(viewer.answerSdp, /^a=fingerprint:sha-256 /m);
  assert.match(viewer.answerSdp, /^a=ice-ufrag:.{4,}/m);
}));

test('candidates trickle after the answer, DTLS connects and the states come in order', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe);
  await viewer.connect();
  await probe.state(viewer.session, State.CONNECTED);
  assert.deepEqual(probe.states(viewer.session), [State.NEW, State.CONNECTING, State.CONNECTED]);

  const names = probe.events.items.map((event) => event.event);
  assert.ok(names.indexOf('answer') < names.indexOf('candidate'), 'no candidate overtakes the answer');
  const { candidate } = probe.events.items.find((event) => event.event === 'candidate');
  const init = JSON.parse(candidate);
  assert.match(init.candidate, /^candidate:\S+ 1 udp \d+ \S+ \d+ typ host/i);
  assert.equal(init.sdpMid, 'video');
  assert.equal(init.sdpMLineIndex, 0);
  assert.equal(names.filter((name) => name === 'answer').length, 1);
}));

test('without trickle the answer holds all candidates and none follows', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe, { session: { trickleIce: false } });
  await viewer.connect();
  assert.match(viewer.answerSdp, /^a=candidate:\S+ 1 udp /mi);
  await probe.state(viewer.session, State.CONNECTED);
  assert.ok(!probe.events.items.some((event) => event.event === 'candidate'));
}));

test('candidates that come before the offer are kept for it', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe, { giveCandidates: false });
  const offer = await viewer.makeOffer();
  const candidate = await viewer.localCandidates.find(({ candidate: line }) => / typ host/.test(line), 'a host candidate');
  viewer.session = await probe.createSession();
  assert.equal(await viewer.giveCandidate(candidate), 0);
  await viewer.callWith(offer);
  await viewer.states.find((state) => state === 'connected', 'the connection');
}));

test('the engine connects to a viewer that it learns of by its checks only', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe, { giveCandidates: false });
  await viewer.call();
  const hidden = 'candidate:1 1 UDP 2113937151 0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0.local 50000 typ host';
  assert.equal(await viewer.giveCandidate({ candidate: hidden, sdpMid: 'video', sdpMLineIndex: 0 }), 0);
  await probe.state(viewer.session, State.CONNECTED);
}));

test('a viewer whose certificate is not the one that its offer announced gets nothing', () => withProbe(async (probe) => {
  await probe.startVideo();
  const viewer = new Viewer(probe);
  const offer = await viewer.makeOffer();
  viewer.session = await probe.createSession();
  const other = offer.replace(/^(a=fingerprint:sha-256 )../gm, (line, start) => start + (line.endsWith('00') ? '11' : '00'));
  await viewer.callWith(other);
  await probe.state(viewer.session, State.FAILED, { patience: 120_000 });
  assert.ok(!probe.states(viewer.session).includes(State.CONNECTED));
  assert.equal(viewer.video.items.length, 0);
}));

test('an offer without H.264 is answered for its PCMU alone', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe);
  const offer = await viewer.makeOffer();
  viewer.session = await probe.createSession();
  await probe.do('offer', { session: viewer.session, sdp: offer.replace(/H264\/90000/g, 'VP8/90000').replace(/^a=fmtp.*\r\n/gm, '') });
  const { sdp } = await probe.event('answer', viewer.session);
  const [video, audio] = mediaSections(sdp);
  assert.ok(/^m=video 0 /.test(video) || /^a=inactive\r?$/m.test(video), 'the video section is turned down');
  assert.match(audio, /^a=sendrecv\r?$/m);
}));

test('of all the candidates that a viewer names, before and after its offer, 64 are checked', () => withProbe(async (probe) => {
  const kMost = 64;
  // libnice does not check loopback addresses from other ones.
  const { address } = Object.values(networkInterfaces()).flat().find(({ family, internal }) => family === 'IPv4' && !internal);
  const targets = await Promise.all(Array.from({ length: kMost + 16 }, () => StunServer.start(null, address)));
  const viewer = new Viewer(probe);
  const session = await probe.createSession();
  const name = ({ port }) => probe.do('candidate', { session, candidate: `candidate:${port} 1 UDP 2113937151 ${address} ${port} typ host` });
  for (const target of targets.slice(0, kMost / 2)) await name(target);
  assert.equal(await probe.do('offer', { session, sdp: await viewer.makeOffer() }), 0);
  for (const target of targets.slice(kMost / 2)) await name(target);

  const checked = () => targets.filter(({ requests }) => requests > 0).length;
  for (let i = 0; i < 300 && checked() < kMost; ++i) await pause(100);
  await pause(2000); // for what should not come: the checks are 20 ms apart
  assert.equal(checked(), kMost);
  await probe.do('close', { session });
  for (const target of targets) target.stop();
}));

test('what cannot be read is refused with one line and harms nobody else', () => withProbe(async (probe) => {
  await probe.startVideo();
  const watching = new Viewer(probe);
  await watching.connect();

  const session = await probe.createSession();
  assert.notEqual(await probe.do('offer', { session, sdp: 'garbage' }), 0);
  assert.notEqual(await probe.do('candidate', { session, candidate: '{"candidate":"nonsense"}' }), 0);
  assert.notEqual(await probe.do('candidate', { session, candidate: 'candidate:1 1 UDP 1 no.such.host 9 typ host' }), 0);
  await probe.complaints.collect(3, () => true, 'lines on standard error');
  assert.equal(await probe.do('close', { session }), 0);

  const seen = watching.video.items.length;
  await watching.video.collect(50, () => true, 'packets of the viewer that watches', seen);
  assert.deepEqual(probe.states(watching.session), [State.NEW, State.CONNECTING, State.CONNECTED]);
  assert.equal(probe.complaints.items.length, 3, probe.complaints.items.join('\n'));
}));

test('a session that never connects fails by itself and its id names nothing any more', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe);
  viewer.session = await probe.createSession();
  assert.equal(await probe.do('offer', { session: viewer.session, sdp: await viewer.makeOffer() }), 0);
  await probe.state(viewer.session, State.FAILED, { patience: 120_000 });
  assert.notEqual(await probe.do('close', { session: viewer.session }), 0);
}));
