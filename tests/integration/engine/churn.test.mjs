// Viewers come and go in all ways, for as long as it takes to see what each of them leaves behind.
import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { State, withProbe } from './support/probe.mjs';
import { pause, settledResources } from './support/resources.mjs';
import { UdpRelay } from './support/udp_relay.mjs';
import { endViewers, Viewer } from './support/viewer.mjs';

after(endViewers);

// ctest says how many, fewer for sanitizers, and whether memory tells anything.
const kViewers = Number(process.env.SIGNALCONN_CHURN_VIEWERS ?? 500);
const kMayGrowMiB = process.env.SIGNALCONN_CHURN_MEMORY === 'no' ? Infinity : 4;

const kAtOnce = 8;
const kUnnoticed = 48; // vanished viewers at a time that the engine has not noticed yet: it holds 128 sessions

const videoPackets = (viewer, count) => viewer.video.collect(count, () => true, 'video packets');

async function watchAndLeave(probe) {
  const viewer = new Viewer(probe);
  await viewer.connect();
  await videoPackets(viewer, 5);
  await viewer.leave();
}

async function leaveInMidNegotiation(probe, index) {
  const viewer = new Viewer(probe);
  const offer = await viewer.makeOffer();
  viewer.session = await probe.createSession();
  viewer.callWith(offer).catch(() => {}); // no answer may come any more
  await pause(index % 25);
  await viewer.leave();
}

// Returns what the engine has still to notice.
async function vanish(probe) {
  const viewer = new Viewer(probe, { relay: new UdpRelay() });
  await viewer.connect();
  await videoPackets(viewer, 5);
  viewer.vanish();
  return { noticed: probe.state(viewer.session, State.FAILED) };
}

const kWays = [watchAndLeave, leaveInMidNegotiation, vanish];

async function comeAndGo(probe, viewers) {
  const unnoticed = new Set();
  let next = 0;
  const work = async () => {
    while (next < viewers) {
      const index = next++;
      const { noticed } = (await kWays[index % kWays.length](probe, index)) ?? {};
      if (!noticed) continue;
      unnoticed.add(noticed);
      noticed.finally(() => unnoticed.delete(noticed));
      if (unnoticed.size >= kUnnoticed) await Promise.race(unnoticed);
    }
  };
  await Promise.all(Array.from({ length: kAtOnce }, work));
  await Promise.all(unnoticed);
}

test(`${kViewers} viewers that leave, leave in mid-negotiation or vanish leave nothing behind and disturb nobody`, () => withProbe(async (probe) => {
  await probe.startVideo({ onDemand: false });
  await probe.startAudio();
  await comeAndGo(probe, kWays.length); // for what a process acquires for good
  const before = { ...(await settledResources(probe)), memory: probe.memory() };

  const staying = new Viewer(probe);
  await staying.connect();
  await comeAndGo(probe, kViewers);
  await staying.video.collect(20, () => true, 'video packets', staying.video.items.length);
  assert.deepEqual(probe.states(staying.session), [State.NEW, State.CONNECTING, State.CONNECTED]);
  await staying.leave();

  const left = await settledResources(probe);
  assert.ok(left.descriptors <= before.descriptors && left.threads <= before.threads,
    `${JSON.stringify(before)} became ${JSON.stringify(left)}`);
  // What it can give back, it does some seconds later.
  const grown = () => probe.memory() - before.memory;
  for (let seconds = 0; seconds < 15 && grown() >= kMayGrowMiB; ++seconds) await pause(1000);
  assert.ok(grown() < kMayGrowMiB, `${grown().toFixed(1)} MiB more than the ${before.memory.toFixed(1)} before`);
  assert.deepEqual(probe.complaints.items, []);
}));
