// A small HTTP server for monitoring scrapes: GET /metrics answers with the
// text that `render` makes at that moment; every other request gets a
// short error. It is one source of the agent's activity loop (its
// descriptor is an epoll set holding the listening socket and every
// connection), so a scrape never blocks the agent.
//
// Bounds: at most 64 connections (more wait in the listen queue), a request
// head of at most 8 KiB, 10 seconds for a connection to send its request and
// take its answer; a connection past a bound is closed, nothing else is.
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
   // `address` is "HOST:PORT" with an IPv4 address, "[IPv6]:PORT", or
   // ":PORT" for every address; port 0 picks a free one (see port()).
   MetricsServer(std::string const & address, Render render);
   ~MetricsServer() override;

   bool valid() const { return epfd_ >= 0; }
   std::string const & error() const { return error_; }
   int port() const { return port_; }
   size_t connections() const { return conns_.size(); }

   int fd() const override { return epfd_; }
   void onReadable() override;
   void onRoundEnd() override;

   static constexpr size_t maxConnections = 64;
   static constexpr size_t maxRequestHead = 8192;
   static constexpr std::chrono::seconds timeout{10};

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
   void listenAgain();

   int epfd_ = -1;
   int listenFd_ = -1;
   bool listening_ = false;
   int port_ = 0;
   std::string error_;
   Render render_;
   std::map<int, Conn> conns_;
};

} // namespace IntfApp
