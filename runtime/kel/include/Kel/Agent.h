// Serving and mounting trees with one call each.
//
//   Kel::ActivityLoop loop;
//   Kel::NboAttrLog::Server server(loop, "/run/intf/config.sock", configRoot, "intf-configd");
//   ...
//   Kel::NboAttrLog::Client client(loop, "/run/intf/config.sock", "");
//   client.onSynced = [&](Kel::Ptr<Kel::Entity> root) { ... };
//   client.onClosed = [&](Kel::String8 const & why) { ... };
//   for (;;) loop.runOnce(1000);
#pragma once

#include <Kel/Stream.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Kel::NboAttrLog {

// Serves `root` to every reader that connects to a Unix-domain socket: one
// writer per connection, removed with its connection. A connection that
// asks for no mount within limits.mountWait is closed; past
// limits.connections, a new connection is told why and closed. The server owns the
// listening descriptor and every accepted one; it removes a socket file it
// made when destroyed. A path starting with '@' is in the abstract
// namespace (no file).
class Server : public ActivityLoop::Source {
 public:
   Server(ActivityLoop & loop, std::string path, Ptr<Entity> root, String8 name,
          ConnectionLimits limits = {});
   // Takes over an inherited listening descriptor (the server closes it).
   Server(ActivityLoop & loop, int listenFd, Ptr<Entity> root, String8 name, ConnectionLimits limits = {});
   ~Server() override;
   Server(Server const &) = delete;
   Server & operator=(Server const &) = delete;

   bool valid() const { return fd_ >= 0; }
   std::string const & error() const { return error_; }
   size_t connections() const { return writers_.size(); }

   int fd() const override { return fd_; }
   void onReadable() override;

 private:
   void listening();
   void refuse(int fd, String8 const & why);
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
   ConnectionLimits limits_;
   std::string error_;
   struct Connection {
      std::unique_ptr<Writer> writer;
      ActivityLoop::TimerId mountTimer = 0;  // until the peer asks for a mount
   };
   std::map<int, Connection> writers_;  // by descriptor
};

// Mounts `mountPath` from the server at `path`; reports the synced tree and
// every close with its reason; optionally reconnects with back-off
// (doubling from minBackoff to maxBackoff, reset by a sync) and then mounts
// and resynchronises again. The client owns its descriptor.
class Client {
 public:
   struct Options {
      bool reconnect = false;
      std::chrono::milliseconds minBackoff{100};
      std::chrono::milliseconds maxBackoff{5000};
      ConnectionLimits limits;
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
   // Why the last connection closed or could not be made ("" before any);
   // a failure in the constructor is only seen here, before onClosed is set.
   String8 const & lastClose() const { return lastClose_; }

   std::function<void(Ptr<Entity> root)> onSynced;
   std::function<void(String8 const & reason)> onClosed;

 private:
   void connect();
   void closed(String8 const & why);
   void retry();
   ActivityLoop & loop_;
   std::string path_;
   String8 mountPath_;
   String8 lastClose_;
   Options options_;
   int fd_ = -1;
   std::unique_ptr<Reader> reader_;
   Ptr<Entity> root_;
   std::chrono::milliseconds backoff_;
   ActivityLoop::TimerId retryTimer_ = 0;
   uint64_t connects_ = 0;
   std::shared_ptr<bool> alive_;
};

} // namespace Kel::NboAttrLog
