// Server-reflexive candidates: what STUN servers tell of the camera's address.
import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { withProbe } from './support/probe.mjs';
import { StunServer } from './support/stun_server.mjs';
import { endViewers, Viewer } from './support/viewer.mjs';

after(endViewers);

const kMapped = { address: '198.51.100.7', port: 40404 };
const kOther = { address: '203.0.113.9', port: 50505 };
const kOffered = / 198\.51\.100\.7 40404 typ srflx raddr \S+ rport \d+/;

// Runs body with servers that are stopped afterwards; each is what StunServer.start is given.
async function withServers(mapped, body) {
  const servers = await Promise.all(mapped.map((one) => StunServer.start(one)));
  try {
    await withProbe((probe) => body(probe, ...servers));
  } finally {
    for (const server of servers) server.stop();
  }
}

async function call(probe, urls, session = {}) {
  const viewer = new Viewer(probe, { session: { ...session, iceServers: urls.map((url) => ({ url })) } });
  await viewer.call();
  return viewer;
}

const isOffered = (viewer, pattern) => viewer.probe.event('candidate', viewer.session, ({ candidate }) => pattern.test(candidate));

test('the address that a STUN server tells is offered', () => withServers([kMapped], async (probe, server) => {
  const viewer = await call(probe, [server.url]);
  await isOffered(viewer, kOffered);
}));

test('several STUN servers are asked at once, and each address is offered once', () => withServers([null, kMapped, kMapped, kOther],
  async (probe, silent, ...servers) => {
    const viewer = await call(probe, [silent.url, ...servers.map(({ url }) => url)]);
    await isOffered(viewer, kOffered);
    await isOffered(viewer, / 203\.0\.113\.9 50505 typ srflx /);
    await viewer.states.find((state) => state === 'connected', 'the connection');
    const offered = probe.events.items.filter(({ event, candidate }) => event === 'candidate' && kOffered.test(candidate));
    assert.equal(offered.length, 1);
  }));

test('a STUN server whose name cannot be resolved does not keep another one from being asked', () => withServers([kMapped],
  async (probe, server) => {
    const viewer = await call(probe, ['stun:no-such-host.invalid:3478', server.url]);
    await isOffered(viewer, kOffered);
  }));

test('STUN servers that are all silent hold nothing up', () => withServers([null, null], async (probe, one, other) => {
  const viewer = await call(probe, [one.url, other.url]);
  await viewer.states.find((state) => state === 'connected', 'the connection');
  assert.ok(one.requests > 0 && other.requests > 0);
}));

test('without trickle the answer waits for what STUN servers tell', () => withServers([kMapped], async (probe, server) => {
  const viewer = await call(probe, [server.url], { trickleIce: false });
  assert.match(viewer.answerSdp, kOffered);
}));

test('without trickle the answer waits no longer for a STUN server that is silent', () => withServers([null], async (probe, server) => {
  const viewer = await call(probe, [server.url], { trickleIce: false });
  assert.match(viewer.answerSdp, / typ host/);
  assert.doesNotMatch(viewer.answerSdp, / typ srflx/);
}));

test('with relayOnly no STUN server is asked', () => withServers([kMapped], async (probe, server) => {
  const viewer = await call(probe, [server.url], { trickleIce: false, relayOnly: true });
  assert.doesNotMatch(viewer.answerSdp, / typ /);
  assert.equal(server.requests, 0);
}));
