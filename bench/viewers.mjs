// What N viewers cost, in one run for the engine, for a peer on another stack and for the floor. Exits with non-zero
// when the engine misses a limit.
//
//   node bench/viewers.mjs --build DIRECTORY [--seconds 20] [--only engine]
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

const { build, only, ...options } = readOptions({ seconds: '20' });
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
const peer = only === 'engine' ? null : await measure(path.join(build, 'bench/peer'));
const floor = Object.fromEntries(kSizes.map((size) => [size, measureFloor('sendto', size)]));
const segmented = measureFloor('segment', kMost);

const table = new Table(['engine', 'pion', 'floor', 'floor, segmented']);
for (const size of kSizes) {
  table.row(`processor per viewer at ${size}, % of a core`, [engine.at[size].processor, peer?.at[size].processor,
    floor[size], size === kMost ? segmented : undefined], 3);
}
const most = engine.at[kMost];
table.limit(most.processor, 0.3, 'at most 0.3');
table.row('times the floor', [most.processor / floor[kMost], peer && peer.at[kMost].processor / floor[kMost]], 2);
table.limit(most.processor / floor[kMost], 2.2, 'at most 2.2');
if (peer) {
  table.row('times pion', [most.processor / peer.at[kMost].processor], 2);
  table.limit(most.processor / peer.at[kMost].processor, 1, 'at most 1');
}
table.row('memory idle, PSS, MiB', [engine.idle.pss, peer?.idle.pss], 1);
table.limit(engine.idle.pss, 8, 'at most 8');
table.row('memory idle, RSS', [engine.idle.rss, peer?.idle.rss], 1);
table.row('memory idle, without what comes from files', [engine.idle.anonymous, peer?.idle.anonymous], 1);
// Of a further one: the first also brings in the code that it needs.
const memoryPerViewer = (result) => (result.at[kMost].memory.rss - result.at[1].memory.rss) / (kMost - 1);
table.row(`memory at ${kMost}, RSS`, [most.memory.rss, peer?.at[kMost].memory.rss], 1);
table.row('memory of a further viewer, RSS', [memoryPerViewer(engine), peer && memoryPerViewer(peer)], 2);
table.limit(memoryPerViewer(engine), 0.4, 'at most 0.4');
const memoryLeft = (result, kind) => result.left[kind] - result.idle[kind];
table.row('memory after all left, over idle, RSS', [memoryLeft(engine, 'rss'), peer && memoryLeft(peer, 'rss')], 1);
table.row('the same without what comes from files', [memoryLeft(engine, 'anonymous'), peer && memoryLeft(peer, 'anonymous')], 1);
table.limit(memoryLeft(engine, 'anonymous'), 2, 'at most 2');
table.row(`threads at ${kMost}, the caller's included`, [most.threads, peer?.at[kMost].threads], 0);
table.limit(most.threads, 3, 'at most 3');
table.row('frames per second at the worst of 16', [most.framesPerSecond, peer?.at[kMost].framesPerSecond], 2);
table.limit(-most.framesPerSecond, -19.9, 'at least 19.9');
table.row('packets lost, all 16', [most.lost, peer?.at[kMost].lost], 0);
table.limit(most.lost, 0, 'none');
table.row('writing a video frame, p50, µs', [most.writeP50, peer?.at[kMost].writeP50], 0);
table.row('writing a video frame, p99, µs', [most.writeP99, peer?.at[kMost].writeP99], 0);
table.row('the same with a frozen viewer', [engine.frozen.writeP99, peer?.frozen.writeP99], 0);
table.limit(engine.frozen.writeP99, 1000, 'at most 1000');
table.row('frames per second meanwhile', [engine.frozen.framesPerSecond, peer?.frozen.framesPerSecond], 2);
table.limit(-engine.frozen.framesPerSecond, -19.8, 'at least 19.8'); // one frame more or less in 8 s
table.print();
process.exitCode = table.missed ? 1 : 0;
