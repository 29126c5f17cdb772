// Hand-written behaviour of the model's records.
#include <Intf/Types.h>

namespace Interface {

void LoadInterval::kelCheck() const {
   if (!(val_ >= minVal && val_ <= maxVal)) {
      Kel::throwRangeException(
          "LoadInterval::val < LoadInterval::minVal or > LoadInterval::maxVal not allowed");
   }
}

uint32_t IntfConfigRequest::hash() const {
   return Kel::bitReverse(intf_.hash() + requestor_.hash());
}

} // namespace Interface
