// Serving and mounting with one call; see Kel/Agent.h.
#include <Kel/Agent.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Kel::NboAttrLog {

namespace {

TraceFacility trace("Kel::Agent");

bool address(std::string const & path, sockaddr_un * a, socklen_t * len, std::string * why) {
   std::memset(a, 0, sizeof *a);
   a->sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof a->sun_path) {
      *why = "socket path must be 1 to " + std::to_string(sizeof a->sun_path - 1) + " bytes";
      return false;
   }
   std::memcpy(a->sun_path, path.data(), path.size());
   if (path[0] == '@') a->sun_path[0] = '\0';  // abstract namespace
   *len = socklen_t(offsetof(sockaddr_un, sun_path) + path.size());
   return true;
}

} // namespace

Server::Server(ActivityLoop & loop, std::string path, Ptr<Entity> root, String8 name, ConnectionLimits limits)
      : loop_(loop), path_(std::move(path)), root_(std::move(root)), name_(std::move(name)), limits_(limits) {
   sockaddr_un a;
   socklen_t len;
   if (!address(path_, &a, &len, &error_)) return;
   fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd_ < 0) {
      error_ = std::string("socket: ") + std::strerror(errno);
      return;
   }
   if (path_[0] != '@') ::unlink(path_.c_str());  // a stale socket of an earlier run
   if (::bind(fd_, reinterpret_cast<sockaddr *>(&a), len) != 0 || ::listen(fd_, 64) != 0) {
      error_ = "cannot listen on " + path_ + ": " + std::strerror(errno);
      ::close(fd_);
      fd_ = -1;
      KEL_TRACE(trace, 0, String8(error_));
      return;
   }
   ownsFile_ = path_[0] != '@';
   listening();
}

void Server::listening() {
   spare_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
   loop_.add(this);
}

Server::Server(ActivityLoop & loop, int listenFd, Ptr<Entity> root, String8 name, ConnectionLimits limits)
      : loop_(loop), fd_(listenFd), root_(std::move(root)), name_(std::move(name)), limits_(limits) {
   if (fd_ >= 0) listening();
}

Server::~Server() {
   for (auto & [fd, c] : writers_) {
      loop_.remove(c.writer.get());
      loop_.timerDel(c.mountTimer);
      c.writer.reset();
      ::close(fd);
   }
   if (fd_ >= 0) {
      loop_.remove(this);
      loop_.timerDel(resumeTimer_);
      ::close(fd_);
   }
   if (spare_ >= 0) ::close(spare_);
   if (ownsFile_) ::unlink(path_.c_str());
}

void Server::onReadable() {
   while (true) {
      int c = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (c < 0 && (errno == EMFILE || errno == ENFILE)) {
         // Out of descriptors, the peer would wait in the backlog and keep
         // the listening socket readable, so that the loop never sleeps.
         // The spare descriptor takes the peer, which is told why.
         // (accept fails so with no descriptor free even when no peer waits.)
         if (spare_ >= 0) {
            ::close(spare_);
            c = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            int err = errno;
            if (c >= 0) refuse(c, "out of file descriptors");
            spare_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (c >= 0) continue;
            if (err != EMFILE && err != ENFILE) return;  // no peer was waiting
         }
         // Not even that: stop listening for a while.
         loop_.remove(this);
         resumeTimer_ = loop_.timerIs(std::chrono::milliseconds(100), [this] {
            resumeTimer_ = 0;
            if (spare_ < 0) spare_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            loop_.add(this);
         });
         return;
      }
      if (c < 0) return;
      if (writers_.size() >= limits_.connections) {
         refuse(c, format("more than %zu connections", limits_.connections));
         continue;
      }
      auto w = std::make_unique<Writer>(c, root_, name_, limits_);
      Writer * raw = w.get();
      w->closeHandlerIs([this, c](String8 const & why) {
         KEL_TRACE(trace, 1, "connection " + String8(std::to_string(c)) + " of " + name_ + " closed: " + why);
         auto it = writers_.find(c);
         if (it == writers_.end()) return;
         loop_.timerDel(it->second.mountTimer);
         writers_.erase(it);  // deletes the writer: it is no longer in the loop
         ::close(c);
      });
      // A peer that connects and never asks for a mount costs a descriptor
      // for this long only.
      auto timer = loop_.timerIs(limits_.mountWait, [this, c, raw] {
         auto it = writers_.find(c);
         if (it == writers_.end() || it->second.writer.get() != raw) return;
         it->second.mountTimer = 0;
         if (!raw->serving()) {
            raw->close(format("no mount request within %lld ms", (long long)limits_.mountWait.count()));
         }
      });
      loop_.add(raw);
      writers_[c] = Connection{std::move(w), timer};
   }
}

void Server::refuse(int c, String8 const & why) {
   // Told why and closed at once, so that the backlog keeps moving.
   Writer refused(c, root_, name_, limits_);
   refused.close(why);
   ::close(c);
}

Client::Client(ActivityLoop & loop, std::string path, String8 mountPath, Options options)
      : loop_(loop), path_(std::move(path)), mountPath_(std::move(mountPath)), options_(options),
        backoff_(options.minBackoff), alive_(std::make_shared<bool>(true)) {
   connect();
}

Client::~Client() {
   *alive_ = false;
   if (retryTimer_) loop_.timerDel(retryTimer_);
   if (reader_) loop_.remove(reader_.get());
   reader_.reset();
   if (fd_ >= 0) ::close(fd_);
}

void Client::connect() {
   retryTimer_ = 0;
   sockaddr_un a;
   socklen_t len;
   std::string why;
   if (!address(path_, &a, &len, &why)) return closed(String8(why));
   // Non-blocking from the start: a server that accepts nobody (its
   // backlog full) refuses at once instead of stopping this loop.
   fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr *>(&a), len) != 0) {
      why = "cannot connect to " + path_ + ": " + std::strerror(errno);
      if (fd_ >= 0) ::close(fd_);
      fd_ = -1;
      KEL_TRACE(trace, 0, String8(why));
      return closed(String8(why));
   }
   ++connects_;
   reader_ = std::make_unique<Reader>(fd_, mountPath_, options_.limits);
   reader_->syncHandlerIs([this] {
      backoff_ = options_.minBackoff;
      root_ = reader_->root();
      auto cb = onSynced;  // a copy: the callback may delete the client
      if (cb) cb(root_);
   });
   reader_->closeHandlerIs([this](String8 const & why) {
      // Called after the loop dropped the reader: it can go now.
      std::unique_ptr<Reader> gone = std::move(reader_);
      ::close(fd_);
      fd_ = -1;
      closed(why);
      (void)gone;
   });
   loop_.add(reader_.get());
}

void Client::closed(String8 const & why) {
   lastClose_ = why;
   std::weak_ptr<bool> alive = alive_;
   auto cb = onClosed;  // a copy: the callback may delete the client
   if (cb) cb(why);
   if (alive.expired() || !*alive_) return;  // the handler deleted the client
   if (options_.reconnect) retry();
}

void Client::retry() {
   auto delay = backoff_;
   backoff_ = std::min(backoff_ * 2, options_.maxBackoff);
   retryTimer_ = loop_.timerIs(delay, [this] { connect(); });
}

} // namespace Kel::NboAttrLog
