#include "sdp_offer.h"

#include <algorithm>
#include <set>

#include "rtp_packet.h"
#include "text.h"

namespace kovra {

namespace {

constexpr std::size_t kMaxSections = 64;
constexpr std::size_t kMaxCandidates = 256;
constexpr std::size_t kMaxFingerprints = 16;
constexpr std::size_t kMaxBundleGroups = 16;
constexpr std::size_t kMaxMidBytes = 255;
constexpr std::size_t kMaxCredentialBytes = 256;  // RFC 8839, 5.4
constexpr std::uint64_t kMaxPayloadType = 127;
constexpr std::string_view kTokenChars = "!#$%&'*+-.^_`{|}~";  // RFC 8866, 9

bool HasControlCharacter(std::string_view line) {
  return std::any_of(line.begin(), line.end(), [](char c) {
    const auto code = static_cast<unsigned char>(c);
    return (code < 0x20 && c != '\t') || code == 0x7F;
  });
}

bool IsToken(std::string_view text) { return !text.empty() && IsMadeOf(text, kTokenChars); }

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Bytes in hexadecimal, two digits each, between colons. Empty when that is not what stands there.
std::vector<std::uint8_t> ReadDigest(std::string_view text) {
  std::vector<std::uint8_t> digest;
  if (text.size() % 3 != 2) return digest;
  for (std::size_t i = 0; i < text.size(); i += 3) {
    const int high = HexDigit(text[i]);
    const int low = HexDigit(text[i + 1]);
    const bool separated = i + 2 == text.size() || text[i + 2] == ':';
    if (high < 0 || low < 0 || !separated) return {};
    digest.push_back(static_cast<std::uint8_t>(high << 4 | low));
  }
  return digest;
}

// Bytes of the digests that we can check; 0 for others.
std::size_t DigestBytes(std::string_view algorithm) {
  if (algorithm == "sha-256") return 32;
  if (algorithm == "sha-384") return 48;
  if (algorithm == "sha-512") return 64;
  return 0;
}

std::optional<SdpDirection> ReadDirection(std::string_view name) {
  if (name == "sendrecv") return SdpDirection::kSendRecv;
  if (name == "sendonly") return SdpDirection::kSendOnly;
  if (name == "recvonly") return SdpDirection::kRecvOnly;
  if (name == "inactive") return SdpDirection::kInactive;
  return std::nullopt;
}

std::optional<SdpSetup> ReadSetup(std::string_view value) {
  if (value == "actpass") return SdpSetup::kActPass;
  if (value == "active") return SdpSetup::kActive;
  if (value == "passive") return SdpSetup::kPassive;
  return std::nullopt;
}

// Each section inherits a copy of the session's: what is too long must not be kept.
std::string_view ReadCredential(std::string_view value) {
  value = Trim(value);
  return value.size() > kMaxCredentialBytes ? std::string_view() : value;
}

SdpCodec MakeCodec(std::uint8_t payloadType) {
  SdpCodec codec;
  codec.payloadType = payloadType;
  if (payloadType == 0) {  // static (RFC 3551, 6): needs no rtpmap
    codec.name = "PCMU";
    codec.clockRate = 8000;
  }
  return codec;
}

// An unreadable mapping leaves a codec that is not known.
void ReadRtpmap(SdpCodec& codec, std::string_view value) {
  const std::string_view name = TakeUntil(value, '/');
  const std::optional<std::uint64_t> clockRate = ReadNumber(TakeUntil(value, '/'), UINT32_MAX);
  const std::optional<std::uint64_t> channels = ReadNumber(value, UINT8_MAX);
  codec.name = clockRate ? name : std::string_view();
  codec.clockRate = static_cast<std::uint32_t>(clockRate.value_or(0));
  codec.channels = static_cast<std::uint32_t>(channels.value_or(1));
}

void AddFeedback(SdpCodec& codec, std::string_view kind) {
  if (kind == "nack") codec.nack = true;
  if (kind == "nack pli") codec.pli = true;
  if (kind == "ccm fir") codec.fir = true;
}

// Of the header extensions only one is known. An id beyond the one-byte form, or a direction in which the viewer does
// not receive it, leaves it out.
void ReadExtmap(SdpSection& section, std::string_view value) {
  std::string_view entry = TakeWord(value);
  const bool hasDirection = entry.find('/') != std::string_view::npos;
  const std::optional<std::uint64_t> id = ReadNumber(TakeUntil(entry, '/'), kMaxExtensionId);
  const std::optional<SdpDirection> direction = hasDirection ? ReadDirection(entry) : SdpDirection::kSendRecv;
  if (!id || *id == 0 || TakeWord(value) != kPlayoutDelayUri) return;
  if (direction != SdpDirection::kSendRecv && direction != SdpDirection::kRecvOnly) return;
  section.playoutDelay = SdpExtmap{static_cast<std::uint8_t>(*id), *direction};
}

// Reads line by line. Each reading operation returns false, with a reason, for what makes the offer unusable.
class OfferReader {
 public:
  explicit OfferReader(std::string& reason) : reason_(reason) {}

  std::optional<SdpOffer> read(std::string_view text);

 private:
  bool readLine(std::string_view line);
  bool readMedia(std::string_view value);
  bool readFormats(std::string_view formats);
  bool readAttribute(std::string_view name, std::string_view value);
  bool readSessionAttribute(std::string_view name, std::string_view value);
  bool readTransportAttribute(std::string_view name, std::string_view value);
  bool readMediaAttribute(std::string_view name, std::string_view value);
  void readCodecAttribute(std::string_view name, std::string_view value);
  void readFeedback(std::string_view value);
  bool readFingerprint(std::string_view value);
  bool readMid(std::string_view value);
  void readBundleGroup(std::string_view value);
  SdpCodec* findCodec(std::string_view payloadType);
  // What a line speaks of: the section it stands in, or what all sections inherit.
  SdpSection& current() { return offer_.sections.empty() ? inherited_ : offer_.sections.back(); }
  bool refuse(const char* reason);

  std::string& reason_;
  SdpOffer offer_;
  SdpSection inherited_;
  std::set<std::string_view> bundledMids_;  // of all groups
  bool ownFingerprints_ = false;            // the section at hand has its own, which replace the session's
};

bool OfferReader::refuse(const char* reason) {
  reason_ = reason;
  return false;
}

std::optional<SdpOffer> OfferReader::read(std::string_view text) {
  if (text.size() > kMaxSdpBytes) {
    refuse("too large");
    return std::nullopt;
  }
  if (Trim(TakeUntil(text, '\n')) != "v=0") {
    refuse("no SDP: does not begin with v=0");
    return std::nullopt;
  }
  while (!text.empty()) {
    std::string_view line = TakeUntil(text, '\n');
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty() && !readLine(line)) return std::nullopt;
  }
  if (offer_.sections.empty()) {
    refuse("no media section");
    return std::nullopt;
  }
  return std::move(offer_);
}

bool OfferReader::readLine(std::string_view line) {
  if (line.size() < 2 || line[1] != '=' || HasControlCharacter(line)) return refuse("a line that is not SDP");
  const char type = line[0];
  line.remove_prefix(2);
  if (type == 'm') return readMedia(line);
  if (type != 'a') return true;
  const std::string_view name = TakeUntil(line, ':');
  return readAttribute(name, line);
}

bool OfferReader::readMedia(std::string_view value) {
  if (offer_.sections.size() == kMaxSections) return refuse("too many media sections");
  offer_.sections.push_back(inherited_);
  ownFingerprints_ = false;
  SdpSection& section = offer_.sections.back();
  section.media = TakeWord(value);
  std::string_view portAndCount = TakeWord(value);
  const std::optional<std::uint64_t> port = ReadNumber(TakeUntil(portAndCount, '/'), UINT16_MAX);
  section.protocol = TakeWord(value);
  section.formats = Trim(value);
  if (!IsToken(section.media) || !port || section.protocol.empty() || section.formats.empty()) {
    return refuse("an m= line that cannot be read");
  }
  section.port = static_cast<std::uint16_t>(*port);
  const bool isRtp = section.protocol.find("RTP/") != std::string::npos;
  return !isRtp || readFormats(section.formats);
}

bool OfferReader::readFormats(std::string_view formats) {
  std::vector<SdpCodec>& codecs = offer_.sections.back().codecs;
  for (std::string_view word = TakeWord(formats); !word.empty(); word = TakeWord(formats)) {
    const std::optional<std::uint64_t> payloadType = ReadNumber(word, kMaxPayloadType);
    if (!payloadType) return refuse("a payload type that is none");
    if (findCodec(word) != nullptr) return refuse("a payload type twice in one section");
    codecs.push_back(MakeCodec(static_cast<std::uint8_t>(*payloadType)));
  }
  return true;
}

bool OfferReader::readAttribute(std::string_view name, std::string_view value) {
  if (offer_.sections.empty()) return readSessionAttribute(name, value) && readTransportAttribute(name, value);
  return readMediaAttribute(name, value) && readTransportAttribute(name, value);
}

bool OfferReader::readSessionAttribute(std::string_view name, std::string_view value) {
  if (name == "ice-lite") offer_.iceLite = true;
  if (name != "group") return true;
  if (offer_.bundleGroups.size() == kMaxBundleGroups) return refuse("too many groups");
  readBundleGroup(value);
  return true;
}

// A section is in one group at most (RFC 8843): the first that names it.
void OfferReader::readBundleGroup(std::string_view value) {
  if (TakeWord(value) != "BUNDLE") return;
  std::vector<std::string>& mids = offer_.bundleGroups.emplace_back();
  for (std::string_view mid = TakeWord(value); !mid.empty(); mid = TakeWord(value)) {
    if (bundledMids_.size() == kMaxSections) return;
    if (bundledMids_.insert(mid).second) mids.emplace_back(mid);
  }
}

// What may stand at both levels.
bool OfferReader::readTransportAttribute(std::string_view name, std::string_view value) {
  SdpSection& section = current();
  if (name == "ice-ufrag") {
    section.iceUfrag = ReadCredential(value);
  } else if (name == "ice-pwd") {
    section.icePassword = ReadCredential(value);
  } else if (name == "setup") {
    section.setup = ReadSetup(Trim(value));
  } else if (name == "fingerprint") {
    return readFingerprint(value);
  } else if (const std::optional<SdpDirection> direction = ReadDirection(name)) {
    section.direction = *direction;
  }
  return true;
}

bool OfferReader::readFingerprint(std::string_view value) {
  SdpFingerprint fingerprint;
  fingerprint.algorithm = ToLower(TakeWord(value));
  const std::size_t size = DigestBytes(fingerprint.algorithm);
  if (size == 0) return true;
  fingerprint.digest = ReadDigest(Trim(value));
  if (fingerprint.digest.size() != size) return refuse("a fingerprint that cannot be read");

  std::vector<SdpFingerprint>& fingerprints = current().fingerprints;
  if (!offer_.sections.empty() && !ownFingerprints_) {
    fingerprints.clear();
    ownFingerprints_ = true;
  }
  if (fingerprints.size() == kMaxFingerprints) return refuse("too many fingerprints");
  fingerprints.push_back(std::move(fingerprint));
  return true;
}

bool OfferReader::readMediaAttribute(std::string_view name, std::string_view value) {
  SdpSection& section = offer_.sections.back();
  if (name == "mid") return readMid(Trim(value));
  if (name == "rtcp-mux") section.rtcpMux = true;
  if (name == "bundle-only") section.bundleOnly = true;
  if (name == "extmap") ReadExtmap(section, value);
  readCodecAttribute(name, value);
  if (name != "candidate") return true;

  if (section.candidates.size() == kMaxCandidates) return refuse("too many candidates");
  // One that cannot be read is of a kind unknown to us and is passed over.
  if (auto candidate = ReadIceCandidate("candidate:" + std::string(value))) {
    section.candidates.push_back(std::move(*candidate));
  }
  return true;
}

bool OfferReader::readMid(std::string_view value) {
  if (!IsToken(value) || value.size() > kMaxMidBytes) return refuse("a mid that is no token");
  for (const SdpSection& other : offer_.sections) {
    if (other.mid == value) return refuse("the same mid twice");
  }
  offer_.sections.back().mid = value;
  return true;
}

void OfferReader::readCodecAttribute(std::string_view name, std::string_view value) {
  if (name == "rtcp-fb") readFeedback(value);
  if (name != "rtpmap" && name != "fmtp") return;
  SdpCodec* codec = findCodec(TakeWord(value));
  if (codec == nullptr) return;
  if (name == "rtpmap") {
    ReadRtpmap(*codec, Trim(value));
  } else {
    if (!codec->parameters.empty()) codec->parameters += ';';
    codec->parameters += Trim(value);
  }
}

void OfferReader::readFeedback(std::string_view value) {
  const std::string_view payloadType = TakeWord(value);
  const std::string_view kind = Trim(value);
  const SdpCodec* only = findCodec(payloadType);
  for (SdpCodec& codec : offer_.sections.back().codecs) {
    if (payloadType == "*" || &codec == only) AddFeedback(codec, kind);
  }
}

SdpCodec* OfferReader::findCodec(std::string_view payloadType) {
  const std::optional<std::uint64_t> number = ReadNumber(payloadType, kMaxPayloadType);
  if (!number) return nullptr;
  for (SdpCodec& codec : offer_.sections.back().codecs) {
    if (codec.payloadType == *number) return &codec;
  }
  return nullptr;
}

}  // namespace

std::optional<std::string> SdpCodec::parameter(std::string_view key) const {
  std::string_view rest = parameters;
  while (!rest.empty()) {
    std::string_view value = TakeUntil(rest, ';');
    if (EqualsIgnoringCase(Trim(TakeUntil(value, '=')), key)) return std::string(Trim(value));
  }
  return std::nullopt;
}

bool SdpCodec::isNamed(std::string_view codecName) const { return EqualsIgnoringCase(name, codecName); }

const SdpCodec* SdpSection::findCodec(std::uint8_t payloadType) const {
  const auto found = std::find_if(codecs.begin(), codecs.end(),
                                  [payloadType](const SdpCodec& codec) { return codec.payloadType == payloadType; });
  return found == codecs.end() ? nullptr : &*found;
}

std::optional<SdpOffer> ReadSdpOffer(std::string_view text, std::string& reason) {
  return OfferReader(reason).read(text);
}

}  // namespace kovra
