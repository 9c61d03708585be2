// What a camera application calls to let remote viewers watch the camera and talk to it.
//
// Order of calls: kovraRegisterAudioCB (optional, any time), kovraInit, kovraRun; then media frames, or
// runTestDataMode(true). There is no shutdown call: SIGINT ends kovraRun, and the end of the process
// (return from main, or exit from any thread) ends the rest, within about 5 seconds.
//
// No argument is checked: every char* must point to a NUL-terminated text. Texts are copied. All logging of
// the library goes to standard output; what libwebsockets complains about goes to standard error.
#ifndef SIGNAL_CONN_H
#define SIGNAL_CONN_H

#include <cstddef>

// Signs the device in. Installs a SIGINT handler, sets up the engine, starts connecting to the server
// and starts the heartbeat. Waits for the network for 3 seconds at most; an unreachable server is
// logged and tried again for ever. Call it from one thread, once; a second call connects anew and starts one
// more heartbeat.
//   server      host name, address ("[::1]" or "::1" for IPv6), or a URL ws://host[/path],
//               wss://host[/path]
//   port        TCP port of the server
//   sn          the device's serial number: viewers call the camera by it
//   key, secret the account at the server
//   mac         the device's MAC address, as text
//   authType, authCode     how the device proves itself; passed on to the server
//   mustPermit, permitCode 1: viewers must give permitCode; 0: they need none
// Returns 0, or the positive error number of pthread_create when the heartbeat could not be started.
int kovraInit(char* server, int port, char* sn, char* key, char* secret, char* mac, int authType, char* authCode,
              int mustPermit, char* permitCode);

// Tells the server a new permit setting and uses it for every later sign-in. Same thread as kovraInit;
// kovraRun may be running.
void kovraSetPermitMsg(int mustPermit, char* permitCode);

// Serves the signalling link until SIGINT or runTestDataMode(false). bInTread false: on the caller's
// thread, returning at the end. bInTread true: on a new thread that begins 6 seconds later; returns at once.
void kovraRun(bool bInTread);

// Registers the receiver of viewers' audio: G.711 u-law, 8 kHz mono, len in bytes, 20 ms a call as a rule.
// cb runs on a thread of the engine, must return quickly, and copies what it keeps. A null pointer ends
// delivery. May be called at any time; a frame on its way may still reach the former receiver.
void kovraRegisterAudioCB(void (*cb)(void* data, size_t len));

// Sends one encoded video frame to the viewers: an H.264 access unit in Annex B form, SPS and PPS before
// each IDR. data is borrowed for the call. frameType is ignored. videoType is the engine's code of the
// stream: 1 is what viewers receive unless they switch. One thread at a time; no lock, no copy.
// Returns non-zero when the engine wants a key frame: ask the encoder for one.
int kovraOnVideoFrame(void* data, size_t len, int frameType, int videoType);

// Sends one encoded audio frame to the viewers: G.711 u-law, 8 kHz mono, 160 bytes (20 ms) as a rule. data is
// borrowed for the call. One thread at a time, which may run beside the video thread. Returns 0.
int kovraOnAudioFrame(void* data, size_t len);

// Test data mode: true plays ./h264SampleFrames/frame-001.h264 … frame-060.h264 and ./20s.pcmu from the
// working directory to the viewers, in place of live media; ./20s.pcmu must hold 96,160 bytes or more, and its absence
// ends the process. false stops playing and, with it, kovraRun and the heartbeat; it waits for the sources, 50 ms or
// so. Returns 0.
int runTestDataMode(bool start);

#endif  // SIGNAL_CONN_H
