// A small HTTP server for monitoring scrapes: GET /metrics answers with the
// text that `render` makes at that moment; every other request gets a
// short error. It is one source of the agent's activity loop (its
// descriptor is an epoll set holding the listening socket and every
// connection), so a scrape never blocks the agent.
//
// Bounds, so that slow or idle clients cannot keep a scrape waiting: a
// request head of at most 8 KiB, sent within 5 seconds of connecting; 10
// seconds for the whole exchange; at most 64 connections (a monitoring
// set-up holds a handful). When all 64 are held, a new connection takes the
// place of the oldest one that has not sent its whole request yet; only if
// every one is being answered is the new one told 503 and closed. A
// connection past a bound is closed, nothing else is.
#pragma once

#include <Kel/ActivityLoop.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace IntfApp {

// The request line of an HTTP request head, or why it is not one.
struct HttpRequest {
   std::string method, path;  // path without the query
   std::string error;         // "" when well formed
   int status = 0;            // the status to answer with when not well formed
};
HttpRequest parseHttpRequestHead(std::string_view head);

class MetricsServer : public Kel::ActivityLoop::Source {
 public:
   using Render = std::function<std::string()>;
   struct Limits {
      size_t connections = 64;
      size_t requestHead = 8192;
      std::chrono::milliseconds request{5000};    // from connecting to the whole request head
      std::chrono::milliseconds exchange{10000};  // from connecting to the whole answer
   };
   // `address` is "HOST:PORT" with an IPv4 address, "[IPv6]:PORT", or
   // ":PORT" for every address; port 0 picks a free one (see port()).
   MetricsServer(std::string const & address, Render render, Limits limits);
   MetricsServer(std::string const & address, Render render) : MetricsServer(address, std::move(render), Limits()) {}
   ~MetricsServer() override;

   bool valid() const { return epfd_ >= 0; }
   std::string const & error() const { return error_; }
   int port() const { return port_; }
   size_t connections() const { return conns_.size(); }

   int fd() const override { return epfd_; }
   void onReadable() override;
   void onRoundEnd() override;

   Limits const & limits() const { return limits_; }
   // Connections closed for another, or refused, since the start.
   uint64_t displaced() const { return displaced_; }

 private:
   struct Conn {
      std::string in, out;
      size_t sent = 0;
      std::chrono::steady_clock::time_point start;
   };
   void accept();
   void handle(int fd, uint32_t events);
   void respond(int fd, Conn & c);
   void drop(int fd);
   // Drops the oldest connection still sending its request; false if none is.
   bool dropIdlest();

   int epfd_ = -1;
   int listenFd_ = -1;
   uint64_t displaced_ = 0;
   int port_ = 0;
   std::string error_;
   Render render_;
   Limits limits_;
   std::map<int, Conn> conns_;
};

} // namespace IntfApp
