// metrics.cc - see metrics.hh. Limits: a kilobyte and five seconds per connection, eight connections.
#include "metrics.hh"

#include <netinet/in.h>

#include <string>
#include <string_view>

#include "fmt/format.h"
#include "mqcat/failure.hh"

namespace mqbridge {
namespace {

constexpr int kMostVisitors = 8;
constexpr uint64_t kVisitMsec = 5000;

}  // namespace

struct Metrics::Visitor {
  Metrics* metrics;
  uv_tcp_t stream;
  uv_timer_t timer;
  uv_write_t write;
  char text[1024];
  size_t length;
  int open;  // handles
  std::string answer;

  void End() {
    if (uv_is_closing(reinterpret_cast<uv_handle_t*>(&stream))) return;
    uv_close(reinterpret_cast<uv_handle_t*>(&stream), OnClosed);
    uv_close(reinterpret_cast<uv_handle_t*>(&timer), OnClosed);
  }

  static void OnClosed(uv_handle_t* handle) {
    Visitor* const visitor = static_cast<Visitor*>(handle->data);
    if (--visitor->open > 0) return;
    --visitor->metrics->visitors_;
    delete visitor;
  }

  static void OnSpace(uv_handle_t* handle, size_t, uv_buf_t* buf) {
    Visitor* const visitor = static_cast<Visitor*>(handle->data);
    *buf = uv_buf_init(visitor->text + visitor->length, static_cast<unsigned>(sizeof text - visitor->length));
  }

  static void OnRead(uv_stream_t* stream, ssize_t got, const uv_buf_t*) {
    Visitor* const visitor = static_cast<Visitor*>(stream->data);
    if (got < 0) return visitor->End();
    visitor->length += static_cast<size_t>(got);
    const std::string_view request(visitor->text, visitor->length);
    if (request.find("\r\n\r\n") != std::string_view::npos) return visitor->Answer(request);
    if (visitor->length == sizeof text) visitor->End();
  }

  void Answer(std::string_view request) {
    const bool known = request.starts_with("GET /metrics ");
    const std::string body = known ? metrics->report_.Metrics() : "only /metrics is here\n";
    answer = fmt::format("HTTP/1.0 {}\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: {}\r\n\r\n{}",
                         known ? "200 OK" : "404 Not Found", body.size(), body);
    uv_buf_t buf = uv_buf_init(answer.data(), static_cast<unsigned>(answer.size()));
    uv_stream_t* const to = reinterpret_cast<uv_stream_t*>(&stream);
    uv_read_stop(to);
    write.data = this;
    if (uv_write(&write, to, &buf, 1, OnWritten) != 0) End();
  }

  static void OnWritten(uv_write_t* write, int) { static_cast<Visitor*>(write->data)->End(); }
};

Metrics::Metrics(uv_loop_t* loop, int port, Report& report) : report_(report) {
  sockaddr_in place = {};
  uv_ip4_addr("127.0.0.1", port, &place);
  uv_tcp_init(loop, &server_);
  server_.data = this;
  int status = uv_tcp_bind(&server_, reinterpret_cast<const sockaddr*>(&place), 0);
  if (status == 0) status = uv_listen(reinterpret_cast<uv_stream_t*>(&server_), kMostVisitors, OnConnection);
  if (status != 0) {
    throw mqcat::Failure{mqcat::kExitConnection, fmt::format("metrics on 127.0.0.1:{}: {} ({})", port,
                                                             uv_strerror(status), uv_err_name(status))};
  }
  int size = sizeof place;
  uv_tcp_getsockname(&server_, reinterpret_cast<sockaddr*>(&place), &size);
  report.Event("metrics", {{"port", ntohs(place.sin_port)}});
}

void Metrics::OnConnection(uv_stream_t* server, int status) {
  Metrics* const metrics = static_cast<Metrics*>(server->data);
  if (status != 0) return;
  auto* const visitor = new Visitor{};
  visitor->metrics = metrics;
  visitor->open = 2;
  ++metrics->visitors_;
  uv_tcp_init(server->loop, &visitor->stream);
  uv_timer_init(server->loop, &visitor->timer);
  visitor->stream.data = visitor->timer.data = visitor;
  auto* const stream = reinterpret_cast<uv_stream_t*>(&visitor->stream);
  const bool taken = uv_accept(server, stream) == 0 && metrics->visitors_ <= kMostVisitors;
  if (!taken || uv_read_start(stream, Visitor::OnSpace, Visitor::OnRead) != 0) return visitor->End();
  uv_timer_start(
      &visitor->timer, [](uv_timer_t* timer) { static_cast<Visitor*>(timer->data)->End(); }, kVisitMsec, 0);
}

void Metrics::Close() { uv_close(reinterpret_cast<uv_handle_t*>(&server_), nullptr); }

}  // namespace mqbridge
