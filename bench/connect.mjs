// How long a viewer waits for the answer, and for the first packet of a key frame, before which nothing can be shown:
// sessions in sequence, whose beginnings are spread evenly over the source's pace, for the engine and for a peer on
// another stack. Exits with non-zero when the engine misses a limit.
//
//   node bench/connect.mjs --build DIRECTORY [--sessions 100] [--only engine]
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { readOptions } from './options.mjs';
import { Sender } from './sender.mjs';
import { makeStreams } from './stream.mjs';
import { Table } from './table.mjs';
import { Viewer, endViewers } from './viewer.mjs';

const kFrameMs = 50;
const kGroupMs = 1000; // between key frames of the fixed source
const kLongestMs = 20_000;

const { build, only, ...options } = readOptions({ sessions: '100' });
const sessions = Number(options.sessions);
const streams = makeStreams(path.join(build, 'streams'));

// Resolves with the sender's and the viewer's times in milliseconds once reached(viewer) has resolved with a time.
async function connectOnce(sender, delayMs, reached = (viewer) => viewer.firstKeyFrame) {
  const session = await sender.do('create');
  const candidates = [];
  let give = (candidate) => candidates.push(candidate);
  const viewer = new Viewer({ onCandidate: (candidate) => give(candidate) });
  const sdp = await viewer.offer();
  await sleep(delayMs);
  const start = performance.now();
  const answered = new Promise((resolve) => {
    sender.follow(session, (event) => {
      if (event.event === 'candidate') viewer.takeCandidate(event.candidate);
      if (event.event !== 'answer') return;
      viewer.takeAnswer(event.sdp);
      resolve(event.micros / 1000);
    });
  });
  sender.do('offer', { session, sdp });
  give = (candidate) => sender.ask('candidate', { session, candidate: JSON.stringify(candidate) });
  candidates.forEach(give);
  const end = await within(reached(viewer));
  await sender.close(session);
  viewer.close();
  return { answer: await answered, video: end - start };
}

async function within(promise) {
  const timer = new AbortController();
  const value = await Promise.race([promise, sleep(kLongestMs, null, { signal: timer.signal })]);
  timer.abort();
  if (value === null) throw new Error('nothing was shown');
  return value;
}

const warmUp = (sender) => connectOnce(sender, 0, (viewer) => viewer.connected);

// Where in the source's interval the session with this number begins.
const spread = (number) => (number + 0.5) / sessions;

const quantile = (values, q) => [...values].sort((a, b) => a - b)[Math.min(values.length - 1, Math.floor(values.length * q))];

const both = (values) => ({ median: quantile(values, 0.5), p95: quantile(values, 0.95) });
const summary = (results) => ({ answer: both(results.map(({ answer }) => answer)), video: both(results.map(({ video }) => video)) });

// One sender, whose source makes a key frame a second.
async function measureFixed(program) {
  const sender = new Sender(program);
  await sender.do('start', { stream: streams.fixed });
  const results = [];
  while (results.length < sessions) results.push(await connectOnce(sender, kGroupMs * spread(results.length)));
  await sender.stop();
  return summary(results);
}

// A source that makes key frames on demand, and whose last one is long ago: a sender of its own for each session, which
// has connected a viewer before it has any video.
async function measureOnDemand(program, atOnce) {
  const results = [];
  while (results.length < sessions) {
    const sender = new Sender(program);
    await warmUp(sender);
    await sender.do('start', { stream: streams.endless, keys: streams.keys, atOnce });
    results.push(await connectOnce(sender, kFrameMs * spread(results.length)));
    await sender.stop();
  }
  return summary(results);
}

const measureAll = async (program) => ({
  atOnce: await measureOnDemand(program, true),
  next: await measureOnDemand(program, false),
  fixed: await measureFixed(program),
});
const engine = await measureAll(path.join(build, 'bench/bench_sender'));
const peer = only === 'engine' ? null : await measureAll(path.join(build, 'bench/peer'));
endViewers();

const table = new Table(['engine', 'pion']);
const row = (what, get, most) => {
  table.row(`${what}, ms`, [get(engine), peer && get(peer)], 1);
  if (most !== undefined) table.limit(get(engine), most, `at most ${most}`);
};
row('offer to answer, median', (result) => result.fixed.answer.median, 2);
row('offer to answer, p95', (result) => result.fixed.answer.p95);
row('offer to key frame, made at once when asked for, median', (result) => result.atOnce.video.median, 30);
row('the same, p95', (result) => result.atOnce.video.p95, 70);
row('offer to key frame, in place of the next frame when asked for, median', (result) => result.next.video.median);
row('the same, p95', (result) => result.next.video.p95);
row('offer to key frame, one a second, median', (result) => result.fixed.video.median);
row('the same, p95', (result) => result.fixed.video.p95);
table.print();
process.exitCode = table.missed ? 1 : 0;
