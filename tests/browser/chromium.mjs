// A person before the viewer page: Debian's Chromium without a window, and what can be seen and done in it.

import { chromium } from "playwright-core";

const CHROMIUM = "/usr/bin/chromium";

const FLAGS = [
  "--headless=new",
  "--no-sandbox",
  "--disable-gpu",
  "--disable-quic",
  "--no-first-run",
  "--disable-background-networking",
  "--disable-component-update",
  "--disable-sync",
  "--use-fake-device-for-media-stream",
  "--use-fake-ui-for-media-stream",
  "--autoplay-policy=no-user-gesture-required",
];

// Several programs share the machine with a test: only what hangs is to fail for its time.
export const PATIENCE_MS = 60_000;

// A browser with an empty profile of its own, which goes when it closes.
export function launchChromium(furtherFlags = []) {
  return chromium.launch({ executablePath: CHROMIUM, args: [...FLAGS, ...furtherFlags], timeout: PATIENCE_MS });
}

// Runs in the page ahead of its scripts: remembers the peer connections and the moments of a call, which the
// page keeps to itself.
function observeCalls() {
  window.observed = { connections: [], moments: {}, violations: [] };
  const { connections, violations } = window.observed;
  document.addEventListener("securitypolicyviolation", (event) => violations.push(event.violatedDirective));
  const mark = (name) => {
    window.observed.moments[name] ??= performance.now();
  };
  window.NativePeerConnection = RTCPeerConnection;
  window.RTCPeerConnection = class extends RTCPeerConnection {
    constructor(...settings) {
      super(...settings);
      connections.push(this);
      window.observed.moments = {};
      mark("call");
      this.addEventListener("signalingstatechange", () => this.signalingState === "stable" && mark("answer"));
      document.querySelector("video").requestVideoFrameCallback(() => mark("frame"));
    }
  };
}

// Runs in the page: what the newest call has received.
async function readReception() {
  const connection = window.observed.connections.at(-1);
  const stats = [...(await connection.getStats()).values()];
  const inbound = (kind) => stats.find((one) => one.type === "inbound-rtp" && one.kind === kind) ?? {};
  const outbound = stats.find((one) => one.type === "outbound-rtp" && one.kind === "audio") ?? {};
  return {
    width: inbound("video").frameWidth ?? 0,
    height: inbound("video").frameHeight ?? 0,
    framesDecoded: inbound("video").framesDecoded ?? 0,
    time: performance.now(),
    audioEnergy: inbound("audio").totalAudioEnergy ?? 0,
    audioPackets: inbound("audio").packetsReceived ?? 0,
    audioBytesSent: outbound.bytesSent ?? 0,
    codecs: stats.filter((one) => one.type === "codec").map((one) => one.mimeType),
  };
}

// Runs in the page: the picture as it stands, made small.
function readPixels() {
  const canvas = document.createElement("canvas");
  [canvas.width, canvas.height] = [64, 36];
  const context = canvas.getContext("2d", { willReadFrequently: true });
  context.drawImage(document.querySelector("video"), 0, 0, canvas.width, canvas.height);
  return [...context.getImageData(0, 0, canvas.width, canvas.height).data];
}

// One person's tab. Waits for what the page shows; throws when it does not within PATIENCE_MS.
export class Viewer {
  #context;

  // address: of the page, a fragment included. permissions: what the person has granted to the site.
  // prepare(page) is called ahead of the page's loading.
  static async open(browser, address, { permissions = ["microphone"], prepare = () => {}, ...settings } = {}) {
    const context = await browser.newContext({ permissions, ...settings });
    context.setDefaultTimeout(PATIENCE_MS);
    await context.addInitScript(observeCalls);
    const viewer = new Viewer(context, await context.newPage());
    await prepare(viewer.page);
    await viewer.page.goto(address);
    return viewer;
  }

  constructor(context, page) {
    this.#context = context;
    this.page = page;
    this.problems = [];
    page.on("pageerror", (error) => this.problems.push(error.message));
    page.on("console", (message) => message.type() === "error" && this.problems.push(message.text()));
  }

  close() {
    return this.#context.close();
  }

  button(name) {
    return this.page.getByRole("button", { name, exact: true });
  }

  // A camera's entry in the list.
  camera(serialCode) {
    return this.page.getByRole("listitem").filter({ hasText: serialCode }).getByRole("button");
  }

  async signIn(key, secret) {
    await this.page.getByLabel("Account key").fill(key);
    await this.page.getByLabel("Secret").fill(secret);
    await this.button("Sign in").click();
  }

  async call(serialCode) {
    await this.camera(serialCode).click();
    await this.untilLive(serialCode);
  }

  async untilLive(serialCode) {
    await this.page.locator(".badge", { hasText: serialCode }).waitFor();
  }

  // Waits until this text, whole or as a pattern, can be seen. What is there for screen readers alone does not count.
  async reads(text) {
    const seen = this.page.locator("header, main, dialog, .toast").getByText(text, { exact: true });
    await seen.filter({ visible: true }).first().waitFor();
  }

  reception() {
    return this.page.evaluate(readReception);
  }

  pixels() {
    return this.page.evaluate(readPixels);
  }

  // Waits until what the call has received satisfies the condition, and returns it.
  async receives(what, condition) {
    return eventually(what, () => this.reception(), condition);
  }

  // Milliseconds from the press that began the newest call to its answer and to its first frame on the screen.
  async moments() {
    const { call, answer, frame } = await this.page.evaluate(() => window.observed.moments);
    return { answerMs: answer - call, frameMs: frame - call };
  }
}

// Looks again and again until the condition holds, and returns what was seen.
export async function eventually(what, look, condition) {
  const end = Date.now() + PATIENCE_MS;
  for (;;) {
    const seen = await look();
    if (condition(seen)) return seen;
    if (Date.now() > end) throw new Error(`${what}: not within ${PATIENCE_MS} ms; seen last: ${JSON.stringify(seen)}`);
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

// How many of the bytes of two pictures differ by more than noise would make them.
export function differingBytes(one, other) {
  return one.filter((byte, place) => Math.abs(byte - other[place]) > 16).length;
}
