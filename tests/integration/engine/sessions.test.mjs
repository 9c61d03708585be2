import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { State, withProbe } from './support/probe.mjs';
import { endViewers, Viewer } from './support/viewer.mjs';

after(endViewers);

const packetsFromNow = (viewer, count) =>
  viewer.video.collect(count, () => true, 'video packets', viewer.video.items.length);

const pause = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

const resources = (probe) => ({ descriptors: probe.descriptors(), threads: probe.threads() });

// What the process holds once nothing has changed for two seconds.
async function settledResources(probe) {
  let last = resources(probe);
  for (let unchanged = 0; unchanged < 40; ++unchanged) {
    await pause(50);
    const now = resources(probe);
    if (now.descriptors !== last.descriptors || now.threads !== last.threads) unchanged = -1;
    last = now;
  }
  return last;
}

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

test('a viewer that vanishes is noticed and released, while another goes on watching', () => withProbe(async (probe) => {
  await probe.startVideo();
  const [vanishing, staying] = [new Viewer(probe), new Viewer(probe)];
  await Promise.all([vanishing.connect(), staying.connect()]);
  await packetsFromNow(vanishing, 20);
  vanishing.vanish();
  await probe.event('state', vanishing.session, ({ state }) => state === State.FAILED || state === State.CLOSED,
    { patience: 180_000 });
  assert.notEqual(await probe.do('close', { session: vanishing.session }), 0);
  await packetsFromNow(staying, 20);
}));

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
