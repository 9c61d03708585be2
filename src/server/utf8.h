#ifndef SIGNALCONN_SERVER_UTF8_H
#define SIGNALCONN_SERVER_UTF8_H

#include <string_view>

namespace signalconn::server {

// Whether text is UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUtf8(std::string_view text);

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_UTF8_H
