// The page's link to the server, alone: against a socket and a clock made of nothing.

import assert from "node:assert/strict";
import { afterEach, beforeEach, test } from "node:test";
import { iceServers, retryDelay, Signalling } from "../../web/signalling.js";

class FakeSocket {
  static all = [];
  sent = [];
  isClosed = false;

  constructor(url) {
    this.url = url;
    FakeSocket.all.push(this);
  }

  static get newest() {
    return FakeSocket.all.at(-1);
  }

  send(text) {
    assert.equal(this.isClosed, false);
    this.sent.push(JSON.parse(text));
  }

  close() {
    this.isClosed = true;
  }

  brings(message) {
    this.onmessage?.({ data: typeof message === "string" ? message : JSON.stringify(message) });
  }
}

class FakeClock {
  now = 0;
  #timers = new Map();
  #nextId = 1;

  set(call, ms, period = 0) {
    this.#timers.set(this.#nextId, { call, due: this.now + ms, period });
    return this.#nextId++;
  }

  clear(id) {
    this.#timers.delete(id);
  }

  pass(ms) {
    const end = this.now + ms;
    for (;;) {
      const due = [...this.#timers].filter(([, timer]) => timer.due <= end).sort(([, a], [, b]) => a.due - b.due);
      if (due.length === 0) break;
      const [id, timer] = due[0];
      this.now = timer.due;
      if (timer.period > 0) timer.due += timer.period;
      else this.#timers.delete(id);
      timer.call();
    }
    this.now = end;
  }
}

const real = {};
const globals = ["WebSocket", "setTimeout", "clearTimeout", "setInterval", "clearInterval"];
let clock;
let seen;
let signalling;

beforeEach(() => {
  clock = new FakeClock();
  FakeSocket.all = [];
  for (const name of globals) real[name] = globalThis[name];
  globalThis.WebSocket = FakeSocket;
  globalThis.setTimeout = (call, ms) => clock.set(call, ms);
  globalThis.setInterval = (call, ms) => clock.set(call, ms, ms);
  globalThis.clearTimeout = globalThis.clearInterval = (id) => clock.clear(id);
  seen = { links: [], cameras: [], messages: [], errors: [] };
  signalling = new Signalling("ws://server/", { key: "k", secret: "s" }, {
    onLink: (link) => seen.links.push(link),
    onCameras: (cameras) => seen.cameras.push(cameras),
    onMessage: (message) => seen.messages.push(message),
    onError: (error) => seen.errors.push(error),
  });
});

afterEach(() => {
  for (const name of globals) globalThis[name] = real[name];
});

const RESPONSE = { code: 0, opcode: "signin", sid: 7, stunAddr: [], turnAddr: [], turnUser: [], turnPass: [] };

function signIn() {
  FakeSocket.newest.onopen();
  FakeSocket.newest.brings(RESPONSE);
}

function states() {
  return seen.links.map(({ state }) => state);
}

test("signs in as a viewer with the first message", () => {
  assert.equal(FakeSocket.newest.url, "ws://server/");
  FakeSocket.newest.onopen();
  assert.deepEqual(FakeSocket.newest.sent, [{ opcode: "signin", key: "k", secret: "s", loginType: 2 }]);
  assert.equal(signalling.signedIn, false);
  FakeSocket.newest.brings(RESPONSE);
  assert.equal(signalling.signedIn, true);
  assert.deepEqual(states(), ["connecting", "open"]);
});

test("a refused sign-in is told and not tried again", () => {
  FakeSocket.newest.onopen();
  FakeSocket.newest.brings({ code: 401, opcode: "signin", message: "no" });
  clock.pass(600_000);
  assert.deepEqual(seen.links.at(-1), { state: "refused", code: 401, message: "no" });
  assert.equal(FakeSocket.all.length, 1);
  assert.equal(FakeSocket.newest.isClosed, true);
});

test("sends nothing to a camera before it is signed in", () => {
  FakeSocket.newest.onopen();
  assert.equal(signalling.call("SN1", "offer"), false);
  assert.equal(signalling.sendCandidate("SN1", "{}"), false);
  assert.equal(signalling.hangUp("SN1"), false);
  assert.equal(FakeSocket.newest.sent.length, 1);
});

test("peer messages carry what the protocol asks for", () => {
  signIn();
  signalling.call("SN1", "offer");
  signalling.call("SN2", "offer", "4711");
  signalling.sendCandidate("SN1", "{}");
  signalling.hangUp("SN1");
  assert.deepEqual(FakeSocket.newest.sent.slice(1), [
    { opcode: "message", messageType: "callRequest", toSerialCode: "SN1", message: "offer" },
    { opcode: "message", messageType: "callRequest", toSerialCode: "SN2", permitCode: "4711", message: "offer" },
    { opcode: "message", messageType: "remoteCandidate", toSerialCode: "SN1", message: "{}" },
    { opcode: "message", messageType: "hangup", toSerialCode: "SN1", message: "" },
  ]);
});

test("hands cameras, messages and errors on, and nothing else", () => {
  signIn();
  const cameras = [{ serialCode: "SN1", mustPermitCode: 0 }];
  const answer = { code: 0, opcode: "message", sid: 1, serialCode: "SN1", messageType: "callResponse", message: "x" };
  const error = { code: 404, opcode: "message", messageType: "callRequest", toSerialCode: "SN1", message: "offline" };
  for (const message of [{ code: 0, opcode: "cameras", cameras }, answer, error]) FakeSocket.newest.brings(message);
  for (const nonsense of ["", "{", "null", "7", "[]", "{}", '{"code":0,"opcode":"other"}']) {
    FakeSocket.newest.brings(nonsense);
  }
  assert.deepEqual(seen.cameras, [cameras]);
  assert.deepEqual(seen.messages, [answer]);
  assert.deepEqual(seen.errors, [error]);
});

test("sends a heartbeat every 20 seconds while signed in", () => {
  clock.pass(5_000);
  signIn();
  for (let beat = 1; beat <= 3; beat += 1) {
    clock.pass(20_000);
    assert.equal(FakeSocket.newest.sent.filter(({ opcode }) => opcode === "heartbeat").length, beat);
    FakeSocket.newest.brings({ code: 0, opcode: "heartbeat" });
  }
  assert.deepEqual(states(), ["connecting", "open"]);
});

test("a server that leaves a heartbeat unanswered for 10 seconds is left", () => {
  signIn();
  const first = FakeSocket.newest;
  clock.pass(29_999);
  assert.equal(first.isClosed, false);
  clock.pass(1);
  assert.equal(first.isClosed, true);
  assert.equal(states().at(-1), "waiting");
});

test("any message is as good as a heartbeat's answer", () => {
  signIn();
  clock.pass(25_000);
  FakeSocket.newest.brings({ code: 0, opcode: "cameras", cameras: [] });
  clock.pass(10_000);
  assert.equal(states().at(-1), "open");
});

test("a connection that is not signed in within 10 seconds is given up", () => {
  const first = FakeSocket.newest;
  clock.pass(10_000);
  assert.equal(first.isClosed, true);
  assert.equal(states().at(-1), "waiting");
});

test("comes back after the announced wait and signs in again", () => {
  signIn();
  FakeSocket.newest.onclose();
  assert.equal(signalling.signedIn, false);
  const { state, delay } = seen.links.at(-1);
  assert.equal(state, "waiting");
  clock.pass(delay - 1);
  assert.equal(FakeSocket.all.length, 1);
  clock.pass(1);
  assert.equal(FakeSocket.all.length, 2);
  signIn();
  assert.deepEqual(states(), ["connecting", "open", "waiting", "connecting", "open"]);
});

test("waits longer each time, up to 30 seconds, and anew after a heartbeat was answered", () => {
  const delays = [];
  for (let attempt = 0; attempt < 8; attempt += 1) {
    signIn();
    FakeSocket.newest.onclose();
    delays.push(seen.links.at(-1).delay);
    clock.pass(delays.at(-1));
  }
  delays.forEach((delay, failures) => {
    const longest = Math.min(30_000, 1_000 * 2 ** failures);
    assert.ok(delay >= longest / 2 && delay <= longest, `${delay} after ${failures} failures`);
  });
  signIn();
  clock.pass(20_000);
  FakeSocket.newest.brings({ code: 0, opcode: "heartbeat" });
  FakeSocket.newest.onclose();
  assert.ok(seen.links.at(-1).delay <= 1_000);
});

test("the wait is spread at random over its upper half", () => {
  assert.equal(retryDelay(0, 0), 500);
  assert.equal(retryDelay(0, 1), 1_000);
  assert.equal(retryDelay(3, 0.5), 6_000);
  assert.equal(retryDelay(50, 1), 30_000);
});

test("a wait can be cut short, once", () => {
  FakeSocket.newest.onclose();
  signalling.retryNow();
  signalling.retryNow();
  assert.equal(FakeSocket.all.length, 2);
  clock.pass(5_000);
  assert.equal(FakeSocket.all.length, 2);
});

test("what a socket says after it was given up is not heard", () => {
  signIn();
  const first = FakeSocket.newest;
  clock.pass(30_000);
  first.brings({ code: 0, opcode: "cameras", cameras: [] });
  assert.deepEqual(seen.cameras, []);
  assert.equal(first.onclose, null);
});

test("closed, it stays closed", () => {
  signIn();
  signalling.close();
  clock.pass(600_000);
  assert.equal(FakeSocket.all.length, 1);
  assert.equal(FakeSocket.newest.isClosed, true);
  assert.deepEqual(states(), ["connecting", "open"]);
});

test("STUN and TURN servers are those of the latest sign-in", () => {
  const turn = { turnAddr: ["turn:b", "turns:c"], turnUser: ["u", "v"], turnPass: ["p", "q"] };
  FakeSocket.newest.onopen();
  FakeSocket.newest.brings({ ...RESPONSE, stunAddr: ["stun:a"], ...turn });
  const expected = [
    { urls: "stun:a" },
    { urls: "turn:b", username: "u", credential: "p" },
    { urls: "turns:c", username: "v", credential: "q" },
  ];
  assert.deepEqual(signalling.iceServers, expected);
  FakeSocket.newest.onclose();
  assert.deepEqual(signalling.iceServers, expected);
});

test("lists that are missing, short or of the wrong kind are no reason to fail", () => {
  assert.deepEqual(iceServers({}), []);
  assert.deepEqual(iceServers({ stunAddr: "stun:a", turnAddr: [7, ""] }), []);
  assert.deepEqual(iceServers({ turnAddr: ["turn:b"] }), [{ urls: "turn:b", username: "", credential: "" }]);
});
