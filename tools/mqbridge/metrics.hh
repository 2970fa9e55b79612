// metrics.hh - the counters for Prometheus: GET /metrics on a port of 127.0.0.1. One answer a connection, HTTP/1.0.
#pragma once

#include <uv.h>

#include "report.hh"

namespace mqbridge {

class Metrics {
 public:
  // port 0: the system chooses one, which an event reports. Throws a Failure.
  Metrics(uv_loop_t* loop, int port, Report& report);
  void Close();

 private:
  struct Visitor;
  static void OnConnection(uv_stream_t* server, int status);

  uv_tcp_t server_ = {};
  Report& report_;
  int visitors_ = 0;
};

}  // namespace mqbridge
