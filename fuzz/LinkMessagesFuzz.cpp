// Link message decoding against arbitrary bytes: whatever the buffer holds,
// decoding stays inside it (ASan watches), ends, and a delivered link has a
// name and a positive index.
#include "LinkMessages.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   // An exact-size copy, so that a read one byte past the input is caught.
   std::vector<uint8_t> copy(data, data + size);
   IntfApp::decodeLinkMessages(copy.data(), copy.size(),
                               [](IntfApp::LinkEvent e, IntfApp::LinkInfo const & i) {
      if ((e == IntfApp::LinkEvent::present || e == IntfApp::LinkEvent::gone) &&
          (i.name.empty() || i.ifindex <= 0)) {
         __builtin_trap();
      }
   });
   return 0;
}
