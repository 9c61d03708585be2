// Reading and writing RTP and RTCP packets (RFC 3550), H.264 payloads (RFC 6184) and feedback (RFC 4585, 5104).

const kIdr = 5;
const kSps = 7;
const kPps = 8;
const kFuA = 28;
export const Nal = { IDR: kIdr, SPS: kSps, PPS: kPps };

export function isRtcp(packet) {
  return packet[1] >= 192 && packet[1] <= 223;
}

export function parseRtp(packet) {
  let offset = 12 + 4 * (packet[0] & 0x0f);
  if (packet[0] & 0x10) offset += 4 + 4 * packet.readUInt16BE(offset + 2);
  const padding = packet[0] & 0x20 ? packet[packet.length - 1] : 0;
  return {
    version: packet[0] >> 6,
    marker: (packet[1] & 0x80) !== 0,
    payloadType: packet[1] & 0x7f,
    sequence: packet.readUInt16BE(2),
    timestamp: packet.readUInt32BE(4),
    ssrc: packet.readUInt32BE(8),
    payload: packet.subarray(offset, packet.length - padding),
    arrived: performance.now(),
  };
}

// The NAL unit type that begins in this packet, or undefined for a later fragment of one.
export function nalTypesOf({ payload }) {
  const type = payload[0] & 0x1f;
  if (type === kFuA) return payload[1] & 0x80 ? [payload[1] & 0x1f] : [];
  if (type !== 24) return [type];
  const types = [];
  for (let at = 1; at < payload.length; at += 2 + payload.readUInt16BE(at)) types.push(payload[at + 2] & 0x1f);
  return types;
}

export function makeRtp({ payloadType, sequence, timestamp, ssrc, payload }) {
  const header = Buffer.alloc(12);
  header[0] = 0x80;
  header[1] = payloadType;
  header.writeUInt16BE(sequence & 0xffff, 2);
  header.writeUInt32BE(timestamp >>> 0, 4);
  header.writeUInt32BE(ssrc, 8);
  return Buffer.concat([header, payload]);
}

function makeRtcp(type, count, words) {
  const packet = Buffer.alloc(4 + 4 * words.length);
  packet[0] = 0x80 | count;
  packet[1] = type;
  packet.writeUInt16BE(words.length, 2);
  words.forEach((word, i) => packet.writeUInt32BE(word >>> 0, 4 + 4 * i));
  return packet;
}

const emptyReceiverReport = (sender) => makeRtcp(201, 0, [sender]);

export function makePli(sender, media) {
  return Buffer.concat([emptyReceiverReport(sender), makeRtcp(206, 1, [sender, media])]);
}

export function makeFir(sender, media, sequence) {
  return Buffer.concat([emptyReceiverReport(sender), makeRtcp(206, 4, [sender, 0, media, sequence << 24])]);
}
