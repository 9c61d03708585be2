// The page: signs in, lists the cameras online, and runs one call at a time.
//
// A fragment #key=…&secret=… signs in by itself; &camera=SERIAL calls that camera as soon as it is online.

import { Call } from "./call.js";
import { Signalling } from "./signalling.js";
import { TalkButton } from "./talk.js";
import * as words from "./words.js";

const element = (id) => document.getElementById(id);
const screen = element("screen");
const video = element("video");
const talk = new TalkButton(element("talk"), element("talk-hint"));

let signalling = null;
let cameras = [];
// The camera to call once it is online.
let wanted = "";
// The camera of the call that is up, or that "Call again" calls.
let chosen = "";
let call = null;
// Permit codes that were accepted, by serial code; kept as long as the page is open.
const permitCodes = new Map();
let countdown = 0;
// What the person chose; a browser may mute a video beyond that.
let silenced = false;

// --- Signing in and out

function signIn(account) {
  signalling?.close();
  element("key").value = account.key;
  element("sign-in-problem").textContent = "";
  element("sign-in-submit").textContent = "Signing in…";
  const scheme = location.protocol === "https:" ? "wss:" : "ws:";
  signalling = new Signalling(`${scheme}//${location.host}/`, account, {
    onLink,
    onCameras,
    onMessage,
    onError,
  });
}

function signInFromFragment() {
  const fields = new URLSearchParams(location.hash.slice(1));
  if (!fields.has("key") || !fields.has("secret")) return false;
  wanted = fields.get("camera") ?? "";
  signIn({ key: fields.get("key"), secret: fields.get("secret") });
  return true;
}

function signOut() {
  hangUp(words.IDLE);
  signalling.close();
  signalling = null;
  permitCodes.clear();
  // Otherwise a reload would sign in again.
  history.replaceState(null, "", location.pathname);
  element("sign-in-form").reset();
  showSignIn("");
  element("key").focus();
}

function showSignIn(problem) {
  chosen = "";
  screen.dataset.state = "idle";
  showCameras([]);
  element("permit").close();
  for (const id of ["viewer", "sign-out", "link", "toast"]) element(id).hidden = true;
  clearInterval(countdown);
  element("sign-in").hidden = false;
  element("sign-in-submit").textContent = "Sign in";
  element("sign-in-problem").textContent = problem;
}

function showViewer() {
  for (const id of ["viewer", "sign-out", "link"]) element(id).hidden = false;
  element("sign-in").hidden = true;
  element("sign-in-submit").textContent = "Sign in";
  element("secret").value = "";
}

// --- The link to the server

const LINK_TEXTS = { connecting: "Connecting", open: "Online", waiting: "Offline" };

function onLink({ state, delay, code, message }) {
  clearInterval(countdown);
  element("toast").hidden = state !== "waiting";
  if (state === "refused") {
    endCall(words.IDLE);
    showSignIn(words.signInProblem({ code, message }));
    return;
  }
  element("link").dataset.state = state;
  element("link-text").textContent = LINK_TEXTS[state];
  if (state === "open") showViewer();
  if (state === "waiting") onLinkLost(delay);
}

// A call that is up goes on: its media do not pass the server. One that was not answered yet is lost.
function onLinkLost(delay) {
  if (element("viewer").hidden) element("sign-in").hidden = false;
  if (call?.state === "calling") endCall(words.NO_LINK);
  showCountdown(delay);
  announce("There is no link to the server. It is tried again by itself.");
}

function showCountdown(delay) {
  const due = Date.now() + delay;
  const show = () => {
    const seconds = Math.max(1, Math.ceil((due - Date.now()) / 1_000));
    element("toast-text").textContent = `No link to the server. Trying again in ${seconds} s.`;
  };
  show();
  countdown = setInterval(show, 1_000);
}

// --- The cameras online

function isOnline(serialCode) {
  return cameras.some((camera) => camera.serialCode === serialCode);
}

function onCameras(list) {
  const wasOnline = isOnline(chosen);
  showCameras(list);
  if (call === null && chosen !== "" && !wasOnline && isOnline(chosen)) showEnd(words.backOnline(chosen));
  if (call?.state === "interrupted") showState("interrupted", words.interrupted(chosen, isOnline(chosen)));
  if (call === null && isOnline(wanted)) startCall(wanted);
}

function showCameras(list) {
  cameras = [...list].sort((a, b) => a.serialCode.localeCompare(b.serialCode, undefined, { numeric: true }));
  element("camera-count").textContent = cameras.length > 0 ? cameras.length : "";
  element("no-cameras").hidden = cameras.length > 0;
  arrangeList();
  if (screen.dataset.state === "idle") showState("idle", cameras.length > 0 ? words.IDLE : words.NO_CAMERA);
}

// Items of cameras that stay are kept as they are: a change of the list takes nobody's focus.
function arrangeList() {
  const list = element("camera-list");
  const items = new Map([...list.children].map((item) => [item.dataset.serialCode, item]));
  for (const [serialCode, item] of items) {
    if (!isOnline(serialCode)) item.remove();
  }
  cameras.forEach((camera, place) => {
    const item = items.get(camera.serialCode) ?? newItem(camera.serialCode);
    const button = item.firstElementChild;
    button.querySelector(".lock").toggleAttribute("hidden", camera.mustPermitCode !== 1);
    button.querySelector(".unseen").textContent = camera.mustPermitCode === 1 ? " (needs a permit code)" : "";
    button.setAttribute("aria-current", String(camera.serialCode === chosen));
    if (list.children[place] !== item) list.insertBefore(item, list.children[place]);
  });
}

function newItem(serialCode) {
  const item = element("camera-item").content.cloneNode(true).firstElementChild;
  item.dataset.serialCode = serialCode;
  item.querySelector(".camera-name").textContent = serialCode;
  item.firstElementChild.addEventListener("click", () => {
    if (call === null || chosen !== serialCode) startCall(serialCode);
  });
  return item;
}

// --- The call

function startCall(serialCode, permitCode = permitCodes.get(serialCode)) {
  hangUp(words.HUNG_UP);
  wanted = "";
  chosen = serialCode;
  arrangeList();
  const camera = cameras.find((one) => one.serialCode === serialCode);
  if (camera?.mustPermitCode === 1 && permitCode === undefined) {
    askPermitCode("");
    return;
  }
  try {
    call = openCall(serialCode, permitCode);
  } catch (error) {
    showEnd(words.ended(serialCode, error));
    return;
  }
  video.srcObject = call.stream;
  playWithSound();
  showState("calling", words.calling(serialCode));
  element("hang-up").disabled = false;
}

function openCall(serialCode, permitCode) {
  return new Call(signalling.iceServers, {
    onOffer(sdp) {
      if (!signalling.call(serialCode, sdp, permitCode)) endCall(words.NO_LINK);
    },
    onCandidate(json) {
      signalling.sendCandidate(serialCode, json);
    },
    onState(state, reason) {
      onCallState(state, reason);
      if (state === "connecting" && permitCode !== undefined) permitCodes.set(serialCode, permitCode);
    },
    onNumbers(numbers) {
      element("numbers").textContent = words.numbers(numbers);
    },
  });
}

function onCallState(state, reason) {
  if (state === "ended") {
    hangUp(words.ended(chosen, reason, isOnline(chosen)));
    return;
  }
  if (state === "connecting") showState(state, words.connecting(chosen));
  if (state === "interrupted") showState(state, words.interrupted(chosen, isOnline(chosen)));
  if (state === "live") {
    showState(state, words.live(chosen));
    element("sound").disabled = element("fullscreen").disabled = false;
    talk.enable((track) => call?.setMicrophone(track));
  }
}

function onMessage({ serialCode, messageType, message }) {
  if (call === null || serialCode !== chosen) return;
  if (messageType === "callResponse") call.answer(message);
  if (messageType === "remoteCandidate") call.addCandidate(message);
  if (messageType === "hangup") endCall(words.hungUp(serialCode, message));
}

// Errors about anything but a call that is being set up concern something that is over already.
function onError(error) {
  console.warn(`The server reports ${error.code}: ${error.message}`);
  if (error.messageType !== "callRequest" || error.toSerialCode !== chosen || call?.state !== "calling") return;
  if (error.code !== 403) {
    endCall(words.refused(chosen, error));
    return;
  }
  permitCodes.delete(chosen);
  endCall(words.permitCodeNeeded(chosen));
  askPermitCode("That permit code is not right.");
}

// Ends the call and tells the camera; does nothing without a call.
function hangUp(why) {
  if (call === null) return;
  signalling.hangUp(chosen);
  endCall(why);
}

// Ends a call that the server does not have, or no longer has.
function endCall(why) {
  if (call === null) return;
  call.close();
  call = null;
  talk.disable();
  if (document.fullscreenElement) document.exitFullscreen();
  video.srcObject = null;
  element("numbers").textContent = "";
  const hadFocus = element("controls").contains(document.activeElement);
  for (const id of ["sound", "fullscreen", "hang-up"]) element(id).disabled = true;
  showEnd(why);
  if (hadFocus) element("call-again").focus();
}

// --- The screen

function showState(state, [title, text, action = "Call again"]) {
  screen.dataset.state = state;
  element("badge-name").textContent = chosen;
  element("cover-title").textContent = title;
  element("cover-text").textContent = text;
  element("call-again").textContent = action;
  element("call-again").hidden = state !== "ended";
  document.title = state === "live" ? `${chosen} – SignalConn` : "SignalConn";
  announce(`${title}. ${text}`);
}

function showEnd(why) {
  showState("ended", why);
}

function announce(text) {
  element("announcement").textContent = text;
}

// A browser lets a page that nobody has touched yet play silently only; then the picture offers the sound.
async function playWithSound() {
  setMuted(silenced);
  try {
    await video.play();
  } catch (error) {
    if (error.name !== "NotAllowedError") return;
    setMuted(true);
    element("unsilence").hidden = false;
    video.play().catch((again) => console.warn("The picture cannot be played:", again.message));
  }
}

function setMuted(muted) {
  video.muted = muted;
  element("unsilence").hidden = true;
  element("sound-label").textContent = muted ? "Unmute" : "Mute";
  element("sound-icon").setAttribute("href", muted ? "#icon-silence" : "#icon-sound");
}

// An iPhone lets only the video element itself fill the screen.
function toggleFullscreen() {
  if (document.fullscreenElement) document.exitFullscreen();
  else if (screen.requestFullscreen) screen.requestFullscreen();
  else video.webkitEnterFullscreen();
}

// --- The permit code

function askPermitCode(problem) {
  element("permit-text").textContent = words.permitCodeNeeded(chosen)[1];
  element("permit-problem").textContent = problem;
  element("permit-code").value = "";
  showEnd(words.permitCodeNeeded(chosen));
  element("permit").showModal();
}

// --- What people do

element("sign-in-form").addEventListener("submit", (event) => {
  event.preventDefault();
  signIn({ key: element("key").value, secret: element("secret").value });
});
element("sign-out").addEventListener("click", signOut);
element("retry").addEventListener("click", () => signalling.retryNow());
element("hang-up").addEventListener("click", () => hangUp(words.HUNG_UP));
element("call-again").addEventListener("click", () => {
  startCall(chosen);
  if (call !== null) element("hang-up").focus();
});
element("sound").addEventListener("click", () => {
  silenced = !video.muted;
  setMuted(silenced);
});
element("unsilence").addEventListener("click", () => setMuted(false));
element("fullscreen").addEventListener("click", toggleFullscreen);
element("permit-cancel").addEventListener("click", () => element("permit").close());
element("permit-form").addEventListener("submit", () => startCall(chosen, element("permit-code").value));
video.addEventListener("loadeddata", () => call?.frameShown());
window.addEventListener("online", () => signalling?.retryNow());
window.addEventListener("hashchange", () => location.reload());

if (!signInFromFragment()) showSignIn("");
