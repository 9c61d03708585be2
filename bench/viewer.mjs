// A viewer that counts what arrives and decodes nothing.
import nodeDataChannel from 'node-datachannel';

const kH264 = 102;
const kPcmu = 0;
const kVoiceSsrc = 2222;

// Counts the packets of one RTP stream (RFC 3550) and the sequence numbers that are missing between them.
class Reception {
  packets = 0;
  frames = 0; // packets with the marker, one a video frame
  lost = 0;
  #next = null;

  take(packet) {
    const sequence = packet.readUInt16BE(2);
    const step = this.#next === null ? 0 : (sequence - this.#next) << 16 >> 16;
    ++this.packets;
    if (packet[1] & 0x80) ++this.frames;
    this.lost += step < 0 ? -1 : step; // one that comes late was counted as lost
    if (step >= 0) this.#next = (sequence + 1) & 0xffff;
  }
}

const isRtcp = (packet) => packet[1] >= 192 && packet[1] <= 223;

// Whether an H.264 packet (RFC 6184) begins a key frame: single, aggregated or fragmented, sequence parameters or IDR.
function beginsKeyFrame(packet) {
  const payload = packet.subarray(12 + 4 * (packet[0] & 0x0f) + (packet[0] & 0x10 ? 4 + 4 * packet.readUInt16BE(14) : 0));
  let type = payload[0] & 0x1f;
  if (type === 24) type = payload[3] & 0x1f;
  if (type === 28 && payload[1] & 0x80) type = payload[1] & 0x1f;
  return type === 5 || type === 7;
}

export class Viewer {
  video = new Reception();
  audio = new Reception();

  // onCandidate takes RTCIceCandidateInit objects.
  constructor({ onCandidate }) {
    this.peer = new nodeDataChannel.PeerConnection('viewer', { iceServers: [], disableAutoNegotiation: true });
    const video = new nodeDataChannel.Video('video', 'RecvOnly');
    video.addH264Codec(kH264);
    const audio = new nodeDataChannel.Audio('audio', 'SendRecv');
    audio.addAudioCodec(kPcmu, 'PCMU');
    audio.addSSRC(kVoiceSsrc, 'voice');
    this.tracks = [this.peer.addTrack(video), this.peer.addTrack(audio)]; // kept: a track that is collected closes
    this.connected = new Promise((resolve) => this.peer.onStateChange((state) => state === 'connected' && resolve()));
    // The first packet from which a picture could be made.
    this.firstKeyFrame = new Promise((resolve) => {
      let seen = false;
      this.tracks[0].onMessage((packet) => {
        if (isRtcp(packet)) return;
        this.video.take(packet);
        if (seen || !beginsKeyFrame(packet)) return;
        seen = true;
        resolve(performance.now());
      });
    });
    this.tracks[1].onMessage((packet) => isRtcp(packet) || this.audio.take(packet));
    this.peer.onLocalCandidate((line, mid) => {
      onCandidate({ candidate: line.replace(/^a=/, ''), sdpMid: mid, sdpMLineIndex: 0 });
    });
  }

  offer() {
    return new Promise((resolve) => {
      this.peer.onLocalDescription((sdp) => resolve(sdp));
      this.peer.setLocalDescription('offer');
    });
  }

  takeAnswer(sdp) {
    this.peer.setRemoteDescription(sdp, 'answer');
  }

  takeCandidate(text) {
    const { candidate, sdpMid } = JSON.parse(text);
    this.peer.addRemoteCandidate(candidate, sdpMid ?? '0');
  }

  counts() {
    return { frames: this.video.frames, packets: this.video.packets + this.audio.packets, lost: this.video.lost + this.audio.lost };
  }

  close() {
    this.peer.close();
  }
}

// The library's threads keep node alive until then.
export function endViewers() {
  nodeDataChannel.cleanup();
}
