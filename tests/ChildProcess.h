// Programs of the library run as child processes by the tests, and the
// small probes the tests make of them (a free port, an HTTP GET, UDP
// traffic through loopback, a device's state in a namespace).
#pragma once

#include <Kel/ActivityLoop.h>
#include <Zenet/SocketAt.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace IntfTest {

// Makes the calling child die with the test that forked it, so that a test
// killed outright (a crash, a time-out) leaves no process behind. Called
// after any change of user, which clears the setting.
inline void dieWithParent(pid_t parent) {
   ::prctl(PR_SET_PDEATHSIG, SIGKILL);
   if (::getppid() != parent) ::_exit(125);  // it died before the line above
}

// The address of the abstract socket `name` (given without its leading NUL).
inline sockaddr_un abstractAddress(std::string const & name, socklen_t * len) {
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   std::memcpy(a.sun_path + 1, name.data(), name.size());
   *len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + name.size());
   return a;
}

// fork(), with the child dying with its parent.
inline pid_t forkChild() {
   pid_t parent = ::getpid();
   pid_t pid = ::fork();
   if (pid == 0) dieWithParent(parent);
   return pid;
}

struct TempDir {
   TempDir() {
      char tmpl[] = "/tmp/intf-test-XXXXXX";
      EXPECT_NE(::mkdtemp(tmpl), nullptr);
      path = tmpl;
   }
   ~TempDir() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
   }
   std::string path;
};

// What a child writes to its standard error, collected by the loop.
struct Output : Kel::ActivityLoop::Source {
   int fd_ = -1;
   bool eof = false;
   std::string text;
   int fd() const override { return fd_; }
   void onReadable() override {
      char buf[4096];
      ssize_t n;
      while ((n = ::read(fd_, buf, sizeof buf)) > 0) text.append(buf, size_t(n));
      if (n == 0) eof = true;
   }
   bool finished() const override { return eof; }
};

// A program run with the given arguments (as user `runAs` when given);
// killed and reaped on every path.
struct Child {
   Child(Kel::ActivityLoop & loop, char const * program, std::vector<std::string> args,
         uid_t runAs = uid_t(-1))
         : loop_(loop) {
      int out[2], err[2];
      if (::pipe2(out, O_CLOEXEC) != 0) return;
      if (::pipe2(err, O_CLOEXEC) != 0) {
         ::close(out[0]);
         ::close(out[1]);
         return;
      }
      pid_t parent = ::getpid();
      pid = ::fork();
      if (pid == 0) {
         ::dup2(out[1], 1);
         ::dup2(err[1], 2);
         if (runAs != uid_t(-1) && (::setgroups(0, nullptr) != 0 || ::setgid(runAs) != 0 ||
                                    ::setuid(runAs) != 0 || ::geteuid() != runAs)) {
            ::_exit(126);
         }
         dieWithParent(parent);
         std::vector<char *> argv{const_cast<char *>(program)};
         for (auto & a : args) argv.push_back(a.data());
         argv.push_back(nullptr);
         ::execv(program, argv.data());
         ::_exit(127);
      }
      for (auto [o, pipe] : {std::pair{&stdout_, out}, std::pair{&stderr_, err}}) {
         ::close(pipe[1]);
         o->fd_ = pipe[0];
         ::fcntl(pipe[0], F_SETFL, O_NONBLOCK);
         loop_.add(o);
      }
   }
   ~Child() {
      kill9();
      for (Output * o : {&stdout_, &stderr_}) {
         if (!o->eof && o->fd_ >= 0) loop_.remove(o);
         if (o->fd_ >= 0) ::close(o->fd_);
      }
   }
   void kill9() {
      if (pid <= 0) return;
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
      pid = -1;
   }
   bool says(std::string const & s) const { return stderr_.text.find(s) != std::string::npos; }
   bool waitFor(std::string const & s, int ms = 5000) {
      return loop_.runUntil([&] { return says(s); }, ms);
   }
   // The exit status once the child has exited and closed its outputs, or
   // -1 (killed, or not done in time).
   int exitStatus() {
      int status = 0;
      bool exited = loop_.runUntil(
          [&] { return stdout_.eof && stderr_.eof && ::waitpid(pid, &status, WNOHANG) == pid; }, 5000);
      if (!exited) return -1;
      pid = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }
   Kel::ActivityLoop & loop_;
   pid_t pid = -1;
   Output stdout_, stderr_;
};

// Kills and reaps a forked child on every path of a test.
struct Reap {
   pid_t pid;
   ~Reap() {
      if (pid <= 0) return;
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
   }
};

// A forked child running `body`, which ends it with the body's result.
inline pid_t spawn(std::function<int()> body) {
   pid_t pid = forkChild();
   if (pid == 0) ::_exit(body());
   return pid;
}
// Its exit code, or 100 + the signal that ended it.
inline int exitCode(pid_t pid) {
   int st = 0;
   ::waitpid(pid, &st, 0);
   return WIFEXITED(st) ? WEXITSTATUS(st) : 100 + WTERMSIG(st);
}
inline void stop(pid_t pid) { Reap reaped{pid}; }

// Memory a test shares with the children it forks: a flag to stop, counts.
template <class T>
struct Shared {
   T * p = new (::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T();
   ~Shared() { ::munmap(p, sizeof(T)); }
   T * operator->() const { return p; }
};

// A TCP port that was free a moment ago.
inline int freePort() {
   int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   socklen_t len = sizeof a;
   int port = 0;
   if (::bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
       ::getsockname(s, reinterpret_cast<sockaddr *>(&a), &len) == 0) {
      port = ntohs(a.sin_port);
   }
   ::close(s);
   return port;
}

// The whole answer to a GET, or "" (the agent answers from its own process,
// so blocking here is fine).
inline std::string httpGet(int port, std::string const & path) {
   int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   timeval tv{5, 0};
   ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   a.sin_port = htons(uint16_t(port));
   std::string out;
   if (::connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0) {
      std::string req = "GET " + path + " HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n";
      if (::send(s, req.data(), req.size(), MSG_NOSIGNAL) == ssize_t(req.size())) {
         char buf[8192];
         ssize_t n;
         while ((n = ::recv(s, buf, sizeof buf, 0)) > 0) out.append(buf, size_t(n));
      }
   }
   ::close(s);
   return out;
}

// `count` datagrams of `bytes` to 127.0.0.1: each crosses the loopback device.
inline void sendUdp(int count, size_t bytes) {
   int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   a.sin_port = htons(9);  // discard: nobody listens, which changes nothing for the device
   std::string payload(bytes, 'x');
   for (int i = 0; i < count; ++i) {
      ::sendto(s, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
   }
   ::close(s);
}

// Through a socket inside the namespace, as the kernel sees it.
inline bool deviceState(std::string const & ns, char const * device, uint32_t * mtu, bool * up) {
   int s = Zenet::socketAt(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0, ns.c_str());
   if (s < 0) return false;
   ifreq r{};
   std::strncpy(r.ifr_name, device, IFNAMSIZ - 1);
   bool ok = ::ioctl(s, SIOCGIFMTU, &r) == 0;
   *mtu = uint32_t(r.ifr_mtu);
   ok = ok && ::ioctl(s, SIOCGIFFLAGS, &r) == 0;
   *up = r.ifr_flags & IFF_UP;
   ::close(s);
   return ok;
}


} // namespace IntfTest
