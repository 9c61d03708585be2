// What N viewers cost, in one run for the engine, for the engine linked as in a firmware, for a peer on another stack
// and for the floor. Exits with non-zero when the engine misses a limit.
//
//   node bench/viewers.mjs --build DIRECTORY [--lean DIRECTORY] [--seconds 20] [--only engine]
import { execFileSync } from 'node:child_process';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { Crowd } from './crowd.mjs';
import { readOptions } from './options.mjs';
import { Sender } from './sender.mjs';
import { makeStreams } from './stream.mjs';
import { Table } from './table.mjs';

const kSizes = [1, 4, 8, 16];
const kMost = 16;
const kSettleMs = 3000;
const kFrozenSeconds = 8; // after 10 s without a sign of life an engine may give the viewer up
const kLongestReleaseMs = 10_000;

const { build, only, lean: leanBuild, ...options } = readOptions({ seconds: '20', lean: '' });
const seconds = Number(options.seconds);
const streams = makeStreams(path.join(build, 'streams'));

// Watches a sender and its viewers for a while.
async function observe(sender, crowd, duration = seconds) {
  const before = { usage: await sender.ask('usage'), received: await crowd.counts(), at: performance.now() };
  await sleep(duration * 1000);
  const after = { usage: await sender.ask('usage'), received: await crowd.counts(), at: performance.now() };
  const perViewer = after.received.counts.map((count, i) => ({
    framesPerSecond: (count.frames - before.received.counts[i].frames) * 1000 / (after.received.at - before.received.at),
    lost: count.lost - before.received.counts[i].lost,
  }));
  const used = (after.usage.processorMicros - before.usage.processorMicros) / 1000 / (after.at - before.at);
  return {
    processor: used * 100 / crowd.size, // per cent of one core, per viewer
    framesPerSecond: Math.min(...perViewer.map((viewer) => viewer.framesPerSecond)),
    lost: perViewer.reduce((sum, { lost }) => sum + lost, 0),
    writeP50: after.usage.writeP50, writeP99: after.usage.writeP99, writeMax: after.usage.writeMax,
    memory: sender.memory(), threads: sender.threads(),
  };
}

// One more viewer, in a process that is then stopped.
async function observeFrozen(sender, crowd) {
  const frozen = new Crowd(sender);
  await frozen.grow(1);
  frozen.freeze();
  const observed = await observe(sender, crowd, kFrozenSeconds);
  frozen.thaw();
  await frozen.leave();
  return observed;
}

// An engine may let go of sessions after closeSession has returned.
async function memoryAfterAllLeft(sender, idle) {
  const end = performance.now() + kLongestReleaseMs;
  while (sender.memory().anonymous > idle.anonymous && performance.now() < end) await sleep(200);
  return sender.memory();
}

async function measure(program) {
  const sender = new Sender(program);
  await sender.ask('usage'); // it is up
  await sleep(1000);
  const result = { idle: sender.memory(), at: {} };
  await sender.do('start', { stream: streams.fixed });
  const crowd = new Crowd(sender);
  for (const size of kSizes) {
    await crowd.grow(size);
    await sleep(kSettleMs);
    result.at[size] = await observe(sender, crowd);
  }
  result.frozen = await observeFrozen(sender, crowd);
  await crowd.leave();
  result.left = await memoryAfterAllLeft(sender, result.idle);
  await sender.stop();
  return result;
}

function measureFloor(how, viewers) {
  const output = execFileSync(path.join(build, 'bench/bench_floor'), [how, streams.fixed, viewers, seconds], { encoding: 'utf8' });
  return JSON.parse(output).perViewer;
}

const engine = await measure(path.join(build, 'bench/bench_sender'));
const lean = leanBuild ? await measure(path.join(leanBuild, 'bench/bench_sender')) : null;
const peer = only === 'engine' ? null : await measure(path.join(build, 'bench/peer'));
const floor = Object.fromEntries(kSizes.map((size) => [size, measureFloor('sendto', size)]));
const segmented = measureFloor('segment', kMost);

const table = new Table(['engine', 'engine, lean', 'pion', 'floor', 'floor, segmented']);
const ours = [engine, lean].filter(Boolean);
const row = (what, figure, digits, ...floors) =>
  table.row(what, [...[engine, lean, peer].map((sender) => sender && figure(sender)), ...floors], digits);
const limit = (figure, most, words) => table.limit(Math.max(...ours.map(figure)), most, words);

for (const size of kSizes) {
  row(`processor per viewer at ${size}, % of a core`, ({ at }) => at[size].processor, 3,
    floor[size], size === kMost ? segmented : undefined);
}
limit(({ at }) => at[kMost].processor, 0.3, 'at most 0.3');
const timesFloor = ({ at }) => at[kMost].processor / floor[kMost];
row('times the floor', timesFloor, 2);
limit(timesFloor, 2.2, 'at most 2.2');
if (peer) {
  const timesPeer = ({ at }) => at[kMost].processor / peer.at[kMost].processor;
  row('times pion', timesPeer, 2);
  limit(timesPeer, 1, 'at most 1');
}
row('memory idle, RSS, MiB', ({ idle }) => idle.rss, 1);
limit(({ idle }) => idle.rss, 8, 'at most 8');
row('memory idle, PSS', ({ idle }) => idle.pss, 1);
row('memory idle, without what comes from files', ({ idle }) => idle.anonymous, 1);
row(`memory at ${kMost}, RSS`, ({ at }) => at[kMost].memory.rss, 1);
// Of a further one: the first also brings in the code that it needs.
const memoryPerViewer = ({ at }) => (at[kMost].memory.rss - at[1].memory.rss) / (kMost - 1);
row('memory of a further viewer, RSS', memoryPerViewer, 2);
limit(memoryPerViewer, 0.4, 'at most 0.4');
row('memory after all left, over idle, RSS', ({ left, idle }) => left.rss - idle.rss, 1);
const memoryLeft = ({ left, idle }) => left.anonymous - idle.anonymous;
row('the same without what comes from files', memoryLeft, 1);
limit(memoryLeft, 2, 'at most 2');
row(`threads at ${kMost}, the caller's included`, ({ at }) => at[kMost].threads, 0);
limit(({ at }) => at[kMost].threads, 3, 'at most 3');
row('frames per second at the worst of 16', ({ at }) => at[kMost].framesPerSecond, 2);
limit(({ at }) => -at[kMost].framesPerSecond, -19.9, 'at least 19.9');
row('packets lost, all 16', ({ at }) => at[kMost].lost, 0);
limit(({ at }) => at[kMost].lost, 0, 'none');
row('writing a video frame, p50, µs', ({ at }) => at[kMost].writeP50, 0);
row('writing a video frame, p99, µs', ({ at }) => at[kMost].writeP99, 0);
row('the same with a frozen viewer', ({ frozen }) => frozen.writeP99, 0);
limit(({ frozen }) => frozen.writeP99, 1000, 'at most 1000');
row('frames per second meanwhile', ({ frozen }) => frozen.framesPerSecond, 2);
limit(({ frozen }) => -frozen.framesPerSecond, -19.8, 'at least 19.8'); // one frame more or less in 8 s
table.print();
process.exitCode = table.missed ? 1 : 0;
