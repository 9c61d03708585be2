// An engine (kovra.h) for fuzz targets: it keeps nothing but numbers, and aborts when it is called against its
// contract.
#ifndef SIGNALCONN_TESTS_STRICT_ENGINE_H
#define SIGNALCONN_TESTS_STRICT_ENGINE_H

#include <kovra.h>

// Results of the calls that follow.
struct EngineResults {
  KOVRA_SESSION_ID nextSession = 1;  // createSession's; 0 fails
  int setRemoteOffer = 0;
  int addRemoteCandidate = 0;
  int setAudioVideoType = 0;
};

extern EngineResults engineResults;

#endif  // SIGNALCONN_TESTS_STRICT_ENGINE_H
