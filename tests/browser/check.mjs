// Watches, hears and talks to a camera through the page, as a person would, and prints what it measured. For a
// system that runs already:
//
//   node tests/browser/check.mjs --url URL --talkback FILE
//
// URL signs in by its fragment; the first camera of the list is called. FILE is where that camera writes what
// viewers say (its --audio-out). Ends with 1, and names it, when something does not happen.

import { stat } from "node:fs/promises";
import { parseArgs } from "node:util";
import { differingBytes, eventually, launchChromium, Viewer } from "./chromium.mjs";

const WATCH_MS = 5_000;
// One second of G.711.
const LEAST_SPEECH = 8_000;

function readArguments() {
  const text = { type: "string" };
  try {
    const { values } = parseArgs({ options: { url: text, talkback: text } });
    if (values.url && values.talkback) return values;
  } catch (error) {
    console.error(error.message);
  }
  console.error("usage: node tests/browser/check.mjs --url URL --talkback FILE");
  process.exit(2);
}

function print(what, value) {
  console.log(`${what.padEnd(30)}${value}`);
}

async function happens(what, attempt) {
  try {
    return await attempt();
  } catch (error) {
    throw new Error(`did not happen: ${what}\n${error.message}`);
  }
}

async function call(viewer) {
  const camera = viewer.page.getByRole("list").getByRole("button").first();
  await happens("a camera is online", () => camera.waitFor());
  const serialCode = (await camera.innerText()).trim();
  await camera.click();
  await happens(`${serialCode} goes live`, () => viewer.untilLive(serialCode));
  const moments = () => viewer.moments();
  const shown = await happens("a frame is shown", () => {
    return eventually("the first frame", moments, ({ frameMs }) => Number.isFinite(frameMs));
  });
  print("camera", serialCode);
  print("call to answer", `${shown.answerMs.toFixed(0)} ms`);
  print("call to first frame shown", `${shown.frameMs.toFixed(0)} ms`);
}

async function watch(viewer) {
  const before = await viewer.reception();
  const pixels = await viewer.pixels();
  await viewer.page.waitForTimeout(WATCH_MS);
  const now = await viewer.reception();
  const seconds = (now.time - before.time) / 1_000;
  const frames = now.framesDecoded - before.framesDecoded;
  const energy = now.audioEnergy - before.audioEnergy;
  print("frames decoded", `${(frames / seconds).toFixed(1)} per second, ${now.width}x${now.height}`);
  print("sound received", `energy ${energy.toPrecision(3)} in ${seconds.toFixed(1)} s`);
  if (frames === 0) throw new Error("did not happen: frames are decoded");
  if (energy === 0) throw new Error("did not happen: sound is received");
  await happens("the picture moves", () => {
    return eventually("other pixels", () => viewer.pixels(), (later) => differingBytes(pixels, later) > 0);
  });
}

async function talk(viewer, file) {
  const size = async () => (await stat(file)).size;
  const before = await happens(`the camera has its file ${file}`, size);
  await viewer.button("Hold to talk").hover();
  await viewer.page.mouse.down();
  await happens("the page talks", () => viewer.reads("Talking. Release to listen."));
  const after = await happens("speech reaches the camera", () => {
    return eventually(`${LEAST_SPEECH} bytes`, size, (bytes) => bytes >= before + LEAST_SPEECH);
  });
  await viewer.page.mouse.up();
  print("talk-back at the camera", `${after - before} bytes`);
}

async function check({ url, talkback }) {
  const browser = await launchChromium();
  try {
    const viewer = await happens("the page opens", () => Viewer.open(browser, url));
    await happens("the page signs in", () => viewer.reads("Online"));
    await call(viewer);
    await watch(viewer);
    await talk(viewer, talkback);
    await viewer.button("Hang up").click();
    await happens("the call ends", () => viewer.reads("Call ended"));
  } finally {
    await browser.close();
  }
}

const wanted = readArguments();
try {
  await check(wanted);
} catch (error) {
  console.error(error.message);
  process.exitCode = 1;
}
