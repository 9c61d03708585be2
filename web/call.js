// One call to one camera: an RTCPeerConnection that receives H.264 video and PCMU audio and can send the
// microphone. Signalling and page are the owner's. A call is used once; the next call is a new object.

const ANSWER_TICKS = 15;
const FIRST_FRAME_TICKS = 20;
const INTERRUPTED_TICKS = 4;
const LOST_TICKS = 15;
// One tick of the clock above. Ticks are counted, not time: a computer that slept gets its seconds of
// grace when it wakes.
const TICK_MS = 1_000;

function codecs(kind, keep) {
  return RTCRtpReceiver.getCapabilities(kind).codecs.filter(({ mimeType }) => keep(mimeType.toLowerCase()));
}

// RTX stays: it repairs lost packets of the H.264 stream.
function restrictToH264(transceiver) {
  const h264 = codecs("video", (type) => type === "video/h264");
  if (h264.length === 0) throw new Error("This browser cannot play H.264 video.");
  transceiver.setCodecPreferences([...h264, ...codecs("video", (type) => type === "video/rtx")]);
}

function preferPcmu(transceiver) {
  const pcmu = codecs("audio", (type) => type === "audio/pcmu");
  transceiver.setCodecPreferences([...pcmu, ...codecs("audio", (type) => type !== "audio/pcmu")]);
}

// Calls these handlers, all of them required:
//   onOffer(sdp)            the offer is ready to be sent
//   onCandidate(json)       a local candidate, once the camera has answered: to a server that has not let
//                           the call through yet, candidates would be messages outside a call
//   onState(state, reason)  "connecting": answered; "live": pictures arrive; "interrupted": they stopped;
//                           "ended", the last one, with a reason: "unanswered", "unconnected", "lost",
//                           "closed" by the camera, or an Error
//   onNumbers(numbers)      every second once connected: { width, height, framesPerSecond, bitsPerSecond,
//                           roundTripMs }; what is not known is undefined
export class Call {
  #connection;
  #handlers;
  #audioSender;
  #state = "calling";
  #answered = false;
  #answerApplied = false;
  #localCandidates = [];
  #remoteCandidates = [];
  #microphone = Promise.resolve();
  #ticker = 0;
  #idleTicks = 0;
  #framesDecoded = 0;
  #previous = null;

  // Throws where the browser cannot take part: no H.264, or ICE servers that it does not understand.
  constructor(iceServers, handlers) {
    this.#handlers = handlers;
    this.#connection = new RTCPeerConnection({ iceServers, bundlePolicy: "max-bundle" });
    const video = this.#connection.addTransceiver("video", { direction: "recvonly" });
    // Both directions from the start: talking then needs no second offer, only a track.
    const audio = this.#connection.addTransceiver("audio", { direction: "sendrecv" });
    restrictToH264(video);
    preferPcmu(audio);
    this.#audioSender = audio.sender;
    this.stream = new MediaStream([video.receiver.track, audio.receiver.track]);
    this.#connection.onicecandidate = ({ candidate }) => this.#onLocalCandidate(candidate);
    this.#connection.onconnectionstatechange = () => this.#onConnectionState();
    this.#ticker = setInterval(() => this.#tick(), TICK_MS);
    this.#offer().catch((error) => this.#end(error));
  }

  get state() {
    return this.#state;
  }

  // The first answer counts; a camera may repeat itself after its link broke.
  async answer(sdp) {
    if (this.#answered || this.#state === "ended") return;
    this.#answered = true;
    try {
      await this.#connection.setRemoteDescription({ type: "answer", sdp });
    } catch (error) {
      this.#end(error);
      return;
    }
    if (this.#state === "ended") return;
    this.#answerApplied = true;
    this.#idleTicks = 0;
    // The connection's own state does not tell: it goes on as connected until ICE finds nobody there.
    const { transport } = this.#connection.getReceivers()[0];
    transport.onstatechange = () => transport.state === "closed" && this.#end("closed");
    this.#setState("connecting");
    this.#localCandidates.splice(0).forEach(this.#handlers.onCandidate);
    this.#remoteCandidates.splice(0).forEach((candidate) => this.#addCandidate(candidate));
  }

  // json: the JSON text of an RTCIceCandidateInit. May come before the answer.
  addCandidate(json) {
    if (this.#answerApplied) this.#addCandidate(json);
    else this.#remoteCandidates.push(json);
  }

  // Sends this microphone track, or nothing with null. The track stays the caller's.
  setMicrophone(track) {
    this.#microphone = this.#microphone
      .then(() => this.#audioSender.replaceTrack(track))
      .catch((error) => console.warn("The microphone was not switched:", error.message));
  }

  // Ends the call; no handler is called any more.
  close() {
    this.#state = "ended";
    clearInterval(this.#ticker);
    this.#connection.close();
  }

  // The page saw a frame: the picture is there, up to a tick before the statistics tell.
  frameShown() {
    if (this.#state === "connecting") this.#setState("live");
  }

  async #offer() {
    await this.#connection.setLocalDescription();
    if (this.#state !== "ended") this.#handlers.onOffer(this.#connection.localDescription.sdp);
  }

  #onLocalCandidate(candidate) {
    if (!candidate?.candidate) return;
    const json = JSON.stringify(candidate);
    if (this.#answerApplied) this.#handlers.onCandidate(json);
    else this.#localCandidates.push(json);
  }

  // One bad candidate is no reason to give up the others.
  #addCandidate(json) {
    Promise.resolve(json)
      .then(JSON.parse)
      .then((candidate) => this.#connection.addIceCandidate(candidate))
      .catch((error) => console.warn("The camera's candidate is of no use:", error.message));
  }

  #onConnectionState() {
    const state = this.#connection.connectionState;
    if (state === "failed") this.#end(this.#framesDecoded > 0 ? "lost" : "unconnected");
    if (state === "disconnected" && this.#state === "live") this.#setState("interrupted");
  }

  async #tick() {
    const report = await this.#connection.getStats();
    if (this.#state === "ended") return;
    const numbers = this.#readNumbers([...report.values()]);
    if (this.#answerApplied) this.#handlers.onNumbers(numbers);
    this.#judge(numbers.framesDecoded);
  }

  #judge(framesDecoded) {
    const moving = framesDecoded > this.#framesDecoded;
    this.#framesDecoded = framesDecoded;
    this.#idleTicks = moving ? 0 : this.#idleTicks + 1;
    if (moving) this.#setState("live");
    else if (!this.#answered && this.#idleTicks >= ANSWER_TICKS) this.#end("unanswered");
    else if (this.#state === "connecting" && this.#idleTicks >= FIRST_FRAME_TICKS) this.#end("unconnected");
    else if (this.#state === "live" && this.#idleTicks >= INTERRUPTED_TICKS) this.#setState("interrupted");
    else if (this.#state === "interrupted" && this.#idleTicks >= LOST_TICKS) this.#end("lost");
  }

  #readNumbers(stats) {
    const video = stats.find(({ type, kind }) => type === "inbound-rtp" && kind === "video") ?? {};
    const audio = stats.find(({ type, kind }) => type === "inbound-rtp" && kind === "audio") ?? {};
    const transport = stats.find(({ type }) => type === "transport") ?? {};
    const pair = stats.find(({ id }) => id === transport.selectedCandidatePairId) ?? {};
    const now = { time: video.timestamp, bytes: (video.bytesReceived ?? 0) + (audio.bytesReceived ?? 0) };
    const before = this.#previous;
    this.#previous = now;
    const seconds = before === null ? 0 : (now.time - before.time) / 1_000;
    return {
      width: video.frameWidth,
      height: video.frameHeight,
      framesPerSecond: video.framesPerSecond,
      framesDecoded: video.framesDecoded ?? 0,
      bitsPerSecond: seconds > 0 ? (8 * (now.bytes - before.bytes)) / seconds : undefined,
      roundTripMs: pair.currentRoundTripTime === undefined ? undefined : 1_000 * pair.currentRoundTripTime,
    };
  }

  #setState(state) {
    if (state === this.#state) return;
    this.#state = state;
    this.#handlers.onState(state);
  }

  #end(reason) {
    if (this.#state === "ended") return;
    this.close();
    this.#handlers.onState("ended", reason);
  }
}
