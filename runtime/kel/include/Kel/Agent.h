// Serving and mounting trees with one call each.
//
//   Kel::ActivityLoop loop;
//   Kel::NboAttrLog::Server server(loop, "/run/intf/config.sock", configRoot, "intf-configd");
//   ...
//   Kel::NboAttrLog::Client client(loop, "/run/intf/config.sock", "");
//   client.onSynced = [&](Kel::Ptr<Kel::Entity> root) { ... };
//   client.onClosed = [&](Kel::String8 const & why) { ... };
//   for (;;) loop.runOnce(1000);
//
// Both ends check who the other is (Kel/PeerTrust.h): by default a server
// serves, and a client mounts from, only root and its own user.
#pragma once

#include <Kel/PeerTrust.h>
#include <Kel/Stream.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Kel::NboAttrLog {

// Serves `root` to every reader that connects to a Unix-domain socket: one
// writer per connection, removed with its connection. A path starting with
// '@' is in the abstract namespace (no file).
//
// Who may connect: the peer's credentials are checked as it is accepted; a
// peer that `readers` does not admit is told why, closed and logged once
// (KEL_PEER_REFUSED). The socket file gets the mode and group of
// PeerTrust::socketMode() (0600 by default) before the server listens.
//
// What a connection may cost: one that asks for no mount within
// limits.mountWait is closed. At limits.connections, a new connection
// takes the place of the oldest one that has not asked for a mount yet;
// only when every connection is mounted is the new one told why and
// closed. Either is logged (KEL_SERVER_FULL, rate-limited), so that a crowd
// of idle peers can neither lock readers out nor flood the log.
//
// A path where a live server answers is refused ("another server is
// listening on PATH"); a socket file nobody answers on is a leftover of an
// earlier run and replaced. The server owns the listening descriptor and
// every accepted one, and removes the socket file it made when destroyed.
class Server : public ActivityLoop::Source {
 public:
   struct Options {
      ConnectionLimits limits;
      PeerTrust readers;
   };
   Server(ActivityLoop & loop, std::string path, Ptr<Entity> root, String8 name, Options options);
   Server(ActivityLoop & loop, std::string path, Ptr<Entity> root, String8 name, ConnectionLimits limits = {})
         : Server(loop, std::move(path), std::move(root), std::move(name), Options{limits, {}}) {}
   ~Server() override;
   Server(Server const &) = delete;
   Server & operator=(Server const &) = delete;

   bool valid() const { return fd_ >= 0; }
   std::string const & error() const { return error_; }
   size_t connections() const { return writers_.size(); }
   std::string const & path() const { return path_; }

   int fd() const override { return fd_; }
   void onReadable() override;

 private:
   void listening();
   void accepted(int fd);
   bool makeRoom(PeerCredentials const & peer);
   void refuse(int fd, String8 const & why);
   std::string where() const { return "server on " + path_; }
   ActivityLoop & loop_;
   std::string path_;
   bool ownsFile_ = false;
   int fd_ = -1;
   // Held back for a peer that arrives when the process is out of
   // descriptors, so that it can be told so.
   int spare_ = -1;
   ActivityLoop::TimerId resumeTimer_ = 0;
   Ptr<Entity> root_;
   String8 name_;
   Options options_;
   std::string error_;
   PeerRefusals refusals_;
   // A reader's connection: when it goes, it leaves the loop, cancels its
   // timer and closes its descriptor.
   struct Connection {
      Connection(ActivityLoop & l, int d) : loop(l), fd(d) {}
      ~Connection();
      Connection(Connection const &) = delete;
      Connection & operator=(Connection const &) = delete;
      ActivityLoop & loop;
      int fd;
      std::unique_ptr<Writer> writer;
      ActivityLoop::TimerId mountTimer = 0;  // until the peer asks for a mount
      uint64_t order = 0;                    // accepted as the n-th
      PeerCredentials peer;
   };
   std::map<int, Connection> writers_;  // by descriptor
   uint64_t accepted_ = 0;
};

// Mounts `mountPath` from the server at `path` and reports the synced
// tree; optionally reconnects with back-off (doubling from minBackoff to
// maxBackoff; after a sync the next wait is minBackoff again, however long
// an earlier outage was) and then mounts and resynchronises again. The
// client owns its descriptor. A server that `servers` does not admit
// (by the credentials of the process that listens) is not mounted from:
// the attempt fails with the reason, logged once (KEL_PEER_REFUSED).
//
// Two callbacks tell of failures:
// - onClosed, once per outage: when a synced connection closes, and when
//   the first attempt since the start or since the last sync fails (the
//   first attempt is made in the constructor, before any callback is set:
//   if it fails, lastClose() says why and the next failure is told). It is
//   not called again for each further attempt while the outage lasts.
// - onAttemptFailed, for every attempt that did not reach a sync (the
//   connection refused, or closed before the initial state was complete),
//   the first of an outage included, after the retry is scheduled
//   (retryDelay() says when it comes).
// Failed attempts are traced on "Kel::Agent" at level 0 for attempts 1, 2,
// 4, 8, ... of an outage, each trace giving the number of attempts, and
// at level 2 otherwise.
class Client {
 public:
   struct Options {
      bool reconnect = false;
      std::chrono::milliseconds minBackoff{100};
      std::chrono::milliseconds maxBackoff{5000};
      ConnectionLimits limits;
      PeerTrust servers;
   };
   Client(ActivityLoop & loop, std::string path, String8 mountPath, Options options);
   Client(ActivityLoop & loop, std::string path, String8 mountPath)
         : Client(loop, std::move(path), std::move(mountPath), Options()) {}
   ~Client();
   Client(Client const &) = delete;
   Client & operator=(Client const &) = delete;

   // The replica's root once synced (the last one stays after a close).
   Ptr<Entity> root() const { return root_; }
   bool synced() const { return reader_ && reader_->synced(); }
   uint64_t connects() const { return connects_; }
   // Failed attempts since the start or the last sync.
   uint64_t failedAttempts() const { return failed_; }
   // How long until the scheduled reconnection (zero when none is scheduled).
   std::chrono::milliseconds retryDelay() const { return retryTimer_ ? retryDelay_ : std::chrono::milliseconds(0); }
   // Why the last connection closed or could not be made ("" before any);
   // a failure in the constructor is only seen here, before onClosed is set.
   String8 const & lastClose() const { return lastClose_; }
   // The errno of the last failed connect (0 when the last attempt
   // connected): tells "nobody listens" (ENOENT, ECONNREFUSED) from
   // "not allowed" (EACCES) and "too busy" (EAGAIN).
   int lastConnectError() const { return connectErrno_; }

   std::function<void(Ptr<Entity> root)> onSynced;
   std::function<void(String8 const & reason)> onClosed;
   std::function<void(String8 const & reason)> onAttemptFailed;

 private:
   void connect();
   void closed(String8 const & why, bool wasSynced);
   ActivityLoop & loop_;
   std::string path_;
   String8 mountPath_;
   String8 lastClose_;
   Options options_;
   int fd_ = -1;
   std::unique_ptr<Reader> reader_;
   Ptr<Entity> root_;
   std::chrono::milliseconds backoff_;
   std::chrono::milliseconds retryDelay_{0};
   ActivityLoop::TimerId retryTimer_ = 0;
   uint64_t connects_ = 0;
   uint64_t failed_ = 0;
   bool outage_ = false;  // onClosed told of the current outage
   int connectErrno_ = 0;
   PeerRefusals refusals_;
   std::shared_ptr<bool> alive_;
};

// What a server serves: the entity at `mountPath` ("" for the served root)
// and those below it down to `depth` levels, each with its path relative
// to `mountPath` ("" for itself, "a/b" below) and its type name, in the
// order of a tree walk. Blocks up to `timeoutMs`. A server that is not
// admitted, cannot be reached or names nothing at the path gives no
// entries and the reason in *error. A listing larger than the server's
// buffer ends early, with *truncated set.
struct ServedEntry {
   String8 path;
   String8 type;
};
// What listServed reads: decodes a server's answer to a listing request
// (every byte received so far). False while more bytes are needed; true
// once decided: the entries and *truncated, or no entries and the reason
// in *error (the server's reason for closing, or a malformed answer). An
// answer is read only up to `frameBytes`.
bool decodeListing(std::string_view in, std::vector<ServedEntry> * entries, bool * truncated, String8 * error,
                   size_t frameBytes = ConnectionLimits().frameBytes);
std::vector<ServedEntry> listServed(std::string const & path, String8 const & mountPath, unsigned depth,
                                    String8 * error, bool * truncated = nullptr, int timeoutMs = 3000,
                                    PeerTrust const & servers = {});

} // namespace Kel::NboAttrLog
