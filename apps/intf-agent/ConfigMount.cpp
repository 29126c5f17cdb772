// The mounted configuration; see ConfigMount.h.
#include "ConfigMount.h"

#include "AgentLog.h"

#include <Kel/CollectionWatcher.h>
#include <Kel/Trace.h>

namespace IntfApp {

// Hears every attribute of one entity and says that something changed.
class ConfigMount::Reactor : public Kel::Entity::NotifieeConst {
 public:
   explicit Reactor(std::function<void()> const & changed) : changed_(changed) { kelGenericIs(true); }
   void kelOnAttribute(Kel::AttributeId, void const *) override { changed_(); }

 private:
   std::function<void()> changed_;
};

namespace {

Kel::NboAttrLog::Client::Options reconnecting(Kel::PeerTrust servers) {
   Kel::NboAttrLog::Client::Options o;
   o.reconnect = true;
   o.servers = std::move(servers);
   return o;
}

} // namespace

ConfigMount::ConfigMount(Kel::ActivityLoop & loop, std::string socket, std::function<void()> changed,
                         Kel::PeerTrust servers)
      : socket_(std::move(socket)), changed_(std::move(changed)),
        client_(loop, socket_, "", reconnecting(std::move(servers))) {
   client_.onSynced = [this](Kel::Ptr<Kel::Entity> root) { mounted(root); };
   client_.onClosed = [this](Kel::String8 const & why) { closed(why); };
   // Failed attempts are traced; the log says it once per outage.
   Kel::traceLevelIs("Kel::Agent", -1);
}

ConfigMount::~ConfigMount() {
   client_.onSynced = nullptr;
   client_.onClosed = nullptr;
}

Kel::Ptr<Interface::IntfConfig const> ConfigMount::intfConfig(Zenet::IntfId id) const {
   if (!intfs_) return nullptr;
   return intfs_->intfConfig(id);
}

void ConfigMount::mounted(Kel::Ptr<Kel::Entity> const & root) {
   wasSynced_ = true;
   global_ = Kel::dynamicCast<Interface::GlobalIntfConfig>(root->entity("global"));
   intfs_ = Kel::dynamicCast<Interface::AllIntfConfigDir>(root->entity("intf"));
   globalReactor_ = Kel::makePtr<Reactor>(changed_);
   globalReactor_->notifierIs(global_);
   dirReactor_ = Kel::makePtr<Reactor>(changed_);
   dirReactor_->notifierIs(intfs_);
   watcher_ = nullptr;
   if (intfs_) {
      auto changed = changed_;
      watcher_ = Kel::watchCollection(
            intfs_, &Interface::AllIntfConfigDir::intfConfig, Interface::AllIntfConfigDir::kelId_intfConfig,
            [changed](Kel::Ptr<Interface::IntfConfig const> const &) { return Kel::makePtr<Reactor>(changed); });
   }
   Kel::logEvent(configMountedMessage(), socket_, intfs_ ? intfs_->intfConfigSize() : 0);
   changed_();
}

void ConfigMount::closed(Kel::String8 const & why) {
   // The client tells of each outage once, not of every attempt to end it.
   Kel::logEvent(wasSynced_ ? configLostMessage() : configWaitingMessage(), socket_, why);
   wasSynced_ = false;
}

} // namespace IntfApp
