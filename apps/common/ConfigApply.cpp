// Applies a configuration file to the configuration entities.
#include "ConfigApply.h"

#include <unordered_set>
#include <vector>

namespace IntfApp {

ApplyCounts applyConfig(ConfigFile const & cfg, ConfigTree const & tree) {
   using namespace Interface;
   ApplyCounts counts;
   tree.global->loadIntervalIs(cfg.global.loadInterval.value_or(LoadInterval()));
   tree.global->linkStatusLoggingIs(cfg.global.linkStatusLogging.value_or(IntfLoggingMode::on));

   for (auto const & s : cfg.intfs) {
      auto c = tree.intfs->intfConfig(s.intfId);
      bool fresh = !c;
      if (fresh) c = intfConfigFactory(s.intfId);
      uint32_t before = c->modificationCount();
      c->descriptionIs(Kel::String8(s.description.value_or("")));
      c->adminEnabledStateLocalIs(!s.adminUp     ? IntfEnabledState::unknownEnabledState
                                  : *s.adminUp ? IntfEnabledState::enabled
                                               : IntfEnabledState::shutdown);
      c->mtuIs(s.mtu.value_or(1500));
      if (s.mtu) {
         c->requestorIs(mtuRequestor, true);
      } else {
         c->requestorDel(mtuRequestor);
      }
      c->loadIntervalIs(s.loadInterval.value_or(LoadInterval()));
      if (fresh) {
         tree.intfs->intfConfigIs(c);
         ++counts.added;
      } else if (c->modificationCount() != before) {
         ++counts.changed;
      }
      auto ns = tree.namespaces->intfNamespaceConfigIs(s.intfId);
      uint32_t nsBefore = ns->modificationCount();
      ns->netNsNameIs(s.netNs.value_or(Zenet::NamespaceName::defaultNamespace()));
      if (!fresh && ns->modificationCount() != nsBefore && c->modificationCount() == before) ++counts.changed;
   }

   std::unordered_set<uint64_t> inFile;
   for (auto const & s : cfg.intfs) inFile.insert(s.intfId.intfIdValue());
   std::vector<Zenet::IntfId> gone;
   for (auto it = tree.intfs->intfConfigIteratorConst(); it; ++it) {
      if (!inFile.count(it.key().intfIdValue())) gone.push_back(it.key());
   }
   for (auto id : gone) {
      tree.intfs->intfConfigDel(id);
      ++counts.removed;
   }
   gone.clear();
   for (auto it = tree.namespaces->intfNamespaceConfigIteratorConst(); it; ++it) {
      if (!inFile.count(it.key().intfIdValue())) gone.push_back(it.key());
   }
   for (auto id : gone) tree.namespaces->intfNamespaceConfigDel(id);
   return counts;
}

} // namespace IntfApp
