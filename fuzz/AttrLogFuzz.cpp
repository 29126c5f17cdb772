// The attribute-log reader against arbitrary bytes, as the incoming stream
// of a mounted tree. Whatever arrives, the reader must either apply it
// through the ordinary mutators or close the connection with a reason: no
// crash, no sanitizer report, no unbounded allocation.
#include "../tests/TestTypes.h"

#include <Kel/Stream.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   Kel::registerTypes<KelTest::Thing, KelTest::Leaf, KelTest::Queue, KelTest::SubThing>();
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   static int devnull = ::open("/dev/null", O_RDWR);
   Kel::NboAttrLog::Reader reader(devnull, "");
   // Fed in two pieces, so that frames split across reads are exercised.
   size_t half = size / 2;
   reader.receive(reinterpret_cast<char const *>(data), half);
   reader.receive(reinterpret_cast<char const *>(data) + half, size - half);
   if (reader.closed() && reader.closeReason().empty()) __builtin_trap();
   return 0;
}
