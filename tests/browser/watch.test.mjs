// A viewer watches and hears a camera, alone and beside another.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { differingBytes, eventually, launchChromium, Viewer } from "./chromium.mjs";
import { Camera, Server } from "./programs.mjs";

let server;
let camera;
let browser;

before(async () => {
  server = await Server.start();
  camera = Camera.start(server.port, "SN0001");
  browser = await launchChromium();
});

after(async () => {
  await browser?.close();
  await camera?.kill();
  await server?.kill();
});

async function watching() {
  const viewer = await Viewer.open(browser, server.signedIn());
  await viewer.call("SN0001");
  return viewer;
}

test("the picture arrives, in its size, and moves", async () => {
  const viewer = await watching();
  const first = await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  const pixels = await viewer.pixels();
  await viewer.receives("two seconds of frames", ({ framesDecoded }) => framesDecoded >= first.framesDecoded + 40);
  await eventually("a picture that moves", () => viewer.pixels(), (later) => differingBytes(pixels, later) > 100);
  assert.deepEqual([first.width, first.height], [640, 360]);
  await viewer.reads(/640×360 · \d+ fps · \d+ kbit\/s · RTT \d+ ms/);
  assert.deepEqual(viewer.problems, []);
  await viewer.close();
});

test("the sound arrives, and the person can mute it", async () => {
  const viewer = await watching();
  const video = viewer.page.locator("video");
  assert.equal(await video.evaluate(({ muted }) => muted), false);
  await viewer.receives("sound", ({ audioEnergy, audioPackets }) => audioEnergy > 0.001 && audioPackets > 50);
  await viewer.button("Mute").click();
  assert.equal(await video.evaluate(({ muted }) => muted), true);
  await viewer.button("Unmute").click();
  assert.equal(await video.evaluate(({ muted }) => muted), false);
  await viewer.close();
});

test("video is H.264 and audio PCMU", async () => {
  const viewer = await watching();
  const { codecs } = await viewer.receives("both media", ({ codecs: all, audioPackets }) => {
    return audioPackets > 0 && all.some((type) => type.startsWith("video/"));
  });
  assert.deepEqual(new Set(codecs.filter((type) => type !== "video/rtx")), new Set(["video/H264", "audio/PCMU"]));
  await viewer.close();
});

test("hanging up ends the call, and one can call again", async () => {
  const viewer = await watching();
  await viewer.button("Hang up").click();
  await viewer.reads("You hung up.");
  const states = () => viewer.page.evaluate(() => window.observed.connections.map((one) => one.connectionState));
  assert.deepEqual(await states(), ["closed"]);
  assert.equal(await viewer.button("Hang up").isDisabled(), true);
  assert.equal(await viewer.button("Hold to talk").isDisabled(), true);
  await viewer.button("Call again").click();
  await viewer.untilLive("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 20);
  await viewer.close();
});

test("a viewer goes on watching while another one leaves", async () => {
  const first = await watching();
  const second = await watching();
  await first.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  const { framesDecoded } = await second.receives("a picture", (seen) => seen.framesDecoded > 0);
  await first.button("Hang up").click();
  await first.close();
  await second.receives("more frames", (seen) => seen.framesDecoded >= framesDecoded + 60);
  await second.untilLive("SN0001");
  await second.close();
});

test("an address can name the camera to call", async () => {
  const viewer = await Viewer.open(browser, server.signedIn("&camera=SN0001"));
  await viewer.untilLive("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  await viewer.close();
});
