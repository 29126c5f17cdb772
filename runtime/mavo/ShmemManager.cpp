#include <Mavo/ShmemManager.h>

namespace Mavo {

ShmemMan & ShmemManager::man() const {
   if (!man_) man_ = std::make_unique<ShmemMan>(path_.str(), !isReadOnlyProxy(), cellBytes_);
   return *man_;
}

} // namespace Mavo
