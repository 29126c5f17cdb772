// Start-up of the adapters that present table rows as counter entities.
#include <Intf/SmashIntfCounter.h>
#include <Intf/Startup.h>

void kelModuleSmashIntfCounter() {
   using namespace Interface;
   Kel::moduleInitializedIs("SmashIntfCounter");
   Kel::registerTypes<SmashIntfCounter, SmashAclDropCounter, SmashIntfCounterDir,
                      SmashIntfCounterDirDir>();
   Kel::describeTypes("Interface", {SmashIntfCounter::_fwkType(), SmashAclDropCounter::_fwkType(),
                                   SmashIntfCounterDir::_fwkType(), SmashIntfCounterDirDir::_fwkType()});
}

namespace Interface {

Kel::Ptr<Smash::Interface::AllIntfCounterDir> SmashIntfCounterDirDir::table() const {
   // A replica opens the table its owner names, once the name has arrived.
   if (tablePath_.view().empty()) return table_;
   if (openedPath_ != tablePath_.str()) {
      auto t = Kel::makePtr<Smash::Interface::AllIntfCounterDir>(Kel::Name("counter"));
      t->counterOpen(Smash::Role::reader, tablePath_.str());
      table_ = t;
      openedPath_ = tablePath_.str();
   }
   return table_;
}

void SmashIntfCounterDirDir::tableIs(Kel::Ptr<Smash::Interface::AllIntfCounterDir> const & t) {
   table_ = t;
   openedPath_ = t ? t->counterTable().path() : std::string();
   tablePathIs(openedPath_);
}

void SmashIntfCounterDirDir::doGetIntfCounterDir(Zenet::IntfId intfId,
                                                 IntfCounterDirBase ** const & out) {
   *out = nullptr;
   auto t = table();
   Smash::RowBuffer<Smash::Interface::IntfCounter> row;
   // An unavailable row exists: its directory is made.
   if (!t || t->counterLookup(intfId, row.slot()) == Smash::Found::none) return;
   auto & d = dirs_[intfId];
   if (!d || d->current()->counterDir() != t) d = new SmashIntfCounterDir(intfId, t);
   *out = d.ptr();
}

} // namespace Interface
