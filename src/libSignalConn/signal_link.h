// The state of the signalling link that only the thread which drives libwebsockets touches.
#ifndef SIGNALCONN_SIGNAL_LINK_H
#define SIGNALCONN_SIGNAL_LINK_H

#include <memory>
#include <string>
#include <vector>

#include "delivery_window.h"
#include "monotonic_event.h"
#include "name_lookup.h"
#include "server_url.h"
#include "signal_client.h"
#include "utf8_check.h"

struct KovraSignalClient::Link {
  // libwebsockets hands a timer's callback the address of its list entry, which is the timer's own.
  struct Timer {
    lws_sorted_usec_list_t entry{};
    KovraSignalClient* client = nullptr;
  };

  explicit Link(KovraSignalClient* client) { round.client = retry.client = stage.client = settle.client = client; }

  lws_vhost* plainVhost = nullptr;  // owned by the context, as is
  lws_vhost* tlsVhost = nullptr;

  // The attempt.
  ServerUrl url;
  int port = 0;
  std::string hostHeader;
  std::shared_ptr<NameLookup> lookup;  // null when none runs
  std::vector<std::string> addresses;
  std::size_t nextAddress = 0;
  bool startingConnection = false;  // inside lws_client_connect_via_info, before its result is known
  bool failedWhileStarting = false;
  bool tcpAnswered = false;
  unsigned failures = 0;  // attempts since the link last proved itself by an inbound message
  std::string trouble;    // why the latest address failed
  std::string reported;   // the trouble told last, so that it is told once

  Timer round;  // bounds the wait of lws_service
  Timer retry;  // the next attempt, or the next address
  Timer stage;  // the limit of the present stage

  // Set when the attempt that connect() asked for has an outcome.
  MonotonicEvent outcomeKnown;
  std::atomic<int> outcome{0};

  // The established link.
  bool loginDue = false;
  bool discarding = false;  // the rest of a binary message
  Utf8Check utf8;           // of the text message being assembled
  int refusal = 0;          // the close code with which the link is to end; 0: none
  DeliveryWindow window;
  bool settled = false;  // nothing was written for a moment
  Timer settle;
  lws_usec_t pingedAt = 0;
  std::vector<unsigned char> writeBuffer;  // LWS_PRE bytes, then the payload
};

#endif  // SIGNALCONN_SIGNAL_LINK_H
