// The page against a server and a camera that do what real ones seldom do. Both are played by the test: the
// server's side of the WebSocket here, the camera's peer connection in the page itself.

import assert from "node:assert/strict";
import { after, before, beforeEach, afterEach, test } from "node:test";
import { eventually, launchChromium, Viewer } from "./chromium.mjs";
import { Server, signedIn } from "./programs.mjs";

const ICE_SERVERS = {
  stunAddr: ["stun:127.0.0.1:9"],
  turnAddr: ["turn:127.0.0.1:9"],
  turnUser: ["u"],
  turnPass: ["p"],
};

let server;
let browser;
let viewer;
let played;

// The server's side. Messages of the viewer are kept in `sent`, and handed to onMessage.
class PlayedServer {
  sent = [];
  onCall = () => {};

  accept(socket) {
    this.socket = socket;
    socket.onMessage((text) => this.#receive(JSON.parse(text)));
  }

  says(message) {
    this.socket.send(JSON.stringify({ code: 0, ...message }));
  }

  // As the camera SN0001, or another one.
  fromCamera(messageType, message, serialCode = "SN0001") {
    this.says({ opcode: "message", sid: 1, serialCode, messageType, message });
  }

  refuses(code, message) {
    this.says({ code, opcode: "message", messageType: "callRequest", toSerialCode: "SN0001", message });
  }

  sentTypes() {
    return this.sent.map(({ messageType }) => messageType);
  }

  #receive(message) {
    if (message.opcode === "heartbeat") this.says({ opcode: "heartbeat" });
    if (message.opcode === "signin") {
      this.says({ opcode: "signin", sid: 2, ...ICE_SERVERS });
      this.says({ opcode: "cameras", cameras: [{ serialCode: "SN0001", mustPermitCode: 0 }] });
    }
    if (message.opcode !== "message") return;
    this.sent.push(message);
    if (message.messageType === "callRequest") this.onCall(message.message);
  }
}

// Runs in the page: a camera's answer to the offer, with a picture to send, and its candidates. Its peer
// connection becomes window.camera.
async function answerOffer(offer) {
  const camera = new window.NativePeerConnection();
  window.camera = camera;
  await camera.setRemoteDescription({ type: "offer", sdp: offer });
  const canvas = document.createElement("canvas");
  const context = canvas.getContext("2d");
  let hue = 0;
  setInterval(() => {
    context.fillStyle = `hsl(${(hue += 9)} 80% 50%)`;
    context.fillRect(0, 0, canvas.width, canvas.height);
  }, 50);
  const [video] = camera.getTransceivers();
  video.direction = "sendonly";
  await video.sender.replaceTrack(canvas.captureStream(20).getVideoTracks()[0]);
  const candidates = [];
  const gathered = new Promise((resolve) => {
    camera.onicecandidate = ({ candidate }) => (candidate ? candidates.push(JSON.stringify(candidate)) : resolve());
  });
  const answer = await camera.createAnswer();
  await camera.setLocalDescription(answer);
  await gathered;
  return { answer: answer.sdp, candidates };
}

function answerInPage(offer) {
  return viewer.page.evaluate(answerOffer, offer);
}

before(async () => {
  server = await Server.start();
  browser = await launchChromium();
});

after(async () => {
  await browser?.close();
  await server?.kill();
});

beforeEach(async () => {
  played = new PlayedServer();
  const prepare = (page) => page.routeWebSocket(/.*/, (socket) => played.accept(socket));
  viewer = await Viewer.open(browser, signedIn(server.url), { prepare });
});

afterEach(() => viewer?.close());

test("candidates that overtake the answer are kept for it", async () => {
  played.onCall = async (offer) => {
    const { answer, candidates } = await answerInPage(offer);
    candidates.forEach((candidate) => played.fromCamera("remoteCandidate", candidate));
    played.fromCamera("callResponse", answer);
  };
  await viewer.call("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
});

test("the first answer counts, and nonsense beside it does no harm", async () => {
  played.onCall = async (offer) => {
    const { answer, candidates } = await answerInPage(offer);
    played.fromCamera("callResponse", "nonsense of another camera", "SN0002");
    played.fromCamera("callResponse", answer);
    played.fromCamera("callResponse", "nonsense");
    ["", "nonsense", "{}", "null", '{"candidate":"nonsense","sdpMid":"0"}'].forEach((candidate) => {
      played.fromCamera("remoteCandidate", candidate);
    });
    candidates.forEach((candidate) => played.fromCamera("remoteCandidate", candidate));
  };
  await viewer.call("SN0001");
  await viewer.receives("a picture", ({ framesDecoded }) => framesDecoded > 0);
  assert.deepEqual(viewer.problems, []);
});

test("the viewer's candidates wait for the answer and are sent as RTCIceCandidateInit", async () => {
  let typesAtAnswer;
  played.onCall = async (offer) => {
    const { answer } = await answerInPage(offer);
    typesAtAnswer = played.sentTypes();
    played.fromCamera("callResponse", answer);
  };
  await viewer.camera("SN0001").click();
  await eventually("a candidate", () => played.sentTypes(), (types) => types.includes("remoteCandidate"));
  assert.deepEqual(typesAtAnswer, ["callRequest"]);
  const { message } = played.sent.find(({ messageType }) => messageType === "remoteCandidate");
  const candidate = JSON.parse(message);
  assert.match(candidate.candidate, /^candidate:/);
  assert.equal(typeof candidate.sdpMid, "string");
  assert.equal(typeof candidate.sdpMLineIndex, "number");
});

test("the offer takes H.264 alone, PCMU first, and can talk without a second offer", async () => {
  await viewer.camera("SN0001").click();
  await eventually("an offer", () => played.sent.length, (count) => count > 0);
  const sections = played.sent[0].message.split(/^m=/m);
  const [audio, video] = ["audio", "video"].map((kind) => sections.find((section) => section.startsWith(kind)));
  const names = (section) => [...section.matchAll(/^a=rtpmap:\d+ ([^/\s]+)/gm)].map((match) => match[1]);
  assert.deepEqual(new Set(names(video)), new Set(["H264", "rtx"]));
  assert.equal(names(audio)[0], "PCMU");
  assert.match(video, /^a=recvonly\r$/m);
  assert.match(audio, /^a=sendrecv\r$/m);
});

test("the servers of the sign-in response are used for the call", async () => {
  await viewer.camera("SN0001").click();
  await eventually("an offer", () => played.sent.length, (count) => count > 0);
  const used = await viewer.page.evaluate(() => window.observed.connections[0].getConfiguration().iceServers);
  const facts = used.map(({ urls, username, credential }) => [[urls].flat()[0], username, credential]);
  assert.deepEqual(facts[0][0], "stun:127.0.0.1:9");
  assert.deepEqual(facts[1], ["turn:127.0.0.1:9", "u", "p"]);
});

test("a camera that does not answer is given up, and told so", async () => {
  await viewer.camera("SN0001").click();
  await viewer.reads("Calling SN0001…");
  await viewer.reads("SN0001 does not answer");
  assert.deepEqual(played.sentTypes(), ["callRequest", "hangup"]);
  assert.equal(await viewer.button("Call again").isVisible(), true);
});

test("an answer without a path for the media is given up in words", async () => {
  played.onCall = async (offer) => {
    const { answer } = await answerInPage(offer);
    await viewer.page.evaluate(() => window.camera.close());
    played.fromCamera("callResponse", answer);
  };
  await viewer.camera("SN0001").click();
  await viewer.reads("Connecting to SN0001…");
  await viewer.reads("No picture arrived");
  await eventually("a hang-up", () => played.sentTypes(), (types) => types.at(-1) === "hangup");
});

test("an answer that is none fails the call, not the page", async () => {
  played.onCall = () => played.fromCamera("callResponse", "nonsense");
  await viewer.camera("SN0001").click();
  await viewer.reads("The call failed");
  played.onCall = () => {};
  await viewer.button("Call again").click();
  await viewer.reads("Calling SN0001…");
});

test("a picture that stops is told, and taken up again when it comes back", async () => {
  played.onCall = async (offer) => {
    const { answer, candidates } = await answerInPage(offer);
    played.fromCamera("callResponse", answer);
    candidates.forEach((candidate) => played.fromCamera("remoteCandidate", candidate));
  };
  await viewer.call("SN0001");
  const send = (active) => viewer.page.evaluate(async (wanted) => {
    const [{ sender }] = window.camera.getTransceivers();
    const settings = sender.getParameters();
    settings.encodings[0].active = wanted;
    await sender.setParameters(settings);
  }, active);
  await send(false);
  await viewer.reads("Picture interrupted");
  await viewer.reads("No picture is arriving. Waiting for it to come back…");
  played.says({ opcode: "cameras", cameras: [] });
  await viewer.reads("SN0001 is offline. Waiting for it to come back…");
  await send(true);
  await viewer.untilLive("SN0001");
});

test("when the server ends the call, the page passes its words on", async () => {
  played.onCall = () => played.fromCamera("hangup", "the camera has been offline for 60 s");
  await viewer.camera("SN0001").click();
  await viewer.reads("the camera has been offline for 60 s");
  assert.deepEqual(played.sentTypes(), ["callRequest"]);
});

test("what the server refuses is told", async () => {
  for (const [code, words] of [[404, "SN0001 is offline"], [429, "Too many calls"], [400, "something new"]]) {
    played.onCall = () => played.refuses(code, "something new");
    await viewer.camera("SN0001").click();
    await viewer.reads(words);
  }
  assert.deepEqual(new Set(played.sentTypes()), new Set(["callRequest"]));
});

test("choosing another camera hangs the first one up", async () => {
  const cameras = ["SN0001", "SN0002"].map((serialCode) => ({ serialCode, mustPermitCode: 0 }));
  await viewer.camera("SN0001").waitFor();
  played.says({ opcode: "cameras", cameras });
  await viewer.camera("SN0001").click();
  await eventually("an offer", () => played.sent.length, (count) => count === 1);
  await viewer.camera("SN0002").click();
  await eventually("a second offer", () => played.sent.length, (count) => count === 3);
  const facts = played.sent.map(({ messageType, toSerialCode }) => [messageType, toSerialCode]);
  assert.deepEqual(facts, [["callRequest", "SN0001"], ["hangup", "SN0001"], ["callRequest", "SN0002"]]);
  const states = await viewer.page.evaluate(() => window.observed.connections.map((one) => one.connectionState));
  assert.deepEqual(states, ["closed", "new"]);
});
