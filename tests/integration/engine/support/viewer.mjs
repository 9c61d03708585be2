// A viewer: a peer connection that offers to receive H.264 and to exchange PCMU, wired to one session of a probe.
import nodeDataChannel from 'node-datachannel';
import { EventLog } from './event_log.mjs';
import { isRtcp, makeFir, makePli, makeRtp, parseRtp } from './rtp.mjs';

export const kH264 = 102;
export const kPcmu = 0;
const kVideoFeedbackSsrc = 1111;
const kVoiceSsrc = 2222;

// A track whose wrapper is collected as garbage closes itself.
const open = new Set();

export class Viewer {
  video = new EventLog(); // RTP packets
  audio = new EventLog();
  states = new EventLog();
  answerSdp = null;
  localCandidates = new EventLog(); // RTCIceCandidateInit objects
  #unfollow = [];
  #firSequence = 0;
  #voiceSequence = 0;

  // session is what the engine's session is created with. With giveCandidates false the engine does not learn the
  // viewer's candidates. bindAddress keeps the viewer to one of the machine's addresses. relay: a UdpRelay, the only
  // way between the viewer and the engine.
  constructor(probe, { session = {}, giveCandidates = true, bindAddress, relay } = {}) {
    this.probe = probe;
    this.config = session;
    this.giveCandidates = giveCandidates && !relay;
    this.relay = relay;
    this.peer = new nodeDataChannel.PeerConnection('viewer', {
      iceServers: [], disableAutoNegotiation: true, ...(bindAddress && { bindAddress }),
    });
    const video = new nodeDataChannel.Video('video', 'RecvOnly');
    video.addH264Codec(kH264);
    const audio = new nodeDataChannel.Audio('audio', 'SendRecv');
    audio.addAudioCodec(kPcmu, 'PCMU');
    audio.addSSRC(kVoiceSsrc, 'voice');
    this.videoTrack = this.peer.addTrack(video);
    this.audioTrack = this.peer.addTrack(audio);
    this.videoTrack.onMessage((packet) => isRtcp(packet) || this.video.push(parseRtp(packet)));
    this.audioTrack.onMessage((packet) => isRtcp(packet) || this.audio.push(parseRtp(packet)));
    this.peer.onStateChange((state) => this.states.push(state));
    this.peer.onLocalCandidate((line, mid) => {
      this.localCandidates.push({ candidate: line.replace(/^a=/, ''), sdpMid: mid, sdpMLineIndex: 0 });
    });
    open.add(this);
  }

  // The offer without candidates.
  makeOffer() {
    return new Promise((resolve) => {
      this.peer.onLocalDescription((sdp) => resolve(sdp));
      this.peer.setLocalDescription('offer');
    });
  }

  // Opens a session and gives it the offer; the rest follows by itself.
  async call() {
    const offer = await this.makeOffer();
    this.session = await this.probe.createSession(this.config);
    await this.callWith(offer);
  }

  async callWith(offer) {
    const result = await this.probe.do('offer', { session: this.session, sdp: offer });
    if (result !== 0) throw new Error('the offer was refused');
    const answer = await this.probe.event('answer', this.session);
    this.answerSdp = answer.sdp;
    this.peer.setRemoteDescription(answer.sdp, 'answer');
    this.#exchangeCandidates();
  }

  #exchangeCandidates() {
    this.#unfollow.push(this.probe.events.follow((event) => {
      if (event.event === 'candidate' && event.session === this.session) this.#takeCandidate(JSON.parse(event.candidate));
    }));
    if (!this.giveCandidates) return;
    this.#unfollow.push(this.localCandidates.follow((candidate) => this.giveCandidate(candidate)));
  }

  async #takeCandidate(given) {
    const taken = this.relay ? await this.relay.lead(given) : given;
    if (taken && open.has(this)) this.peer.addRemoteCandidate(taken.candidate, taken.sdpMid);
  }

  giveCandidate(candidate) {
    return this.probe.do('candidate', { session: this.session, candidate: JSON.stringify(candidate) });
  }

  async connect() {
    await this.call();
    await this.states.find((state) => state === 'connected', 'the connection');
  }

  requestKeyFrameByPli(media) {
    this.videoTrack.sendMessageBinary(makePli(kVideoFeedbackSsrc, media));
  }

  requestKeyFrameByFir(media) {
    this.videoTrack.sendMessageBinary(makeFir(kVideoFeedbackSsrc, media, this.#firSequence++));
  }

  // Nothing is said any more once the engine has closed the connection, which may happen in the midst of this.
  speak(byte, length = 160) {
    const sequence = this.#voiceSequence++;
    const packet = makeRtp({
      payloadType: kPcmu, sequence, timestamp: sequence * length, ssrc: kVoiceSsrc, payload: Buffer.alloc(length, byte),
    });
    try {
      this.audioTrack.sendMessageBinary(packet);
    } catch (error) {
      if (this.audioTrack.isOpen()) throw error;
    }
  }

  // Disappears without a word, which takes a relay: nothing of the viewer reaches the engine any more.
  vanish() {
    this.relay.close();
    this.end();
  }

  end() {
    if (!open.delete(this)) return;
    for (const unfollow of this.#unfollow) unfollow();
    this.peer.close();
  }

  // The engine ends the session.
  async leave() {
    await this.probe.do('close', { session: this.session });
    this.end();
  }
}

// To be called once, when a test file's viewers are all gone: the library's threads keep node alive.
export function endViewers() {
  for (const viewer of open) viewer.end();
  nodeDataChannel.cleanup();
}
