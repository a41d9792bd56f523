#include "serve/metrics_server.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "base/decimal.h"
#include "record/history.h"
#include "serve/http_library.h"
#include "serve/live_page.h"

namespace kestro::zqp::serve {
namespace {

constexpr char kTextType[] = "text/plain; version=0.0.4; charset=utf-8";
constexpr char kOpenMetricsType[] = "application/openmetrics-text; version=1.0.0; charset=utf-8";
constexpr int kBacklog = 128;

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

// The q of a media range's parameters ("; version=1.0.0;q=0.5"), 1 when absent
// and 0 when malformed (RFC 9110: 0 to 1, at most three decimals).
double Quality(std::string_view parameters) {
  while (!parameters.empty()) {
    const std::size_t end = parameters.find(';');
    const std::string_view parameter = Trim(parameters.substr(0, end));
    parameters = end == std::string_view::npos ? "" : parameters.substr(end + 1);
    if (parameter.size() < 2 || (parameter[0] != 'q' && parameter[0] != 'Q') || parameter[1] != '=')
      continue;
    const std::string value(parameter.substr(2));
    char* stop = nullptr;
    const double q = std::strtod(value.c_str(), &stop);
    if (value.empty() || *stop != '\0' || !(q >= 0 && q <= 1)) return 0;
    return q;
  }
  return 1;
}

struct Response {
  unsigned status;
  const char* type;
  std::string_view body;
  std::shared_ptr<const void> owner;  // keeps body alive until sent
};

}  // namespace

bool ParseListenAddress(std::string_view text, ListenAddress& address, std::string& error) {
  const std::string quoted = "'" + std::string(text) + "'";
  std::string_view host = text;
  std::string_view port;
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos || close == 1 ||
        (close + 1 < text.size() && text[close + 1] != ':')) {
      error = "listen address " + quoted + " is not [ADDR][:PORT]";
      return false;
    }
    host = text.substr(1, close - 1);
    if (close + 1 < text.size()) port = text.substr(close + 2);
    if (close + 1 < text.size() && port.empty()) {
      error = "listen address " + quoted + " has no port after ':'";
      return false;
    }
  } else if (const std::size_t colon = text.rfind(':'); colon != std::string_view::npos) {
    // More than one colon without brackets: an IPv6 address alone.
    if (text.find(':') == colon) {
      host = text.substr(0, colon);
      port = text.substr(colon + 1);
      if (port.empty()) {
        error = "listen address " + quoted + " has no port after ':'";
        return false;
      }
    }
  }
  // No address or host name holds a bracket: "a]:b" is no IPv6 address, and
  // it could not be shown back in brackets.
  if (host.find_first_of("[]") != std::string_view::npos) {
    error = "listen address " + quoted + " is not [ADDR][:PORT]";
    return false;
  }
  address.host = std::string(host);
  address.port = kDefaultListenPort;
  if (port.empty()) return true;
  const std::optional<std::uint16_t> value = base::ParseDecimal<std::uint16_t>(port);
  if (!value) {
    error = "listen port '" + std::string(port) + "' is not a number from 0 to 65535";
    return false;
  }
  address.port = *value;
  return true;
}

bool PrefersOpenMetrics(std::string_view accept) {
  double open_metrics = 0;
  double text = 0;
  bool open_metrics_first = false;
  while (!accept.empty()) {
    const std::size_t end = accept.find(',');
    const std::string_view range = accept.substr(0, end);
    accept = end == std::string_view::npos ? "" : accept.substr(end + 1);
    const std::size_t semicolon = range.find(';');
    const std::string_view type = Trim(range.substr(0, semicolon));
    const double q =
        semicolon == std::string_view::npos ? 1.0 : Quality(range.substr(semicolon + 1));
    if (EqualsIgnoringCase(type, "application/openmetrics-text")) {
      if (q > open_metrics && text == 0) open_metrics_first = true;
      open_metrics = std::max(open_metrics, q);
    } else if (EqualsIgnoringCase(type, "text/plain") || EqualsIgnoringCase(type, "text/*") ||
               type == "*/*") {
      text = std::max(text, q);
    }
  }
  return open_metrics > 0 && (open_metrics > text || (open_metrics == text && open_metrics_first));
}

MetricsServer::~MetricsServer() {
  Stop();
}

bool MetricsServer::Bind(const ListenAddress& address, std::string& error) {
  Stop();
  http_ = LoadHttpLibrary(error);
  if (http_ == nullptr) {
    error = "--listen needs the package libmicrohttpd12: " + error;
    return false;
  }
  const std::string port = std::to_string(address.port);
  const std::string where =
      (address.host.find(':') == std::string::npos ? address.host : "[" + address.host + "]") +
      ":" + port;
  // Every address: IPv6's, which also takes IPv4 when the system allows it,
  // else IPv4's alone.
  std::vector<std::string> hosts;
  if (address.host.empty()) {
    hosts = {"::", "0.0.0.0"};
  } else {
    hosts = {address.host};
  }
  int first_errno = 0;
  for (const std::string& host : hosts) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (status != 0) {
      if (hosts.size() > 1) continue;
      error = "cannot listen on " + where + ": " + gai_strerror(status);
      return false;
    }
    for (const addrinfo* at = found; at != nullptr && listen_fd_ < 0; at = at->ai_next) {
      const int fd =
          socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, at->ai_protocol);
      if (fd < 0) {
        if (first_errno == 0) first_errno = errno;
        continue;
      }
      const int on = 1;
      const int off = 0;
      setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      if (at->ai_family == AF_INET6 && address.host.empty()) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
      }
      if (bind(fd, at->ai_addr, at->ai_addrlen) != 0 || listen(fd, kBacklog) != 0) {
        if (first_errno == 0) first_errno = errno;
        close(fd);
        continue;
      }
      listen_fd_ = fd;
    }
    freeaddrinfo(found);
    if (listen_fd_ >= 0) break;
  }
  if (listen_fd_ < 0) {
    error = "cannot listen on " + where + ": " + std::strerror(first_errno ? first_errno : EINVAL);
    return false;
  }
  return true;
}

std::string MetricsServer::BoundAddress() const {
  if (listen_fd_ < 0) return "";
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return "";
  char text[INET6_ADDRSTRLEN] = "";
  if (storage.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&storage);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(in6->sin6_port));
  }
  const auto* in = reinterpret_cast<const sockaddr_in*>(&storage);
  inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(in->sin_port));
}

struct MetricsServer::Callbacks {
  static MHD_Result Access(void* self, MHD_Connection* connection, const char* url,
                           const char* method, const char*, const char*,
                           std::size_t* upload_data_size, void** state) {
    static char seen;
    auto* server = static_cast<MetricsServer*>(self);
    const std::string_view verb = method;
    if (*state != nullptr) {
      // The request is complete; a body that was not announced is not read.
      if (*upload_data_size != 0) return MHD_NO;
      return server->Answer(connection, url, verb, false) ? MHD_YES : MHD_NO;
    }
    // Anything but a bodiless GET or HEAD is answered at once, before any
    // body is read, and the connection then closes. A GET or HEAD is answered
    // once its request is complete, so that the connection can be kept for
    // the next scrape.
    const char* length = server->http_->lookup_connection_value(connection, MHD_HEADER_KIND,
                                                                MHD_HTTP_HEADER_CONTENT_LENGTH);
    const bool body =
        (length != nullptr && std::string_view(length) != "0") ||
        server->http_->lookup_connection_value(connection, MHD_HEADER_KIND,
                                               MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr;
    if ((verb == "GET" || verb == "HEAD") && !body) {
      *state = &seen;
      return MHD_YES;
    }
    return server->Answer(connection, url, verb, body) ? MHD_YES : MHD_NO;
  }

  static void Release(void* owner) { delete static_cast<std::shared_ptr<const void>*>(owner); }

  // A connection's first request is due request_deadline_ after it opens.
  static void Notify(void* self, MHD_Connection* connection, void**,
                     MHD_ConnectionNotificationCode code) {
    auto* server = static_cast<MetricsServer*>(self);
    if (code != MHD_CONNECTION_NOTIFY_STARTED) {
      server->pending_.erase(connection);
      return;
    }
    const MHD_ConnectionInfo* info =
        server->http_->get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    server->pending_[connection] = {info != nullptr ? info->connect_fd : -1,
                                    Clock::now() + server->request_deadline_};
  }
};

bool MetricsServer::Start(const ServerLimits& limits, std::string& error) {
  if (listen_fd_ < 0) {
    error = "no listening socket";
    return false;
  }
  request_deadline_ = std::chrono::seconds(limits.request_deadline_s);
  // Without the library's own thread: the deadline of a request whose bytes
  // keep coming is for this side to enforce, and shutting a socket down is
  // safe only where the library would close it, on the thread that runs it.
  daemon_ = http_->start_daemon(
      MHD_USE_EPOLL, 0, nullptr, nullptr, &Callbacks::Access, this, MHD_OPTION_LISTEN_SOCKET,
      static_cast<MHD_socket>(listen_fd_), MHD_OPTION_CONNECTION_LIMIT,
      static_cast<unsigned int>(limits.connections), MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      static_cast<unsigned int>(limits.connections_per_address), MHD_OPTION_CONNECTION_TIMEOUT,
      static_cast<unsigned int>(limits.idle_timeout_s), MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      static_cast<std::size_t>(limits.connection_memory), MHD_OPTION_NOTIFY_CONNECTION,
      &Callbacks::Notify, this, MHD_OPTION_END);
  const MHD_DaemonInfo* info =
      daemon_ != nullptr ? http_->get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD) : nullptr;
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  bool watched = info != nullptr && wake_fd_ >= 0 && epoll_fd_ >= 0;
  for (const int fd : {info != nullptr ? info->epoll_fd : -1, wake_fd_}) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    watched = watched && epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) == 0;
  }
  if (!watched) {
    Stop();
    error = "cannot start the HTTP server";
    return false;
  }
  // One thread waits on epoll for every connection, so idle or slow clients
  // cost a descriptor and their memory pool each, never a thread.
  thread_ = std::thread(&MetricsServer::Serve, this);
  return true;
}

void MetricsServer::Serve() {
  for (;;) {
    // The library's next timeout or the next request deadline, whichever
    // comes first; a day when there is neither.
    std::chrono::milliseconds wait = std::chrono::hours(24);
    MHD_UNSIGNED_LONG_LONG library_ms = 0;
    if (http_->get_timeout(daemon_, &library_ms) == MHD_YES && library_ms < 86400000u)
      wait = std::chrono::milliseconds(library_ms);
    const Clock::time_point now = Clock::now();
    for (const auto& [connection, pending] : pending_) {
      if (pending.by != Clock::time_point::max())
        wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(pending.by - now));
    }
    epoll_event events[2];
    const int ready =
        epoll_wait(epoll_fd_, events, 2, static_cast<int>(std::max<std::int64_t>(0, wait.count())));
    for (int i = 0; i < ready; ++i)
      if (events[i].data.fd == wake_fd_) return;
    http_->run(daemon_);
    // A late request's socket is shut down; the library then reads its end
    // and closes the connection.
    const Clock::time_point after = Clock::now();
    for (auto& [connection, pending] : pending_) {
      if (pending.by > after) continue;  // also one already shut down
      shutdown(pending.fd, SHUT_RDWR);
      pending.by = Clock::time_point::max();
    }
  }
}

void MetricsServer::Stop() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    if (write(wake_fd_, &one, sizeof one) != sizeof one) std::abort();
    thread_.join();
  }
  if (daemon_ != nullptr) {
    // The daemon closes the listening socket it was given.
    http_->stop_daemon(daemon_);
    daemon_ = nullptr;
    listen_fd_ = -1;
  }
  pending_.clear();
  for (int* fd : {&listen_fd_, &wake_fd_, &epoll_fd_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void MetricsServer::Publish(std::string text, std::string open_metrics) {
  auto latest =
      std::make_shared<const Exposition>(Exposition{std::move(text), std::move(open_metrics)});
  const std::lock_guard<std::mutex> hold(mutex_);
  latest_ = std::move(latest);
}

bool MetricsServer::Answer(MHD_Connection* connection, std::string_view url,
                           std::string_view method, bool body) {
  Response response{MHD_HTTP_NOT_FOUND, "text/plain; charset=utf-8", "404 not found\n", nullptr};
  if (method != "GET" && method != "HEAD") {
    response = {MHD_HTTP_METHOD_NOT_ALLOWED, response.type, "405 only GET and HEAD\n", nullptr};
  } else if (body) {
    response = {MHD_HTTP_CONTENT_TOO_LARGE, response.type, "413 no request body expected\n",
                nullptr};
  } else if (url == "/") {
    response = {MHD_HTTP_OK, "text/html; charset=utf-8", LivePage(), nullptr};
  } else if (url == "/api/v1/history" && history_ != nullptr) {
    std::optional<std::int64_t> since_ms;
    if (!record::ParseSince(
            http_->lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "since"), since_ms)) {
      response = {MHD_HTTP_BAD_REQUEST, response.type,
                  "400 since is not a number of milliseconds from 0 to 10^15\n", nullptr};
    } else {
      auto json = std::make_shared<const std::string>(history_->Since(since_ms));
      response = {MHD_HTTP_OK, "application/json", *json, json};
    }
  } else if (url == "/metrics") {
    std::shared_ptr<const Exposition> latest;
    {
      const std::lock_guard<std::mutex> hold(mutex_);
      latest = latest_;
    }
    const char* accept = http_->lookup_connection_value(connection, MHD_HEADER_KIND, "Accept");
    if (latest == nullptr) {
      response = {MHD_HTTP_SERVICE_UNAVAILABLE, response.type, "503 no record yet\n", nullptr};
    } else if (PrefersOpenMetrics(accept ? accept : "")) {
      response = {MHD_HTTP_OK, kOpenMetricsType, latest->open_metrics, latest};
    } else {
      response = {MHD_HTTP_OK, kTextType, latest->text, latest};
    }
  }
  // The body stays where it is: the response holds what owns it.
  auto* owner = new std::shared_ptr<const void>(std::move(response.owner));
  MHD_Response* reply = http_->create_response(
      response.body.size(), const_cast<char*>(response.body.data()), &Callbacks::Release, owner);
  if (reply == nullptr) {
    Callbacks::Release(owner);
    return false;
  }
  http_->add_response_header(reply, MHD_HTTP_HEADER_CONTENT_TYPE, response.type);
  // The page polls; a cached answer would freeze it.
  http_->add_response_header(reply, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  if (response.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    http_->add_response_header(reply, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  } else if (response.status == MHD_HTTP_SERVICE_UNAVAILABLE) {
    http_->add_response_header(reply, MHD_HTTP_HEADER_RETRY_AFTER, "1");
  }
  // The next request on the connection is due from now.
  if (const auto found = pending_.find(connection); found != pending_.end())
    found->second.by = Clock::now() + request_deadline_;
  const MHD_Result queued = http_->queue_response(connection, response.status, reply);
  http_->destroy_response(reply);
  return queued == MHD_YES;
}

}  // namespace kestro::zqp::serve
