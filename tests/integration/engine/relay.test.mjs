import assert from 'node:assert/strict';
import os from 'node:os';
import { after, before, test } from 'node:test';
import { State, withProbe } from './support/probe.mjs';
import { StunServer } from './support/stun_server.mjs';
import { TurnServer } from './support/turn_server.mjs';
import { UdpRelay } from './support/udp_relay.mjs';
import { endViewers, Viewer } from './support/viewer.mjs';

let turn;
before(async () => (turn = await TurnServer.start()));
after(() => {
  endViewers();
  return turn.stop();
});

// The relay's address is loopback's: only from there do the viewer's packets carry the address that it announced.
const bindAddress = '127.0.0.1';

const localCandidates = (probe) =>
  probe.events.items.filter(({ event }) => event === 'candidate').map(({ candidate }) => JSON.parse(candidate).candidate);

// While the engine knows of no server on loopback it uses none of loopback's addresses.
const ownAddress = () => Object.values(os.networkInterfaces()).flat().find(({ family, internal }) => family === 'IPv4' && !internal).address;

// An address in a form that is a name to the engine, and that every name service knows.
const nameOf = (address) => String(address.split('.').reduce((number, byte) => number * 256 + Number(byte), 0));

for (const transport of ['udp', 'tcp']) {
  test(`with relayOnly the media go through the TURN server, reached over ${transport}`, () => withProbe(async (probe) => {
    await probe.startVideo();
    const viewer = new Viewer(probe, { bindAddress, session: { relayOnly: true, iceServers: [turn.iceServer(transport)] } });
    await viewer.connect();
    await viewer.video.collect(50, () => true, 'video packets');
    const candidates = localCandidates(probe);
    assert.ok(candidates.length > 0);
    for (const candidate of candidates) assert.match(candidate, / typ relay /);
    assert.equal(viewer.peer.getSelectedCandidatePair().remote.port, Number(candidates[0].split(' ')[5]));
  }));
}

test('temporary credentials, whose user is a time and a name, open a relay', () => withProbe(async (probe) => {
  const temporary = await TurnServer.start({ temporary: true });
  try {
    const viewer = new Viewer(probe, { bindAddress, session: { relayOnly: true, iceServers: [temporary.iceServer('udp')] } });
    await viewer.connect();
  } finally {
    await temporary.stop();
  }
}));

test('of several TURN servers all that work are used', () => withProbe(async (probe) => {
  const other = await TurnServer.start({ address: '127.0.0.2' });
  try {
    const nobody = { username: 'nobody', credential: 'there' };
    const iceServers = [
      { url: 'turn:127.0.0.1:9?transport=udp', ...nobody },
      { url: 'turn:127.0.0.1:9?transport=tcp', ...nobody },
      turn.iceServer('udp'),
      other.iceServer('tcp'),
    ];
    const viewer = new Viewer(probe, { bindAddress, session: { relayOnly: true, iceServers } });
    await viewer.connect();
    await probe.events.collect(2, ({ event }) => event === 'candidate', 'candidates');
    assert.deepEqual(new Set(localCandidates(probe).map((line) => line.split(' ')[4])), new Set(['127.0.0.1', '127.0.0.2']));
  } finally {
    await other.stop();
  }
}));

test('with relayOnly and without trickle the answer holds relayed candidates only', () => withProbe(async (probe) => {
  const session = { relayOnly: true, trickleIce: false, iceServers: [turn.iceServer('udp')] };
  const viewer = new Viewer(probe, { bindAddress, session });
  await viewer.connect();
  const candidates = viewer.answerSdp.match(/^a=candidate:.*$/gm);
  assert.ok(candidates.length > 0);
  for (const candidate of candidates) assert.match(candidate, / typ relay /);
}));

test('without trickle the answer waits for a relay though a STUN server found with it answers sooner', () => withProbe(async (probe) => {
  const stun = await StunServer.start({ address: '198.51.100.7', port: 40404 });
  const [fast, slow] = [new UdpRelay(), new UdpRelay({ delay: 100 })];
  try {
    const own = ownAddress();
    const iceServers = [
      { url: `stun:${nameOf(own)}:${await fast.door(own, { address: '127.0.0.1', port: stun.port })}` },
      { url: `turn:${nameOf(own)}:${await slow.door(own, turn)}?transport=udp`, ...turn.credentials },
    ];
    const viewer = new Viewer(probe, { session: { trickleIce: false, iceServers } });
    await viewer.call();
    assert.match(viewer.answerSdp, / typ srflx /);
    assert.match(viewer.answerSdp, / typ relay /);
  } finally {
    for (const server of [fast, slow]) server.close();
    stun.stop();
  }
}));

test('without trickle the answer waits no longer for a relay that is silent', () => withProbe(async (probe) => {
  const iceServers = [{ url: `turn:${nameOf('127.0.0.1')}:9?transport=udp`, username: 'nobody', credential: 'there' }];
  const viewer = new Viewer(probe, { session: { trickleIce: false, iceServers } });
  await viewer.connect();
  assert.match(viewer.answerSdp, / typ host/);
  assert.doesNotMatch(viewer.answerSdp, / typ relay/);
}));

test('with relayOnly and a TURN server that refuses us no other path is taken', () => withProbe(async (probe) => {
  const viewer = new Viewer(probe, { bindAddress, session: { relayOnly: true, iceServers: [turn.iceServer('udp', { credential: 'wrong' })] } });
  await viewer.call();
  await probe.state(viewer.session, State.FAILED, { patience: 120_000 });
  assert.deepEqual(localCandidates(probe), []);
  assert.ok(!probe.states(viewer.session).includes(State.CONNECTED));
}));

test('a STUN server that does not answer and a URL that cannot be read hold nothing up', () => withProbe(async (probe) => {
  const iceServers = [{ url: 'stun:127.0.0.1:9' }, { url: 'carrier-pigeon:coop' }, turn.iceServer('udp')];
  const viewer = new Viewer(probe, { session: { iceServers } });
  await viewer.connect();
  await probe.state(viewer.session, State.CONNECTED);
  await probe.complaints.find((line) => line.includes('carrier-pigeon'), 'a line about the URL');
  assert.equal(probe.complaints.items.length, 1, probe.complaints.items.join('\n'));
}));

test('a server name that cannot be resolved holds nothing up for ever, with all candidates in the answer', () => withProbe(async (probe) => {
  const iceServers = [{ url: 'stun:no-such-host.invalid:3478' }];
  const viewer = new Viewer(probe, { session: { trickleIce: false, iceServers } });
  await viewer.connect();
  assert.match(viewer.answerSdp, /^a=candidate:/m);
  assert.equal(probe.events.items.filter(({ event }) => event === 'answer').length, 1);
}));
