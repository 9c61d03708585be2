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

test("a code that has changed is asked for again", async () => {
  const viewer = await Viewer.open(browser, server.signedIn());
  const second = Camera.start(server.port, "SN0002", { permitCode: "old" });
  await viewer.camera("SN0002").click();
  await give(viewer, "old");
  await viewer.untilLive("SN0002");
  await viewer.button("Hang up").click();
  await second.kill();
  await viewer.camera("SN0002").waitFor({ state: "detached" });
  const changed = Camera.start(server.port, "SN0002", { permitCode: "new" });
  await viewer.camera("SN0002").click();
  await viewer.reads("That permit code is not right.");
  await viewer.button("Cancel").click();
  await viewer.button("Enter the code").click();
  const dialog = viewer.page.getByRole("dialog");
  await dialog.waitFor();
  assert.equal(await dialog.getByRole("alert").innerText(), "", "the old code was tried once more");
  await give(viewer, "new");
  await viewer.untilLive("SN0002");
  await viewer.close();
  await changed.kill();
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
