#include "serve/metrics_server.h"

#include "record/history.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace kestro::zqp::serve {
namespace {

TEST(ListenAddressTest, ParsesAndRefuses) {
  struct Case {
    const char* text;
    const char* host;  // nullptr: refused with error
    int port;
    const char* error;
  };
  const std::vector<Case> cases = {
      {":9000", "", 9000, ""},
      {"", "", kDefaultListenPort, ""},
      {"127.0.0.1", "127.0.0.1", kDefaultListenPort, ""},
      {"localhost:0", "localhost", 0, ""},
      {"[::1]:65535", "::1", 65535, ""},
      {"[::]", "::", kDefaultListenPort, ""},
      {"::1", "::1", kDefaultListenPort, ""},
      {"host:", nullptr, 0, "listen address 'host:' has no port after ':'"},
      {"[::1]:", nullptr, 0, "listen address '[::1]:' has no port after ':'"},
      {"[::1", nullptr, 0, "listen address '[::1' is not [ADDR][:PORT]"},
      {"[]:80", nullptr, 0, "listen address '[]:80' is not [ADDR][:PORT]"},
      {"[::1]80", nullptr, 0, "listen address '[::1]80' is not [ADDR][:PORT]"},
      {"[[::1]:80", nullptr, 0, "listen address '[[::1]:80' is not [ADDR][:PORT]"},
      {"::1]:80", nullptr, 0, "listen address '::1]:80' is not [ADDR][:PORT]"},
      {":65536", nullptr, 0, "listen port '65536' is not a number from 0 to 65535"},
      {":99999999999999999999", nullptr, 0,
       "listen port '99999999999999999999' is not a number from 0 to 65535"},
      {":-1", nullptr, 0, "listen port '-1' is not a number from 0 to 65535"},
      {":8o", nullptr, 0, "listen port '8o' is not a number from 0 to 65535"},
  };
  for (const Case& c : cases) {
    ListenAddress address;
    std::string error;
    const bool ok = ParseListenAddress(c.text, address, error);
    EXPECT_EQ(ok, c.host != nullptr) << c.text;
    EXPECT_EQ(error, c.error) << c.text;
    if (!ok) continue;
    EXPECT_EQ(address.host + ":" + std::to_string(address.port),
              std::string(c.host) + ":" + std::to_string(c.port));
  }
}

TEST(AcceptTest, OpenMetricsOnlyWhenRankedAboveText) {
  const std::vector<std::pair<const char*, bool>> cases = {
      // What Prometheus sends.
      {"application/openmetrics-text;version=1.0.0,application/openmetrics-text;version=0.0.1;"
       "q=0.75,text/plain;version=0.0.4;q=0.5,*/*;q=0.1",
       true},
      {"", false},
      {"*/*", false},
      {"text/plain", false},
      {"Application/OpenMetrics-Text", true},
      {"application/openmetrics-text; q=0.2, text/plain; q=0.3", false},
      {"text/plain;q=0.3, application/openmetrics-text;q=0.2", false},
      {"application/openmetrics-text, text/plain", true},
      {"text/plain, application/openmetrics-text", false},
      {"application/openmetrics-text;q=0", false},
      {"application/openmetrics-text;q=abc", false},
      {"application/openmetrics-text;q=2", false},
      {"text/*;q=0.9, application/openmetrics-text;q=0.95", true},
      {"application/json", false},
  };
  for (const auto& [accept, open_metrics] : cases) {
    EXPECT_EQ(PrefersOpenMetrics(accept), open_metrics) << accept;
  }
}

// Raw HTTP over loopback: every request as sent, the answer as received
// until the server closes or a full response has come.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ServerLimits limits;
    limits.idle_timeout_s = 3;
    server.ServeHistory(&history);
    port = Serve(server, limits);
  }

  // Starts server on a free loopback port, which it returns.
  static int Serve(MetricsServer& server, const ServerLimits& limits) {
    std::string error;
    EXPECT_TRUE(server.Bind({"127.0.0.1", 0}, error)) << error;
    const std::string bound = server.BoundAddress();
    const int port = std::stoi(bound.substr(bound.rfind(':') + 1));
    EXPECT_EQ(bound, "127.0.0.1:" + std::to_string(port));
    EXPECT_TRUE(server.Start(limits, error)) << error;
    return port;
  }

  int Connect(int to = 0) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(to != 0 ? to : port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    timeval timeout{10, 0};  // against a hang only
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return fd;
  }

  // Sends the request and reads one response: headers, then Content-Length
  // bytes of body (none for HEAD).
  static std::string Exchange(int fd, const std::string& request, bool head = false) {
    EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    std::string in;
    char buffer[4096];
    std::size_t want = std::string::npos;
    while (want == std::string::npos || in.size() < want) {
      const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      in.append(buffer, static_cast<std::size_t>(got));
      const std::size_t end = in.find("\r\n\r\n");
      if (want == std::string::npos && end != std::string::npos) {
        const std::size_t at = in.find("Content-Length: ");
        const std::size_t length = at < end ? std::stoul(in.substr(at + 16)) : 0;
        want = end + 4 + (head ? 0 : length);
      }
    }
    return in;
  }

  std::string Get(const std::string& request, bool head = false) {
    const int fd = Connect();
    std::string out = Exchange(fd, request, head);
    close(fd);
    return out;
  }

  record::History history{1000, 2000, 0};
  MetricsServer server;
  int port = 0;
};

// The status line, the headers that matter here, and the body.
std::string Summary(const std::string& response) {
  const std::size_t end = response.find("\r\n\r\n");
  if (end == std::string::npos) return "incomplete: " + response;
  std::string out = response.substr(0, response.find("\r\n"));
  for (const char* name : {"Content-Type", "Allow", "Retry-After", "Connection"}) {
    const std::size_t at = response.find(std::string("\r\n") + name + ": ");
    if (at < end) out += " | " + response.substr(at + 2, response.find("\r\n", at + 2) - at - 2);
  }
  return out + " | " + response.substr(end + 4);
}

TEST_F(ServerTest, AnswersEachRequest) {
  const std::string get = "GET /metrics HTTP/1.1\r\nHost: x\r\n";
  EXPECT_EQ(Summary(Get(get + "\r\n")),
            "HTTP/1.1 503 Service Unavailable | Content-Type: text/plain; charset=utf-8 | "
            "Retry-After: 1 | 503 no record yet\n");
  server.Publish("a 1\n", "a 1\n# EOF\n");
  const std::string text = "Content-Type: text/plain; version=0.0.4; charset=utf-8";
  const std::string open_metrics =
      "Content-Type: application/openmetrics-text; version=1.0.0; charset=utf-8";
  const std::string plain = "Content-Type: text/plain; charset=utf-8";
  struct Case {
    std::string request;
    std::string summary;
  };
  std::vector<Case> cases = {
      {get + "\r\n", "HTTP/1.1 200 OK | " + text + " | a 1\n"},
      {get + "Accept: text/plain;q=0.5,application/openmetrics-text\r\n\r\n",
       "HTTP/1.1 200 OK | " + open_metrics + " | a 1\n# EOF\n"},
      {"GET /metrics/ HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 404 Not Found | " + plain + " | 404 not found\n"},
      {"GET /metricsx HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 404 Not Found | " + plain + " | 404 not found\n"},
      {"POST /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc",
       "HTTP/1.1 405 Method Not Allowed | " + plain +
           " | Allow: GET, HEAD | Connection: close | 405 only GET and HEAD\n"},
      {"DELETE / HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 405 Method Not Allowed | " + plain +
           " | Allow: GET, HEAD | Connection: close | 405 only GET and HEAD\n"},
      {get + "Content-Length: 100000000\r\n\r\nabc",
       "HTTP/1.1 413 Content Too Large | " + plain +
           " | Connection: close | 413 no request body expected\n"},
      {get + "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n",
       "HTTP/1.1 413 Content Too Large | " + plain +
           " | Connection: close | 413 no request body expected\n"},
      {get + "X: " + std::string(20000, 'x') + "\r\n\r\n",
       "HTTP/1.1 431 Request Header Fields Too Large"},
      {"GET /api/v1/history?since=2 HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 200 OK | Content-Type: application/json | {\"interval_ms\":1000,\"history_ms\":"
       "2000,\"latest_elapsed_ms\":0,\"records\":[]}\n"},
  };
  for (const char* since : {"x", "", "-1", "1e3", "+5", "1000000000000001"}) {
    cases.push_back(
        {"GET /api/v1/history?since=" + std::string(since) + " HTTP/1.1\r\nHost: x\r\n\r\n",
         "HTTP/1.1 400 Bad Request | " + plain +
             " | 400 since is not a number of milliseconds from 0 to 10^15\n"});
  }
  for (const Case& c : cases) {
    const std::string got = Summary(Get(c.request));
    EXPECT_EQ(got.substr(0, c.summary.size()), c.summary) << c.request.substr(0, 80);
  }
  const std::string landing = Summary(Get("GET / HTTP/1.1\r\nHost: x\r\n\r\n"));
  EXPECT_EQ(
      landing.rfind("HTTP/1.1 200 OK | Content-Type: text/html; charset=utf-8 | <!DOCTYPE", 0), 0u)
      << landing;
  EXPECT_NE(landing.find("<a href=\"/metrics\">/metrics</a>"), std::string::npos) << landing;

  // A kept connection serves scrape after scrape, HEAD without a body; a new
  // record replaces the old one.
  const int fd = Connect();
  EXPECT_EQ(Summary(Exchange(fd, "HEAD /metrics HTTP/1.1\r\nHost: x\r\n\r\n", true)),
            "HTTP/1.1 200 OK | " + text + " | ");
  server.Publish("a 2\n", "a 2\n# EOF\n");
  EXPECT_EQ(Summary(Exchange(fd, get + "\r\n")), "HTTP/1.1 200 OK | " + text + " | a 2\n");
  close(fd);
}

TEST_F(ServerTest, PortInUseIsRefusedAndIdleClientsClosed) {
  MetricsServer second;
  std::string error;
  EXPECT_FALSE(second.Bind({"127.0.0.1", static_cast<std::uint16_t>(port)}, error));
  EXPECT_EQ(error,
            "cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use");
  EXPECT_FALSE(second.Bind({"no.such.host.invalid", 80}, error));
  EXPECT_EQ(error.rfind("cannot listen on no.such.host.invalid:80: ", 0), 0u) << error;

  // A client that sends half a request is closed after the idle timeout.
  const int fd = Connect();
  ASSERT_EQ(send(fd, "GET /met", 8, MSG_NOSIGNAL), 8);
  char byte;
  EXPECT_EQ(recv(fd, &byte, 1, 0), 0);
  close(fd);
}

}  // namespace
}  // namespace kestro::zqp::serve
