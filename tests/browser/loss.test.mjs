// What a viewer sees when a camera, the server or the network goes away, and when it comes back.

import assert from "node:assert/strict";
import { after, afterEach, before, beforeEach, test } from "node:test";
import { launchChromium, Viewer } from "./chromium.mjs";
import { Camera, FrontDoor, Server, signedIn } from "./programs.mjs";

let browser;
let door;
let server;
let camera;
let viewer;

before(async () => {
  browser = await launchChromium();
});

after(() => browser?.close());

beforeEach(async () => {
  door = await FrontDoor.open();
  server = await Server.start();
  door.leadTo(server);
  camera = Camera.start(door.port, "SN0001");
  viewer = await Viewer.open(browser, signedIn(door.url));
});

afterEach(async () => {
  await viewer?.close();
  await camera?.kill();
  await server?.kill();
  door?.close();
});

async function restartServer() {
  door.leadNowhere();
  await server.kill();
  await viewer.reads(/No link to the server. Trying again in \d+ s./);
  server = await Server.start();
  door.leadTo(server);
}

test("when the server restarts, the page signs in again by itself and the picture never stops", async () => {
  await viewer.call("SN0001");
  await restartServer();
  await viewer.reads("Online");
  await viewer.camera("SN0001").waitFor();
  const { framesDecoded } = await viewer.reception();
  await viewer.receives("more frames", (seen) => seen.framesDecoded >= framesDecoded + 40);
  await viewer.untilLive("SN0001");
});

test("after a restart of the server one can hang up and call again", async () => {
  await viewer.call("SN0001");
  await restartServer();
  await viewer.reads("Online");
  await viewer.camera("SN0001").waitFor();
  await viewer.button("Hang up").click();
  await viewer.button("Call again").click();
  await viewer.untilLive("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
});

test("a camera that dies is told, and can be called again once it is back", async () => {
  await viewer.call("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  await camera.kill();
  await viewer.reads(/^No camera is online\./);
  await viewer.reads("SN0001 is offline. Waiting for it to come back…");
  await viewer.reads("Picture lost");
  await viewer.reads("SN0001 went offline.");
  camera = Camera.start(door.port, "SN0001");
  await viewer.reads("SN0001 is online again");
  await viewer.button("Call again").click();
  await viewer.untilLive("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
});

test("a camera that is stopped ends the call at once", async () => {
  await viewer.call("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  await camera.interrupt();
  await viewer.reads("Call ended");
  await viewer.reads("SN0001 ended the call.");
  await viewer.camera("SN0001").waitFor({ state: "detached" });
  camera = Camera.start(door.port, "SN0001");
  await viewer.camera("SN0001").waitFor();
  await viewer.button("Call again").click();
  await viewer.untilLive("SN0001");
});

test("calling a camera that is offline says so", async () => {
  await viewer.call("SN0001");
  await viewer.button("Hang up").click();
  await camera.kill();
  await viewer.camera("SN0001").waitFor({ state: "detached" });
  await viewer.button("Call again").click();
  await viewer.reads("SN0001 is offline");
  await viewer.reads("It appears in the list when it is back.");
});

test("calling without a link to the server says so", async () => {
  await viewer.call("SN0001");
  await viewer.button("Hang up").click();
  door.leadNowhere();
  await viewer.reads(/No link to the server/);
  await viewer.button("Call again").click();
  await viewer.reads("There is no link to the server at the moment. Call again once it is back.");
  assert.equal(await viewer.button("Call again").isVisible(), true);
});
