#include <Intf/IntfCounter.h>

namespace Interface {

Kel::Ptr<AllIntfCounterDir> allIntfCounterDirFactory(Kel::Name name) {
   return Kel::makePtr<AllIntfCounterDir>(std::move(name));
}

} // namespace Interface
