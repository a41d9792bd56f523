// The recorder's HTTP endpoint for Prometheus: /metrics serves the latest
// completed record (the text format, or OpenMetrics when the scraper's Accept
// header prefers it), / the live page, /api/v1/history the recent records it
// charts, 404 elsewhere and 405 for methods other than GET and HEAD.
//
// Built on libmicrohttpd, which Bind loads at run time (http_library.h): only
// a recorder asked to listen loads it, and the monitor never does.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

namespace kestro::zqp::record {
class History;
}

struct MHD_Daemon;
struct MHD_Connection;

namespace kestro::zqp::serve {

struct HttpLibrary;

// Where to listen: "[ADDR][:PORT]". An empty ADDR is every address (IPv6 and
// IPv4); an IPv6 address with a port is written in brackets; PORT defaults to
// kDefaultListenPort, and 0 asks the kernel for a free one.
struct ListenAddress {
  std::string host;  // empty: every address
  std::uint16_t port = 0;
};

// Prometheus keeps a register of exporters' default ports, 9100-9999, so that
// exporters on one machine do not collide; that range is fully allocated.
// This one lies outside it, below Linux's ephemeral range (32768-60999), and
// is not a port that /etc/services names.
inline constexpr std::uint16_t kDefaultListenPort = 10190;

// False, with why in error, when text is not "[ADDR][:PORT]" (PORT 0-65535).
bool ParseListenAddress(std::string_view text, ListenAddress& address, std::string& error);

// True when an Accept header ranks OpenMetrics above the text format (by q,
// then by order); "text/plain" and "*/*" stand for the text format, and a
// missing header asks for it.
bool PrefersOpenMetrics(std::string_view accept);

// Limits that keep a slow or hostile client from stalling scrapes or growing
// memory. A connection's request line and headers must fit its memory pool,
// or it gets 431 (414 for a long path).
struct ServerLimits {
  unsigned connections = 512;             // simultaneous, scrapes included
  unsigned connections_per_address = 32;  // from one client address; more are closed at once
  unsigned idle_timeout_s = 10;           // no byte received or sent for this long: closed
  // No whole request this long after the connection opened or after its
  // previous answer: closed, however steadily its bytes trickle in.
  unsigned request_deadline_s = 10;
  std::size_t connection_memory = 16384;  // per connection, request and response buffers
};

class MetricsServer {
 public:
  MetricsServer() = default;
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;
  // Stops the server: closes every connection and joins its thread.
  ~MetricsServer();

  // Loads the HTTP library, then binds and listens on the socket only: errors
  // (no library, address in use, no such address) come out here, before
  // anything else starts. False with why in error; nothing is left open then.
  bool Bind(const ListenAddress& address, std::string& error);
  // "127.0.0.1:10190", "[::]:10190": where Bind listens, port resolved.
  std::string BoundAddress() const;
  // Starts serving on its own thread, which inherits the caller's signal
  // mask and runs the library's epoll loop. Until the first Publish, /metrics answers 503. False
  // with why in error.
  bool Start(const ServerLimits& limits, std::string& error);
  // The records /api/v1/history serves (404 without): set before Start, kept
  // alive by the caller until Stop.
  void ServeHistory(const record::History* history) { history_ = history; }
  // The texts of the latest completed record. Any thread.
  void Publish(std::string text, std::string open_metrics);
  // Stops serving; Bind and Start are then needed again.
  void Stop();

 private:
  struct Exposition {
    std::string text;
    std::string open_metrics;
  };
  using Clock = std::chrono::steady_clock;
  struct Pending {
    int fd;                // the connection's socket
    Clock::time_point by;  // when a request must have been received whole
  };
  // libmicrohttpd's callbacks, in the source file.
  struct Callbacks;
  friend struct Callbacks;
  // Queues the response to one request (body: one came with a GET or HEAD);
  // on the server's thread.
  bool Answer(MHD_Connection* connection, std::string_view url, std::string_view method, bool body);
  // The server's thread: the library's work as its descriptors and timeouts
  // ask, then the request deadlines, until wake_fd_ is written.
  void Serve();

  const HttpLibrary* http_ = nullptr;  // set by Bind
  const record::History* history_ = nullptr;
  int listen_fd_ = -1;
  MHD_Daemon* daemon_ = nullptr;
  int wake_fd_ = -1;   // eventfd, written by Stop
  int epoll_fd_ = -1;  // the library's epoll descriptor and wake_fd_
  std::thread thread_;
  Clock::duration request_deadline_{};
  // Every open connection; only the server's thread uses it while it runs.
  std::unordered_map<MHD_Connection*, Pending> pending_;
  mutable std::mutex mutex_;
  std::shared_ptr<const Exposition> latest_;  // under mutex_
};

}  // namespace kestro::zqp::serve
