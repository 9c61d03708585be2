// Signing in and out, and the list of cameras that comes with it.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { eventually, launchChromium, Viewer } from "./chromium.mjs";
import { ACCOUNT, Camera, Server } from "./programs.mjs";

let server;
let browser;

before(async () => {
  server = await Server.start();
  browser = await launchChromium();
});

after(async () => {
  await browser?.close();
  await server?.kill();
});

test("a wrong secret is refused in words, and the right one then accepted", async () => {
  const viewer = await Viewer.open(browser, server.url);
  await viewer.signIn(ACCOUNT.key, "not the secret");
  await viewer.reads("Unknown account key or wrong secret.");
  assert.equal(await viewer.button("Sign out").isVisible(), false);
  await viewer.signIn(ACCOUNT.key, ACCOUNT.secret);
  await viewer.reads("Online");
  await viewer.reads("No camera is online");
  assert.equal(await viewer.page.getByLabel("Secret").inputValue(), "");
  assert.deepEqual(viewer.problems, []);
  await viewer.close();
});

test("signing out forgets the account, in the address too", async () => {
  const viewer = await Viewer.open(browser, server.signedIn());
  await viewer.button("Sign out").click();
  await viewer.button("Sign in").waitFor();
  assert.equal(viewer.page.url(), server.url);
  await viewer.page.reload();
  await viewer.button("Sign in").waitFor();
  assert.equal(await viewer.button("Sign out").isVisible(), false);
  await viewer.close();
});

test("cameras appear in the list and leave it as they come and go", async () => {
  const viewer = await Viewer.open(browser, server.signedIn());
  await viewer.reads("No camera is online");
  const names = () => viewer.page.getByRole("listitem").allInnerTexts();
  const second = Camera.start(server.port, "SN0002");
  await viewer.camera("SN0002").waitFor();
  const first = Camera.start(server.port, "SN0001");
  await viewer.camera("SN0001").waitFor();
  assert.deepEqual((await names()).map((name) => name.trim()), ["SN0001", "SN0002"]);
  await viewer.camera("SN0002").focus();
  await first.kill();
  await viewer.camera("SN0001").waitFor({ state: "detached" });
  const focused = () => viewer.page.evaluate(() => document.activeElement.innerText.trim());
  assert.equal(await focused(), "SN0002");
  await second.kill();
  await eventually("an empty list", names, (list) => list.length === 0);
  await viewer.close();
});
