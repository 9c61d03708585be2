// The server argument that the application gives, taken apart.
#ifndef SIGNALCONN_SERVER_URL_H
#define SIGNALCONN_SERVER_URL_H

#include <string>

struct ServerUrl {
  bool tls = false;
  std::string host;  // a name or an address, IPv6 without brackets
  std::string path;  // begins with '/', query included
};

// Reads a bare host or address ("cam.example", "192.0.2.1", "::1", "[::1]") or a URL ws://host[/path],
// wss://host[/path] (RFC 6455, section 3; the scheme in any case). The port is an argument of its own
// everywhere, so a port in the text is refused, as are user names, fragments, white space, control
// characters, a host over 127 bytes and a path over 1024. Returns false, with *url untouched, when the text is none of
// these. Pure.
bool ParseServerUrl(const std::string& text, ServerUrl* url);

#endif  // SIGNALCONN_SERVER_URL_H
