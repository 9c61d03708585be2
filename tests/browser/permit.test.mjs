// Cameras that want a permit code.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { launchChromium, Viewer } from "./chromium.mjs";
import { Camera, Server } from "./programs.mjs";

let server;
let camera;
let browser;

before(async () => {
  server = await Server.start();
  camera = Camera.start(server.port, "SN0001", { permitCode: "4711" });
  browser = await launchChromium();
});

after(async () => {
  await browser?.close();
  await camera?.kill();
  await server?.kill();
});

async function give(viewer, code) {
  const dialog = viewer.page.getByRole("dialog");
  await dialog.getByLabel("Permit code", { exact: true }).fill(code);
  await dialog.getByRole("button", { name: "Call" }).click();
}

test("the code is asked for, a wrong one told, and the right one remembered", async () => {
  const viewer = await Viewer.open(browser, server.signedIn());
  await viewer.camera("SN0001").click();
  await viewer.reads("SN0001 can be watched with its permit code only.");
  await give(viewer, "1174");
  await viewer.reads("That permit code is not right.");
  await give(viewer, "4711");
  await viewer.untilLive("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  await viewer.button("Hang up").click();
  await viewer.button("Call again").click();
  await viewer.untilLive("SN0001");
  assert.equal(await viewer.page.getByRole("dialog").isVisible(), false);
  await viewer.close();
});

test("one may think better of it", async () => {
  const viewer = await Viewer.open(browser, server.signedIn());
  await viewer.camera("SN0001").click();
  await viewer.button("Cancel").click();
  await viewer.reads("Permit code needed");
  await viewer.button("Enter the code").click();
  await viewer.page.keyboard.type("4711");
  await viewer.page.keyboard.press("Enter");
  await viewer.untilLive("SN0001");
  await viewer.close();
});
