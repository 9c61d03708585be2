// A poor network: what a viewer sees of it.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { launchChromium, PageViewer } from './support/page.mjs';
import { withProbe } from './support/probe.mjs';
import { UdpRelay } from './support/udp_relay.mjs';

const kVideoClockRate = 90_000;

let browser;
before(async () => (browser = await launchChromium()));
after(() => browser.close());

// Runs in the page: frames given to the screen in so many seconds of the stream, by the stream's own clock, so that
// a machine that is busy does not count as a poor network.
function countShown({ seconds, clockRate }) {
  const video = document.querySelector('video');
  return new Promise((resolve) => {
    let first = null;
    const look = (_, { rtpTimestamp, presentedFrames }) => {
      first ??= { rtpTimestamp, presentedFrames };
      const elapsed = ((rtpTimestamp - first.rtpTimestamp) >>> 0) / clockRate;
      if (elapsed >= seconds) resolve((presentedFrames - first.presentedFrames) / elapsed);
      else video.requestVideoFrameCallback(look);
    };
    video.requestVideoFrameCallback(look);
  });
}

test('with 3 % loss and 50 ms of delay either way Chromium shows 19 or more of the 20 frames a second', () => withProbe(async (probe) => {
  const relay = new UdpRelay({ loss: 0.03, delay: 50 });
  await probe.startVideo({ onDemand: false });
  await probe.startAudio();
  const viewer = await PageViewer.open(browser, probe, { relay });
  await viewer.page.evaluate(countShown, { seconds: 5, clockRate: kVideoClockRate });
  const lost = relay.lost;
  const rate = await viewer.page.evaluate(countShown, { seconds: 15, clockRate: kVideoClockRate });
  assert.ok(relay.lost - lost > 10, `${relay.lost - lost} packets lost`);
  assert.ok(rate >= 19, `${rate} frames a second; ${relay.lost} packets lost, ${relay.passed} passed`);
  await viewer.close();
  relay.close();
}));
