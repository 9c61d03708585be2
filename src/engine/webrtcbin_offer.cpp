#include "webrtcbin_offer.h"

#include <glib.h>

#include <algorithm>
#include <cctype>

namespace engine {
namespace {

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// The value of attribute name ("rtpmap", "fmtp") that belongs to format, without the format number.
std::string formatAttribute(const GstSDPMedia* media, const char* name, const std::string& format) {
  for (guint i = 0;; ++i) {
    const gchar* value = gst_sdp_media_get_attribute_val_n(media, name, i);
    if (value == nullptr) return "";
    const std::string text = value;
    if (text.compare(0, format.size() + 1, format + " ") == 0) return text.substr(format.size() + 1);
  }
}

// The value of one parameter in "a=1;b=2".
std::string parameter(const std::string& fmtp, const std::string& name) {
  std::size_t begin = 0;
  while (begin < fmtp.size()) {
    begin = fmtp.find_first_not_of(" ;", begin);
    if (begin == std::string::npos) break;
    const std::size_t end = std::min(fmtp.find(';', begin), fmtp.size());
    if (fmtp.compare(begin, name.size() + 1, name + "=") == 0) {
      return fmtp.substr(begin + name.size() + 1, end - begin - name.size() - 1);
    }
    begin = end;
  }
  return "";
}

// How gladly we take a profile: what every decoder plays comes first.
int rankProfile(const std::string& profileLevelId) {
  const std::string id = lowerCase(profileLevelId);
  if (id.compare(0, 4, "42e0") == 0) return 3;
  if (id.compare(0, 2, "42") == 0) return 2;
  if (id.compare(0, 2, "4d") == 0) return 1;
  return 0;
}

std::optional<OfferedTrack> chooseH264(const GstSDPMedia* media, unsigned int mlineIndex) {
  std::optional<OfferedTrack> best;
  for (guint i = 0; i < gst_sdp_media_formats_len(media); ++i) {
    const std::string format = gst_sdp_media_get_format(media, i);
    if (lowerCase(formatAttribute(media, "rtpmap", format)) != "h264/90000") continue;
    const std::string fmtp = formatAttribute(media, "fmtp", format);
    if (parameter(fmtp, "packetization-mode") != "1") continue;
    const OfferedTrack track{mlineIndex, std::atoi(format.c_str()), parameter(fmtp, "profile-level-id")};
    if (!best || rankProfile(track.profileLevelId) > rankProfile(best->profileLevelId)) best = track;
  }
  return best;
}

std::optional<OfferedTrack> choosePcmu(const GstSDPMedia* media, unsigned int mlineIndex) {
  for (guint i = 0; i < gst_sdp_media_formats_len(media); ++i) {
    const std::string format = gst_sdp_media_get_format(media, i);
    const std::string encoding = lowerCase(formatAttribute(media, "rtpmap", format));
    const bool isPcmu = encoding.empty() ? format == "0" : encoding.compare(0, 9, "pcmu/8000") == 0;
    if (isPcmu) return OfferedTrack{mlineIndex, std::atoi(format.c_str()), ""};
  }
  return std::nullopt;
}

// An attribute that a section lacks when neither it nor the session has it; webrtcbin would fail on it later.
const char* findMissing(const GstSDPMessage* sdp, const GstSDPMedia* media) {
  if (gst_sdp_media_get_attribute_val(media, "mid") == nullptr) return "mid";
  for (const char* name : {"ice-ufrag", "ice-pwd", "fingerprint", "setup"}) {
    if (gst_sdp_media_get_attribute_val(media, name) == nullptr &&
        gst_sdp_message_get_attribute_val(sdp, name) == nullptr) {
      return name;
    }
  }
  return nullptr;
}

// That of the first section, onto whose transport the others are bundled.
std::string findFingerprint(const GstSDPMessage* sdp) {
  const gchar* own = gst_sdp_media_get_attribute_val(gst_sdp_message_get_media(sdp, 0), "fingerprint");
  return own != nullptr ? own : gst_sdp_message_get_attribute_val(sdp, "fingerprint");
}

void chooseTrack(const GstSDPMedia* media, unsigned int mlineIndex, Offer& offer) {
  const std::string kind = gst_sdp_media_get_media(media);
  if (kind == "video" && !offer.video) offer.video = chooseH264(media, mlineIndex);
  if (kind == "audio" && !offer.audio) offer.audio = choosePcmu(media, mlineIndex);
}

}  // namespace

std::optional<Offer> readOffer(const std::string& text, std::string& whyNot) {
  GstSDPMessage* sdp = nullptr;
  if (text.empty() || gst_sdp_message_new_from_text(text.c_str(), &sdp) != GST_SDP_OK) {
    if (sdp != nullptr) gst_sdp_message_free(sdp);
    whyNot = "not SDP";
    return std::nullopt;
  }
  Offer offer;
  offer.sdp.reset(sdp);
  for (guint i = 0; i < gst_sdp_message_medias_len(sdp); ++i) {
    const GstSDPMedia* media = gst_sdp_message_get_media(sdp, i);
    if (const char* missing = findMissing(sdp, media)) {
      whyNot = "section " + std::to_string(i) + " has no " + missing;
      return std::nullopt;
    }
    offer.mids.emplace_back(gst_sdp_media_get_attribute_val(media, "mid"));
    chooseTrack(media, i, offer);
  }
  if (offer.video || offer.audio) {
    offer.fingerprint = findFingerprint(sdp);
    return offer;
  }
  whyNot = "neither H.264 in packetization-mode 1 nor PCMU is offered";
  return std::nullopt;
}

}  // namespace engine
