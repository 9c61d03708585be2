// The viewer's link to the signalling server: one WebSocket that signs in, comes back by itself when it
// breaks, and carries the messages of calls. Knows nothing of the page and nothing of WebRTC.

const HEARTBEAT_MS = 20_000;
// How long the server may stay silent after a heartbeat before the link counts as dead. A network that
// vanished closes no socket.
const REPLY_MS = 10_000;
// How long a connection may take until it is signed in.
const SIGN_IN_MS = 10_000;
const FIRST_RETRY_MS = 1_000;
const LONGEST_RETRY_MS = 30_000;

// The wait before attempt number `failures` + 1. The random half keeps all viewers of a server that comes
// back from arriving in the same instant.
export function retryDelay(failures, random = Math.random()) {
  const longest = Math.min(LONGEST_RETRY_MS, FIRST_RETRY_MS * 2 ** failures);
  return Math.round((longest * (1 + random)) / 2);
}

// The ICE servers of a sign-in response as RTCPeerConnection takes them. A TURN server's user and password
// stand at the same place in their own lists.
export function iceServers({ stunAddr, turnAddr, turnUser, turnPass }) {
  const texts = (list) => (Array.isArray(list) ? list : []);
  const stun = texts(stunAddr).map((urls) => ({ urls }));
  const turn = texts(turnAddr).map((urls, i) => ({
    urls,
    username: texts(turnUser)[i] ?? "",
    credential: texts(turnPass)[i] ?? "",
  }));
  return [...stun, ...turn].filter((server) => typeof server.urls === "string" && server.urls !== "");
}

function parseMessage(text) {
  try {
    const message = JSON.parse(text);
    return typeof message === "object" ? message : null;
  } catch {
    return null;
  }
}

// Calls these handlers, all of them required:
//   onLink({ state })     "connecting"; "open": signed in; "waiting", with `delay` in ms until the next
//                         attempt; "refused", with `code` and `message`: no more attempts
//   onCameras(cameras)    the cameras online: [{ serialCode, mustPermitCode }]
//   onMessage(message)    from a camera in a call: { serialCode, messageType, message }
//   onError(error)        an answer to something sent: { code, messageType, toSerialCode, message }
export class Signalling {
  #url;
  #account;
  #handlers;
  #socket = null;
  #signedIn = false;
  #iceServers = [];
  #failures = 0;
  #retryTimer = 0;
  #heartbeatTimer = 0;
  #deadline = 0;

  // account: { key, secret }. Connects at once.
  constructor(url, account, handlers) {
    this.#url = url;
    this.#account = account;
    this.#handlers = handlers;
    this.#connect();
  }

  get signedIn() {
    return this.#signedIn;
  }

  // From the latest sign-in; they outlive a broken link.
  get iceServers() {
    return this.#iceServers;
  }

  // Opens a call. Returns false, having done nothing, while the link is down; so do the other senders.
  call(serialCode, offer, permitCode) {
    return this.#sendToCamera(serialCode, "callRequest", offer, permitCode ? { permitCode } : {});
  }

  sendCandidate(serialCode, candidate) {
    return this.#sendToCamera(serialCode, "remoteCandidate", candidate);
  }

  hangUp(serialCode) {
    return this.#sendToCamera(serialCode, "hangup", "");
  }

  // Ends a wait between two attempts.
  retryNow() {
    if (this.#retryTimer !== 0) this.#connect();
  }

  // For good: no handler is called any more.
  close() {
    this.#dropSocket();
    clearTimeout(this.#retryTimer);
    this.#retryTimer = 0;
  }

  #connect() {
    clearTimeout(this.#retryTimer);
    this.#retryTimer = 0;
    const socket = new WebSocket(this.#url);
    this.#socket = socket;
    socket.onopen = () => this.#send({ opcode: "signin", ...this.#account, loginType: 2 });
    socket.onmessage = ({ data }) => this.#receive(data);
    socket.onclose = () => this.#lost();
    this.#expectWithin(SIGN_IN_MS);
    this.#handlers.onLink({ state: "connecting" });
  }

  #receive(text) {
    const message = parseMessage(text);
    if (message === null) return;
    if (this.#signedIn) clearTimeout(this.#deadline);
    if (message.opcode === "signin") this.#onSignIn(message);
    else if (message.code > 0) this.#handlers.onError(message);
    else if (message.opcode === "heartbeat") this.#failures = 0;
    else if (message.opcode === "cameras") this.#handlers.onCameras(message.cameras);
    else if (message.opcode === "message") this.#handlers.onMessage(message);
  }

  #onSignIn(message) {
    if (message.code !== 0) {
      this.close();
      this.#handlers.onLink({ state: "refused", code: message.code, message: message.message });
      return;
    }
    clearTimeout(this.#deadline);
    this.#signedIn = true;
    this.#iceServers = iceServers(message);
    this.#heartbeatTimer = setInterval(() => this.#heartbeat(), HEARTBEAT_MS);
    this.#handlers.onLink({ state: "open" });
  }

  #heartbeat() {
    this.#send({ opcode: "heartbeat" });
    this.#expectWithin(REPLY_MS);
  }

  #expectWithin(ms) {
    clearTimeout(this.#deadline);
    this.#deadline = setTimeout(() => this.#lost(), ms);
  }

  // The count of failures is forgotten with the first heartbeat's reply, not with the sign-in: a server
  // that takes viewers in and drops them again is not hammered.
  #lost() {
    this.#dropSocket();
    const delay = retryDelay(this.#failures);
    this.#failures += 1;
    this.#retryTimer = setTimeout(() => this.#connect(), delay);
    this.#handlers.onLink({ state: "waiting", delay });
  }

  // Lets go of the socket without waiting for its close event, which a dead network holds back.
  #dropSocket() {
    clearTimeout(this.#deadline);
    clearInterval(this.#heartbeatTimer);
    this.#signedIn = false;
    if (this.#socket === null) return;
    this.#socket.onopen = this.#socket.onmessage = this.#socket.onclose = null;
    this.#socket.close();
    this.#socket = null;
  }

  #send(message) {
    this.#socket.send(JSON.stringify(message));
  }

  #sendToCamera(toSerialCode, messageType, message, more = {}) {
    if (!this.#signedIn) return false;
    this.#send({ opcode: "message", messageType, toSerialCode, ...more, message });
    return true;
  }
}
