// HTTP server for monitoring scrapes; see MetricsServer.h.
#include "MetricsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

namespace IntfApp {

HttpRequest parseHttpRequestHead(std::string_view head) {
   HttpRequest r;
   auto fail = [&](int status, char const * why) {
      r.status = status;
      r.error = why;
      return r;
   };
   size_t eol = head.find('\n');
   if (eol == std::string_view::npos) return fail(400, "no request line");
   std::string_view line = head.substr(0, eol);
   if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
   size_t sp1 = line.find(' ');
   size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
   if (sp2 == std::string_view::npos || line.find(' ', sp2 + 1) != std::string_view::npos) {
      return fail(400, "malformed request line");
   }
   std::string_view method = line.substr(0, sp1);
   std::string_view target = line.substr(sp1 + 1, sp2 - sp1 - 1);
   std::string_view version = line.substr(sp2 + 1);
   if (method.empty()) return fail(400, "malformed request line");
   for (char c : method) {
      if (c < 'A' || c > 'Z') return fail(400, "malformed method");
   }
   if (version != "HTTP/1.0" && version != "HTTP/1.1") return fail(505, "unsupported HTTP version");
   if (target.empty() || target.front() != '/') return fail(400, "malformed target");
   r.method = std::string(method);
   r.path = std::string(target.substr(0, target.find('?')));
   return r;
}

namespace {

bool parsePort(std::string_view s, int * port) {
   unsigned v = 0;
   auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
   if (s.empty() || ec != std::errc() || p != s.data() + s.size() || v > 65535) return false;
   *port = int(v);
   return true;
}

std::string answer(int status, char const * reason, std::string_view type, std::string const & body,
                   bool withBody) {
   std::string r = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
   r += "Content-Type: ";
   r += type;
   r += "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
   if (withBody) r += body;
   return r;
}

} // namespace

MetricsServer::MetricsServer(std::string const & address, Render render, Limits limits)
      : render_(std::move(render)), limits_(limits) {
   std::string host;
   int port = -1;
   if (!address.empty() && address.front() == '[') {
      size_t close = address.find("]:");
      if (close == std::string::npos || !parsePort(std::string_view(address).substr(close + 2), &port)) {
         error_ = "address must be HOST:PORT, [IPv6]:PORT or :PORT, not \"" + address + "\"";
         return;
      }
      host = address.substr(1, close - 1);
   } else {
      size_t colon = address.rfind(':');
      if (colon == std::string::npos || !parsePort(std::string_view(address).substr(colon + 1), &port)) {
         error_ = "address must be HOST:PORT, [IPv6]:PORT or :PORT, not \"" + address + "\"";
         return;
      }
      host = address.substr(0, colon);
   }
   sockaddr_storage ss{};
   socklen_t len;
   int family;
   in_addr v4;
   in6_addr v6;
   if (!host.empty() && inet_pton(AF_INET, host.c_str(), &v4) == 1) {
      auto * a = reinterpret_cast<sockaddr_in *>(&ss);
      a->sin_family = AF_INET;
      a->sin_port = htons(uint16_t(port));
      a->sin_addr = v4;
      family = AF_INET;
      len = sizeof *a;
   } else if (host.empty() || inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
      auto * a = reinterpret_cast<sockaddr_in6 *>(&ss);
      a->sin6_family = AF_INET6;
      a->sin6_port = htons(uint16_t(port));
      a->sin6_addr = host.empty() ? in6addr_any : v6;
      family = AF_INET6;
      len = sizeof *a;
   } else {
      error_ = "not an IP address: \"" + host + "\"";
      return;
   }
   listenFd_ = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (listenFd_ < 0) {
      error_ = std::string("socket: ") + std::strerror(errno);
      return;
   }
   int one = 1, zero = 0;
   ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
   if (family == AF_INET6 && host.empty()) {
      ::setsockopt(listenFd_, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
   }
   if (::bind(listenFd_, reinterpret_cast<sockaddr *>(&ss), len) != 0 || ::listen(listenFd_, 128) != 0) {
      error_ = "cannot listen on " + address + ": " + std::strerror(errno);
      ::close(listenFd_);
      listenFd_ = -1;
      return;
   }
   sockaddr_storage bound{};
   socklen_t blen = sizeof bound;
   ::getsockname(listenFd_, reinterpret_cast<sockaddr *>(&bound), &blen);
   port_ = family == AF_INET ? ntohs(reinterpret_cast<sockaddr_in *>(&bound)->sin_port)
                             : ntohs(reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port);
   epfd_ = ::epoll_create1(EPOLL_CLOEXEC);
   if (epfd_ < 0) {
      error_ = std::string("epoll: ") + std::strerror(errno);
      ::close(listenFd_);
      listenFd_ = -1;
      return;
   }
   epoll_event ev{};
   ev.events = EPOLLIN;
   ev.data.fd = listenFd_;
   ::epoll_ctl(epfd_, EPOLL_CTL_ADD, listenFd_, &ev);
}

MetricsServer::~MetricsServer() {
   for (auto & [fd, c] : conns_) ::close(fd);
   if (listenFd_ >= 0) ::close(listenFd_);
   if (epfd_ >= 0) ::close(epfd_);
}

void MetricsServer::onReadable() {
   epoll_event events[32];
   int n = ::epoll_wait(epfd_, events, 32, 0);
   for (int i = 0; i < n; ++i) {
      if (events[i].data.fd == listenFd_) {
         accept();
      } else {
         handle(events[i].data.fd, events[i].events);
      }
   }
}

void MetricsServer::accept() {
   while (true) {
      int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return;  // EAGAIN, or a connection that went away first
      if (conns_.size() >= limits_.connections && !dropIdlest()) {
         ++displaced_;
         std::string busy = answer(503, "Service Unavailable", "text/plain", "too many scrapes at once\n", true);
         ::send(fd, busy.data(), busy.size(), MSG_NOSIGNAL);
         ::close(fd);
         continue;
      }
      epoll_event ev{};
      ev.events = EPOLLIN | EPOLLRDHUP;
      ev.data.fd = fd;
      if (::epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
         ::close(fd);
         continue;
      }
      conns_[fd].start = std::chrono::steady_clock::now();
   }
}

bool MetricsServer::dropIdlest() {
   auto idlest = conns_.end();
   for (auto it = conns_.begin(); it != conns_.end(); ++it) {
      if (!it->second.out.empty()) continue;  // being answered
      if (idlest == conns_.end() || it->second.start < idlest->second.start) idlest = it;
   }
   if (idlest == conns_.end()) return false;
   ++displaced_;
   drop(idlest->first);
   return true;
}

void MetricsServer::drop(int fd) {
   ::epoll_ctl(epfd_, EPOLL_CTL_DEL, fd, nullptr);
   ::close(fd);
   conns_.erase(fd);
}

void MetricsServer::handle(int fd, uint32_t events) {
   auto it = conns_.find(fd);
   if (it == conns_.end()) return;
   Conn & c = it->second;
   if (c.out.empty() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP))) {
      char buf[2048];
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n <= 0) {
         if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
         drop(fd);
         return;
      }
      c.in.append(buf, size_t(n));
      size_t end = c.in.find("\r\n\r\n");
      if (end == std::string::npos) end = c.in.find("\n\n");
      if (end != std::string::npos) {
         respond(fd, c);
      } else if (c.in.size() > limits_.requestHead) {
         c.out = answer(431, "Request Header Fields Too Large", "text/plain", "request head too large\n", true);
      } else {
         return;
      }
   }
   if (c.out.empty()) return;
   while (c.sent < c.out.size()) {
      ssize_t n = ::send(fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
      if (n < 0) {
         if (errno == EAGAIN) {
            epoll_event ev{};
            ev.events = EPOLLOUT;
            ev.data.fd = fd;
            ::epoll_ctl(epfd_, EPOLL_CTL_MOD, fd, &ev);
            return;
         }
         if (errno == EINTR) continue;
         break;
      }
      c.sent += size_t(n);
   }
   ::shutdown(fd, SHUT_WR);
   drop(fd);
}

void MetricsServer::respond(int, Conn & c) {
   HttpRequest r = parseHttpRequestHead(c.in);
   c.in.clear();
   if (!r.error.empty()) {
      c.out = answer(r.status, r.status == 505 ? "HTTP Version Not Supported" : "Bad Request",
                     "text/plain", r.error + "\n", true);
   } else if (r.method != "GET" && r.method != "HEAD") {
      c.out = answer(405, "Method Not Allowed", "text/plain", "only GET and HEAD\n", true);
   } else if (r.path != "/metrics") {
      c.out = answer(404, "Not Found", "text/plain", "the metrics are at /metrics\n", r.method == "GET");
   } else {
      c.out = answer(200, "OK", "text/plain; version=0.0.4; charset=utf-8", render_(), r.method == "GET");
   }
}

void MetricsServer::onRoundEnd() {
   auto now = std::chrono::steady_clock::now();
   std::vector<int> late;
   for (auto const & [fd, c] : conns_) {
      auto age = now - c.start;
      if (age > limits_.exchange || (c.out.empty() && age > limits_.request)) late.push_back(fd);
   }
   for (int fd : late) drop(fd);
}

} // namespace IntfApp
