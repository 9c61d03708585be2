// What only a browser does: telling the engine that its peer connection is closed, decoding, relays over TCP.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { launchChromium, PageViewer } from './support/page.mjs';
import { State, withProbe } from './support/probe.mjs';
import { TurnServer } from './support/turn_server.mjs';

let browser;
let turn;
before(async () => {
  browser = await launchChromium();
  turn = await TurnServer.start();
});
after(async () => {
  await browser.close();
  await turn.stop();
});

test('Chromium decodes the video', () => withProbe(async (probe) => {
  await probe.startVideo({ onDemand: false });
  const viewer = await PageViewer.open(browser, probe);
  await viewer.shows(20);
  assert.equal(await viewer.width(), 640);
  await viewer.close();
}));

test('a peer connection that the viewer closes is seen as closed, not as lost, within a second', () => withProbe(async (probe) => {
  await probe.startVideo();
  const viewer = await PageViewer.open(browser, probe);
  const hungUp = performance.now();
  await viewer.hangUp();
  await probe.state(viewer.session, State.CLOSED);
  const noticed = performance.now() - hungUp;
  assert.ok(noticed < 1000, `${noticed} ms`);
  assert.equal(probe.states(viewer.session).at(-1), State.CLOSED);
  assert.notEqual(await probe.do('close', { session: viewer.session }), 0, 'the engine has let go of the session');
  await viewer.close();
}));

test('when the engine closes a session, Chromium sees DTLS closed within a second', () => withProbe(async (probe) => {
  await probe.startVideo();
  const viewer = await PageViewer.open(browser, probe);
  await viewer.shows(5);
  await viewer.page.evaluate(() => {
    const { transport } = window.peer.getReceivers()[0];
    window.ended = new Promise((resolve) => {
      transport.onstatechange = () => resolve(transport.state);
    });
  });
  const closed = performance.now();
  await probe.do('close', { session: viewer.session });
  const state = await viewer.page.evaluate(() => window.ended);
  const noticed = performance.now() - closed;
  assert.ok(noticed < 1000, `${noticed} ms`);
  assert.equal(state, 'closed');
  await viewer.close();
}));

for (const [viewerWay, cameraWay] of [['udp', null], ['tcp', null], ['udp', 'udp'], ['tcp', 'tcp']]) {
  const camera = cameraWay ? `a camera that has only one over ${cameraWay}` : 'a camera on any path';
  test(`Chromium that has only a relay, over ${viewerWay}, watches ${camera}`, () => withProbe(async (probe) => {
    await probe.startVideo({ onDemand: false });
    const session = cameraWay
      ? { relayOnly: true, iceServers: [turn.iceServer(cameraWay)] }
      : { iceServers: [turn.stunServer()] };
    const viewer = await PageViewer.open(browser, probe, { session, peer: turn.relayOnlyPeer(viewerWay) });
    await viewer.shows(20);
    const { local, remote } = await viewer.selectedPair();
    assert.equal(local, 'relay');
    if (cameraWay) assert.equal(remote, 'relay');
    await viewer.close();
  }));
}
