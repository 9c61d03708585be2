// Nothing on the page jumps, overflows or is too small to be touched, on a desk and on a phone.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { launchChromium, Viewer } from "./chromium.mjs";
import { Camera, Server } from "./programs.mjs";

const SCREENS = [
  ["a desk", { viewport: { width: 1280, height: 800 } }],
  ["a small window", { viewport: { width: 910, height: 640 } }],
  ["a phone", { viewport: { width: 360, height: 740 }, isMobile: true, hasTouch: true, deviceScaleFactor: 2 }],
  ["a phone on its side", { viewport: { width: 740, height: 360 }, isMobile: true, hasTouch: true }],
  ["a very small phone", { viewport: { width: 320, height: 568 }, isMobile: true, hasTouch: true }],
];
// CSS pixels, of a finger.
const SMALLEST_TARGET = 44;

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

// Runs in the page: where the things are that have to stay, and what does not fit.
function measurePage() {
  const place = (selector) => {
    const { x, y, width, height } = document.querySelector(selector).getBoundingClientRect();
    return [x + scrollX, y + scrollY, width, height].map(Math.round);
  };
  const fixed = ["#screen", "#talk", "#sound", "#hang-up", "#cameras-title"];
  const shown = [...document.querySelectorAll("button, input")].filter((one) => one.checkVisibility());
  const cover = document.querySelector("#cover");
  return {
    places: Object.fromEntries(fixed.map((one) => [one, place(one)])),
    overflow: document.documentElement.scrollWidth - document.documentElement.clientWidth,
    coverOverflow: cover.checkVisibility() ? cover.scrollHeight - cover.clientHeight : 0,
    heights: shown.map((one) => one.getBoundingClientRect().height),
    outside: shown.filter((one) => one.getBoundingClientRect().right > window.innerWidth + 1).map((one) => one.id),
    violations: window.observed.violations,
  };
}

async function check(viewer, state) {
  const seen = await viewer.page.evaluate(measurePage);
  assert.equal(seen.overflow, 0, `${state}: wider than the window`);
  assert.ok(seen.coverOverflow <= 0, `${state}: the words do not fit the picture`);
  assert.deepEqual(seen.outside, [], `${state}: controls outside the window`);
  assert.ok(Math.min(...seen.heights) >= SMALLEST_TARGET, `${state}: too small to be touched`);
  assert.deepEqual(seen.violations, [], `${state}: the content security policy is broken`);
  return seen.places;
}

for (const [name, settings] of SCREENS) {
  test(`on ${name} everything fits and stays in its place`, async () => {
    const viewer = await Viewer.open(browser, server.url, settings);
    await check(viewer, "signing in");
    await viewer.signIn("demo", "demo");
    await viewer.camera("SN0001").waitFor();
    const places = await check(viewer, "idle");
    const stay = async (state) => assert.deepEqual(await check(viewer, state), places, `${state}: something moved`);

    await viewer.camera("SN0001").click();
    await viewer.page.getByRole("dialog").waitFor();
    await stay("asking for the permit code");
    await viewer.page.keyboard.type("4711");
    await viewer.page.keyboard.press("Enter");
    await viewer.untilLive("SN0001");
    await viewer.reads(/kbit/);
    await stay("live");
    await viewer.button("Hold to talk").focus();
    await viewer.page.keyboard.down(" ");
    await viewer.reads("Talking. Release to listen.");
    await stay("talking");
    await viewer.page.keyboard.up(" ");
    await viewer.button("Mute").click();
    await stay("muted");
    await viewer.button("Hang up").click();
    await viewer.reads("Call ended");
    await stay("ended");
    assert.deepEqual(viewer.problems, []);
    await viewer.close();
  });
}
