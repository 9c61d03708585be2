// A viewer talks to the camera, or is told why not.

import assert from "node:assert/strict";
import { stat } from "node:fs/promises";
import path from "node:path";
import { after, before, test } from "node:test";
import { eventually, launchChromium, Viewer } from "./chromium.mjs";
import { Camera, Server, temporaryDirectory } from "./programs.mjs";

// One second of G.711.
const SECOND = 8_000;
// A name that is not this machine's own: over http the browser trusts it with no microphone.
const FOREIGN_NAME = "viewer.test";

let files;
let server;
let camera;
let browser;
let speech;

before(async () => {
  files = await temporaryDirectory();
  speech = path.join(files.directory, "speech.pcmu");
  server = await Server.start();
  camera = Camera.start(server.port, "SN0001", { audioOut: speech });
  browser = await launchChromium([`--host-resolver-rules=MAP ${FOREIGN_NAME} 127.0.0.1`]);
});

after(async () => {
  await browser?.close();
  await camera?.kill();
  await server?.kill();
  await files?.remove();
});

async function watching() {
  const viewer = await Viewer.open(browser, server.signedIn());
  await viewer.call("SN0001");
  return viewer;
}

async function spoken() {
  return (await stat(speech)).size;
}

function arrives(bytes) {
  return eventually("speech at the camera", spoken, (size) => size >= bytes);
}

test("nothing is sent before the button is held", async () => {
  const viewer = await watching();
  await viewer.receives("a second of frames", ({ framesDecoded }) => framesDecoded > 20);
  assert.equal((await viewer.reception()).audioBytesSent, 0);
  assert.equal(await spoken(), 0);
  await viewer.close();
});

test("what is said with the button held reaches the camera, and only that", async () => {
  const viewer = await watching();
  const before = await spoken();
  await viewer.button("Hold to talk").hover();
  await viewer.page.mouse.down();
  await viewer.reads("Talking. Release to listen.");
  await arrives(before + SECOND);
  await viewer.page.mouse.up();
  await viewer.reads("Hold the button while you speak.");
  const sent = async () => (await viewer.reception()).audioBytesSent;
  let last = -1;
  await eventually("silence", async () => [last, (last = await sent())], ([one, other]) => one === other);
  const { framesDecoded } = await viewer.reception();
  await viewer.receives("a second of frames", (seen) => seen.framesDecoded > framesDecoded + 20);
  assert.equal(await sent(), last);
  await viewer.close();
});

test("the space bar and the enter key talk as long as they are held", async () => {
  const viewer = await watching();
  for (const key of [" ", "Enter"]) {
    const before = await spoken();
    await viewer.button("Hold to talk").focus();
    await viewer.page.keyboard.down(key);
    await viewer.reads("Talking. Release to listen.");
    await arrives(before + SECOND / 2);
    await viewer.page.keyboard.up(key);
    await viewer.reads("Hold the button while you speak.");
  }
  await viewer.close();
});

test("a finger can stay on the button", async () => {
  const viewer = await Viewer.open(browser, server.signedIn(), { hasTouch: true });
  await viewer.call("SN0001");
  const before = await spoken();
  const { x, y, width, height } = await viewer.button("Hold to talk").boundingBox();
  const touch = await viewer.page.context().newCDPSession(viewer.page);
  const points = [{ x: x + width / 2, y: y + height / 2 }];
  await touch.send("Input.dispatchTouchEvent", { type: "touchStart", touchPoints: points });
  await viewer.reads("Talking. Release to listen.");
  await arrives(before + SECOND);
  await touch.send("Input.dispatchTouchEvent", { type: "touchEnd", touchPoints: [] });
  await viewer.reads("Hold the button while you speak.");
  await viewer.close();
});

test("hanging up closes the microphone", async () => {
  const viewer = await watching();
  await viewer.page.evaluate(() => {
    const open = navigator.mediaDevices.getUserMedia.bind(navigator.mediaDevices);
    navigator.mediaDevices.getUserMedia = async (wanted) => (window.microphone = await open(wanted));
  });
  await viewer.button("Hold to talk").focus();
  await viewer.page.keyboard.down(" ");
  await viewer.reads("Talking. Release to listen.");
  await viewer.page.keyboard.up(" ");
  await viewer.button("Hang up").click();
  assert.equal(await viewer.page.evaluate(() => window.microphone.getTracks()[0].readyState), "ended");
  await viewer.close();
});

test("a refused microphone is told, and watching goes on", async () => {
  const viewer = await watching();
  await viewer.page.evaluate(() => {
    navigator.mediaDevices.getUserMedia = () => Promise.reject(new DOMException("no", "NotAllowedError"));
  });
  await viewer.button("Hold to talk").focus();
  await viewer.page.keyboard.press(" ");
  await viewer.reads(/The microphone was refused/);
  const { framesDecoded } = await viewer.reception();
  await viewer.receives("more frames", (seen) => seen.framesDecoded > framesDecoded + 20);
  await viewer.close();
});

test("on an insecure page one is told why talking is not possible, and watches all the same", async () => {
  const address = server.signedIn().replace("127.0.0.1", FOREIGN_NAME);
  const viewer = await Viewer.open(browser, address, { permissions: [] });
  await viewer.call("SN0001");
  await viewer.reads(/Talking needs a secure page/);
  assert.equal(await viewer.button("Hold to talk").isDisabled(), true);
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  await viewer.close();
});
