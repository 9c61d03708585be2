import assert from 'node:assert/strict';
import { after, test } from 'node:test';
import { Probe, State } from './support/probe.mjs';
import { endViewers, Viewer } from './support/viewer.mjs';

after(endViewers);

for (const event of ['answer', 'candidate', 'state', 'audio']) {
  test(`exit inside the callback of an ${event} event ends the process`, async () => {
    const probe = new Probe();
    await probe.startVideo();
    await probe.startAudio();
    const watching = new Viewer(probe);
    await watching.connect();
    await probe.state(watching.session, State.CONNECTED);

    await probe.do('exitOn', { event });
    const calling = new Viewer(probe);
    const offer = await calling.makeOffer();
    const session = await probe.createSession();
    probe.do('offer', { session, sdp: offer }).catch(() => {});
    const speaking = setInterval(() => watching.speak(0x5a), 20);
    assert.equal(await probe.exited, 7, probe.complaints.items.join('\n'));
    clearInterval(speaking);
  });
}

test('the end of the process closes sessions in every state', async () => {
  const probe = new Probe();
  await probe.startVideo();
  const viewers = [1, 2, 3].map(() => new Viewer(probe));
  await Promise.all(viewers.map((viewer) => viewer.connect()));
  await probe.createSession();
  const session = await probe.createSession();
  assert.equal(await probe.do('offer', { session, sdp: await new Viewer(probe).makeOffer() }), 0);
  await probe.stop();
});
