import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { State, withProbe } from './support/probe.mjs';
import { Nal, nalTypesOf } from './support/rtp.mjs';
import { endViewers, kH264, kPcmu, Viewer } from './support/viewer.mjs';

after(endViewers);

const kVoice = 0x5a;
const kSilence = 0xff; // in u-law

const isIdr = (packet) => nalTypesOf(packet).includes(Nal.IDR);
const difference = (from, to, bits) => (bits === 16 ? (to - from) & 0xffff : (to - from) >>> 0);

test('H.264 comes as RTP: SPS, PPS and IDR first, in sequence, each access unit marked at its end', () => withProbe(async (probe) => {
  await probe.startVideo();
  const viewer = new Viewer(probe);
  await viewer.connect();
  const packets = await viewer.video.collect(200, () => true, 'video packets');

  const firstUnit = packets.slice(0, packets.findIndex((packet) => packet.marker) + 1);
  const types = firstUnit.flatMap(nalTypesOf);
  assert.ok(types.indexOf(Nal.SPS) === 0 && types.indexOf(Nal.PPS) === 1 && types.includes(Nal.IDR), `NAL units ${types}`);

  for (const [i, packet] of packets.entries()) {
    assert.equal(packet.version, 2);
    assert.equal(packet.payloadType, kH264);
    assert.equal(packet.ssrc, packets[0].ssrc);
    assert.ok(packet.payload.length <= 1200);
    if (i === 0) continue;
    assert.equal(difference(packets[i - 1].sequence, packet.sequence, 16), 1);
    assert.equal(packet.timestamp !== packets[i - 1].timestamp, packets[i - 1].marker, 'one timestamp an access unit');
  }
}));

test('video timestamps follow the time of arrival at 90 kHz', () => withProbe(async (probe) => {
  await probe.startVideo();
  const viewer = new Viewer(probe);
  await viewer.connect();
  const units = await viewer.video.collect(60, (packet) => packet.marker, 'access units');
  const delays = units.map(({ timestamp, arrived }) => arrived - difference(units[0].timestamp, timestamp, 32) / 90);
  // A loaded machine delays single packets, the first of all, but not all of them.
  const least = (some) => Math.min(...some);
  const drift = least(delays.slice(30)) - least(delays.slice(0, 30));
  assert.ok(Math.abs(drift) < 1000, `${drift} ms between the stream's clock and ours`);
  const media = difference(units[0].timestamp, units[59].timestamp, 32) / 90;
  assert.ok(media > 2000, `${media} ms of media`);
}));

test('PCMU comes as RTP with timestamps that count samples', () => withProbe(async (probe) => {
  await probe.startAudio();
  const viewer = new Viewer(probe);
  await viewer.connect();
  const packets = await viewer.audio.collect(50, () => true, 'audio packets');
  for (const [i, packet] of packets.entries()) {
    assert.equal(packet.payloadType, kPcmu);
    assert.equal(packet.payload.length, 160);
    assert.equal(packet.marker, false);
    if (i === 0) continue;
    assert.equal(difference(packets[i - 1].timestamp, packet.timestamp, 32), 160);
    assert.equal(difference(packets[i - 1].sequence, packet.sequence, 16), 1);
  }
}));

test("the viewer's voice reaches onAudioFrame byte for byte", () => withProbe(async (probe) => {
  const viewer = new Viewer(probe);
  await viewer.connect();
  const speaking = setInterval(() => viewer.speak(kVoice), 20);
  try {
    const isVoice = ({ first }) => first === kVoice;
    await probe.events.collect(20, (event) => event.event === 'audio' && isVoice(event), 'frames of the voice');
    for (const frame of probe.events.items.filter(({ event }) => event === 'audio')) {
      assert.equal(frame.length, 160);
      // On a loaded machine frames come too late: then it is silent.
      assert.ok(isVoice(frame) || frame.first === kSilence, `a frame of ${frame.first}`);
    }
  } finally {
    clearInterval(speaking);
  }
}));

for (const [name, request] of [['PLI', 'requestKeyFrameByPli'], ['FIR', 'requestKeyFrameByFir']]) {
  test(`a ${name} makes the engine ask for a key frame until it came`, () => withProbe(async (probe) => {
    await probe.startVideo();
    const viewer = new Viewer(probe);
    await viewer.connect();
    const [first] = await viewer.video.collect(1, isIdr, 'the first key frame');
    await probe.events.find((event) => event.event === 'wantIFrame' && event.value === 0, 'the end of the first wish');

    const events = probe.events.items.length;
    const packets = viewer.video.items.length;
    // An engine may hold requests back that come too close together: ask again until it takes one.
    const asking = setInterval(() => viewer[request](first.ssrc), 500);
    try {
      await probe.events.find((event) => event.event === 'wantIFrame' && event.value === 1, 'the wish', { from: events });
    } finally {
      clearInterval(asking);
    }
    await viewer.video.collect(1, isIdr, 'a key frame on demand', packets);
    await probe.events.find((event) => event.event === 'wantIFrame' && event.value === 0, 'the end of the wish', { from: events });
  }));
}

test('nothing is sent before the first key frame, with a camera that cannot make one on demand', () => withProbe(async (probe) => {
  await probe.startVideo({ onDemand: false });
  const viewer = new Viewer(probe);
  await viewer.connect();
  const packets = await viewer.video.collect(20, () => true, 'video packets');
  assert.equal(nalTypesOf(packets[0])[0], Nal.SPS);
}));

test('a session receives the media of the types that it has chosen, from a key frame on', () => withProbe(async (probe) => {
  await probe.startVideo({ videoType: 2 });
  await probe.startAudio(5);
  const viewer = new Viewer(probe);
  await viewer.connect();
  await probe.state(viewer.session, State.CONNECTED);
  assert.equal(await probe.do('types', { session: viewer.session, audioType: 5, videoType: -1 }), 0);
  await viewer.audio.collect(20, () => true, 'audio of type 5');
  assert.equal(viewer.video.items.length, 0, 'no video of type 2 yet');

  assert.equal(await probe.do('types', { session: viewer.session, audioType: -1, videoType: 2 }), 0);
  const [first] = await viewer.video.collect(20, () => true, 'video of type 2');
  assert.equal(nalTypesOf(first)[0], Nal.SPS);
}));

test('frames of a type that nobody has chosen raise no wish for a key frame', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe);
  await probe.startVideo({ videoType: 3 });
  await probe.startAudio();
  await viewer.connect();
  await viewer.audio.collect(50, () => true, 'a second of audio');
  assert.ok(!probe.events.items.some((event) => event.event === 'wantIFrame'));
  assert.equal(viewer.video.items.length, 0);
}));
