#ifndef SIGNALCONN_SERVER_TIME_POINT_H
#define SIGNALCONN_SERVER_TIME_POINT_H

#include <chrono>

namespace signalconn::server {

using TimePoint = std::chrono::steady_clock::time_point;

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_TIME_POINT_H
