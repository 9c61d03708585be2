// Why the server could not be reached, in words that an installer can use.
#ifndef SIGNALCONN_CONNECT_TROUBLE_H
#define SIGNALCONN_CONNECT_TROUBLE_H

#include <string>

// httpStatus is the server's answer to the handshake, 0 when it gave none; text is what libwebsockets gives as
// the reason, complaint what it logged last. Returns one line without a line break. Pure.
std::string ExplainConnectTrouble(unsigned httpStatus, const std::string& text, const std::string& complaint);

#endif  // SIGNALCONN_CONNECT_TROUBLE_H
