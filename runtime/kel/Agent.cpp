// Serving and mounting with one call; see Kel/Agent.h.
#include "StreamIo.h"

#include <Kel/Agent.h>
#include <Kel/Log.h>
#include <Kel/StreamMessages.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

// A connected, non-blocking socket to `path`, or -1 with errno set.
int connectTo(sockaddr_un const & a, socklen_t len) {
   int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd < 0) return -1;
   if (::connect(fd, reinterpret_cast<sockaddr const *>(&a), len) != 0) {
      int err = errno;
      ::close(fd);
      errno = err;
      return -1;
   }
   return fd;
}

LogMessage const & serverFullMessage() {
   static auto const & m = registerLogMessage(
         {"KEL_SERVER_FULL", LogSeverity::warning, "%s holds %s connections: %s of uid %s pid %s",
          "A server holds as many connections as its limit allows. A connection that has not "
          "asked for anything yet gives way to a new one; when every connection is in use, the "
          "new one is refused.",
          "Look for a process that opens connections and leaves them idle, or raise the limit.", 10, 1});
   return m;
}

// Tells a peer why it is closed, without waiting for it.
void sendClose(int fd, String8 const & why) {
   Out msg;
   size_t frame = beginFrame(msg, msgClose);
   msg.putString(why.view());
   endFrame(msg, frame);
   sendSome(fd, msg.data(), msg.size());
}

} // namespace

Server::Server(ActivityLoop & loop, std::string path, Ptr<Entity> root, String8 name, Options options)
      : loop_(loop), path_(std::move(path)), root_(std::move(root)), name_(std::move(name)),
        options_(std::move(options)) {
   sockaddr_un a;
   socklen_t len;
   if (!address(path_, &a, &len, &error_)) return;
   bool file = path_[0] != '@';
   if (file) {
      // Never take a live server's socket away; a file nobody answers on is
      // a leftover of an earlier run.
      int live = connectTo(a, len);
      if (live >= 0 || errno == EAGAIN) {
         if (live >= 0) ::close(live);
         error_ = "another server is listening on " + path_;
         KEL_TRACE(trace, 0, String8(error_));
         return;
      }
   }
   fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd_ < 0) {
      error_ = std::string("socket: ") + std::strerror(errno);
      return;
   }
   if (file) ::unlink(path_.c_str());
   std::string step;
   if (::bind(fd_, reinterpret_cast<sockaddr *>(&a), len) != 0) {
      step = errno == EADDRINUSE && !file ? "another server is listening on " + path_
                                          : "cannot listen on " + path_ + ": " + std::strerror(errno);
   } else if (file && (::chmod(path_.c_str(), options_.readers.socketMode()) != 0 ||
                       ::chown(path_.c_str(), uid_t(-1), options_.readers.socketGroup()) != 0)) {
      // Before listen(): nobody connects while the file has another mode.
      step = "cannot set the mode of " + path_ + ": " + std::strerror(errno);
      ::unlink(path_.c_str());
   } else if (::listen(fd_, 64) != 0) {
      step = "cannot listen on " + path_ + ": " + std::strerror(errno);
   }
   if (!step.empty()) {
      error_ = step;
      ::close(fd_);
      fd_ = -1;
      KEL_TRACE(trace, 0, String8(error_));
      return;
   }
   ownsFile_ = file;
   listening();
}

void Server::listening() {
   spare_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
   loop_.add(this);
}

Server::Connection::~Connection() {
   loop.remove(writer.get());
   loop.timerDel(mountTimer);
   writer.reset();
   ::close(fd);
}

Server::~Server() {
   writers_.clear();
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
      accepted(c);
   }
}

void Server::accepted(int c) {
   PeerCredentials peer = peerCredentials(c);
   if (!options_.readers.admits(peer)) {
      std::string why = options_.readers.refusal(peer);
      refusals_.refused(where(), peer, why);
      refuse(c, "not allowed: " + why);
      return;
   }
   if (!makeRoom(peer)) {
      refuse(c, format("more than %zu connections", options_.limits.connections));
      return;
   }
   Connection & conn = writers_.try_emplace(c, loop_, c).first->second;
   conn.writer = std::make_unique<Writer>(c, root_, name_, options_.limits);
   conn.order = ++accepted_;
   conn.peer = std::move(peer);
   conn.writer->closeHandlerIs([this, c](String8 const & why) {
      KEL_TRACE(trace, 1, "connection " + String8(std::to_string(c)) + " of " + name_ + " closed: " + why);
      writers_.erase(c);  // the loop has dropped the writer: it can go
   });
   // A peer that connects and never asks for a mount costs a descriptor
   // for this long only. (The timer goes with its connection.)
   conn.mountTimer = loop_.timerIs(options_.limits.mountWait, [this, c] {
      Connection & late = writers_.at(c);
      late.mountTimer = 0;
      if (!late.writer->serving()) {
         late.writer->close(format("no mount request within %lld ms", (long long)options_.limits.mountWait.count()));
      }
   });
   loop_.add(conn.writer.get());
}

bool Server::makeRoom(PeerCredentials const & peer) {
   if (writers_.size() < options_.limits.connections) return true;
   // The oldest connection that has not asked for anything gives way.
   auto idle = writers_.end();
   for (auto it = writers_.begin(); it != writers_.end(); ++it) {
      Writer const & w = *it->second.writer;
      if (w.serving() || w.closed()) continue;
      if (idle == writers_.end() || it->second.order < idle->second.order) idle = it;
   }
   std::string held = std::to_string(writers_.size());
   if (idle == writers_.end()) {
      logEvent(serverFullMessage(), where(), held, "refused a new connection", uint64_t(peer.uid),
               int64_t(peer.pid));
      return false;
   }
   PeerCredentials const & gone = idle->second.peer;
   logEvent(serverFullMessage(), where(), held, "closed an idle connection", uint64_t(gone.uid), int64_t(gone.pid));
   sendClose(idle->first, format("closed for a newer connection: more than %zu connections", options_.limits.connections));
   writers_.erase(idle);
   return true;
}

void Server::refuse(int c, String8 const & why) {
   // Told why and closed at once, so that the backlog keeps moving.
   sendClose(c, why);
   ::close(c);
}

// ---- Client --------------------------------------------------------------------------------------

Client::Client(ActivityLoop & loop, std::string path, String8 mountPath, Options options)
      : loop_(loop), path_(std::move(path)), mountPath_(std::move(mountPath)), options_(std::move(options)),
        backoff_(options_.minBackoff), alive_(std::make_shared<bool>(true)) {
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
   if (!address(path_, &a, &len, &why)) return closed(String8(why), false);
   // Non-blocking from the start: a server that accepts nobody (its
   // backlog full) refuses at once instead of stopping this loop.
   int fd = connectTo(a, len);
   if (fd < 0) {
      connectErrno_ = errno;
      return closed(String8("cannot connect to " + path_ + ": " + std::strerror(connectErrno_)), false);
   }
   connectErrno_ = 0;
   // The connection becomes the client's only once its server is trusted.
   PeerCredentials server = peerCredentials(fd);
   if (!options_.servers.admits(server)) {
      why = options_.servers.refusal(server);
      refusals_.refused("client of " + path_, server, why);
      ::close(fd);
      return closed(String8("the server at " + path_ + " is not trusted: " + why), false);
   }
   fd_ = fd;
   ++connects_;
   reader_ = std::make_unique<Reader>(fd_, mountPath_, options_.limits);
   reader_->syncHandlerIs([this] {
      backoff_ = options_.minBackoff;
      failed_ = 0;
      outage_ = false;
      root_ = reader_->root();
      auto cb = onSynced;  // a copy: the callback may delete the client
      if (cb) cb(root_);
   });
   reader_->closeHandlerIs([this](String8 const & why) {
      // Called after the loop dropped the reader: it can go now.
      std::unique_ptr<Reader> gone = std::move(reader_);
      ::close(fd_);
      fd_ = -1;
      closed(why, gone->synced());
   });
   loop_.add(reader_.get());
}

void Client::closed(String8 const & why, bool wasSynced) {
   lastClose_ = why;
   if (!wasSynced) {
      ++failed_;
      // Attempts 1, 2, 4, 8, ... of an outage at level 0, the rest at level 2.
      int level = (failed_ & (failed_ - 1)) == 0 ? 0 : 2;
      KEL_TRACE(trace, level, format("attempt %llu to mount from %s failed: ", (unsigned long long)failed_,
                                     path_.c_str()) + why);
   }
   if (options_.reconnect) {
      retryDelay_ = backoff_;
      backoff_ = std::min(backoff_ * 2, options_.maxBackoff);
      retryTimer_ = loop_.timerIs(retryDelay_, [this] { connect(); });
   }
   // Copies: a callback may delete the client.
   std::weak_ptr<bool> alive = alive_;
   auto closedCb = onClosed;
   auto failedCb = onAttemptFailed;
   // A failure in the constructor reaches no callback; the outage is told
   // at the next one.
   bool tell = !outage_ && closedCb;
   if (tell) outage_ = true;
   if (tell) closedCb(why);
   if (alive.expired() || !*alive.lock()) return;
   if (!wasSynced && failedCb) failedCb(why);
}

// ---- listing -------------------------------------------------------------------------------------

std::vector<ServedEntry> listServed(std::string const & path, String8 const & mountPath, unsigned depth,
                                    String8 * error, bool * truncated, int timeoutMs, PeerTrust const & servers) {
   std::vector<ServedEntry> entries;
   if (truncated) *truncated = false;
   auto fail = [&](std::string const & why) {
      *error = String8(why);
      entries.clear();
      return entries;
   };
   sockaddr_un a;
   socklen_t len;
   std::string why;
   if (!address(path, &a, &len, &why)) return fail(why);
   int fd = connectTo(a, len);
   if (fd < 0) return fail("cannot connect to " + path + ": " + std::strerror(errno));
   struct Closer {
      int fd;
      ~Closer() { ::close(fd); }
   } closer{fd};
   PeerCredentials server = peerCredentials(fd);
   if (!servers.admits(server)) {
      return fail("the server at " + path + " is not trusted: " + servers.refusal(server));
   }
   Out req;
   size_t frame = beginFrame(req, msgList);
   req.putString(mountPath.view());
   req.putU32(depth);
   endFrame(req, frame);
   if (sendSome(fd, req.data(), req.size()) != ssize_t(req.size())) return fail("cannot send to " + path);

   std::string in;
   bool ended = false, cut = false;
   auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
   while (!decodeListing(in, &entries, &cut, error)) {
      if (ended) return fail("the server at " + path + " went away");
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return fail("no answer from " + path + " in " + std::to_string(timeoutMs) + " ms");
      pollfd p{fd, POLLIN, 0};
      ::poll(&p, 1, int(left.count()));
      ended = readSome(fd, in) < 0;
   }
   if (truncated) *truncated = cut;
   return entries;
}

bool decodeListing(std::string_view in, std::vector<ServedEntry> * entries, bool * truncated, String8 * error,
                   size_t frameBytes) {
   entries->clear();
   *truncated = false;
   *error = String8();
   uint32_t n = 0;
   // A refusal may come after the server's hello (who refuses): passed over.
   for (;;) {
      if (in.size() < 5) return false;
      n = frameLength(in.data());
      if (n == 0 || n > frameBytes) {
         *error = "malformed answer: a frame of " + std::to_string(n) + " bytes";
         return true;
      }
      if (in.size() < 4 + size_t(n)) return false;
      if (uint8_t(in[4]) != msgHello) break;
      in.remove_prefix(4 + size_t(n));
   }
   In msg(in.data() + 5, n - 1);
   try {
      switch (uint8_t(in[4])) {
      case msgListing: {
         uint32_t count = msg.nextU32();
         for (uint32_t i = 0; i < count; ++i) {
            ServedEntry e;
            e.path = msg.nextString();
            e.type = msg.nextString();
            entries->push_back(std::move(e));
         }
         *truncated = msg.nextbool();
         return true;
      }
      case msgClose:
         *error = "the server closed the connection: " + msg.nextString();
         return true;
      default:
         *error = "malformed answer: message type " + std::to_string(uint8_t(in[4]));
         return true;
      }
   } catch (StreamError const & e) {
      entries->clear();
      *error = "malformed answer: " + e.message();
      return true;
   }
}

} // namespace Kel::NboAttrLog
