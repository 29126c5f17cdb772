// The configuration as intf-configd serves it, mounted with reconnection:
// the global settings and the interfaces' configurations (see
// apps/intf-configd/main.cpp for the tree). The owner is told, through
// `changed`, of anything that may alter what it applies: a new mount, an
// interface configured or unconfigured, any attribute of one.
//
// While intf-configd is away the last configuration stays in force; a
// restarted one is mounted again and replaces it. Only a server run by
// root, the agent's own user or one of `servers` is mounted from: another
// user's server on the same socket name is refused and logged.
#pragma once

#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>

#include <functional>
#include <memory>
#include <string>

namespace IntfApp {

class ConfigMount {
 public:
   ConfigMount(Kel::ActivityLoop & loop, std::string socket, std::function<void()> changed,
               Kel::PeerTrust servers = {});
   ~ConfigMount();
   ConfigMount(ConfigMount const &) = delete;
   ConfigMount & operator=(ConfigMount const &) = delete;

   // Null until the first mount.
   Kel::Ptr<Interface::GlobalIntfConfig const> global() const { return global_; }
   Kel::Ptr<Interface::AllIntfConfigDir const> intfs() const { return intfs_; }
   // The configuration of an interface, or null.
   Kel::Ptr<Interface::IntfConfig const> intfConfig(Zenet::IntfId id) const;
   bool synced() const { return client_.synced(); }
   std::string const & socket() const { return socket_; }

 private:
   class Reactor;
   void mounted(Kel::Ptr<Kel::Entity> const & root);
   void closed(Kel::String8 const & why);

   std::string socket_;
   std::function<void()> changed_;
   Kel::NboAttrLog::Client client_;
   bool wasSynced_ = false;
   Kel::Ptr<Interface::GlobalIntfConfig const> global_;
   Kel::Ptr<Interface::AllIntfConfigDir const> intfs_;
   Kel::Ptr<Reactor> globalReactor_, dirReactor_;
   Kel::Entity::NotifieeConst::Ptr watcher_;  // a reactor on each interface's configuration
};

} // namespace IntfApp
