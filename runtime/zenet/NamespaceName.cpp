#include <Zenet/NamespaceName.h>

namespace Zenet {

void NamespaceName::kelCheck() const {
   if (name_.size() > maxBytes) Kel::throwRangeException("NamespaceName::bytes > 150 not allowed");
}

} // namespace Zenet
