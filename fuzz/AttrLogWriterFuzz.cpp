// A writer serving a small tree against arbitrary bytes from its reader:
// whatever the reader sends, the writer serves, refuses with a reason or
// closes, and never crashes, loops or reads outside what it received.
#include <Kel/Dir.h>
#include <Kel/Stream.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace {

Kel::Dir::Ptr tree() {
   static Kel::Dir::Ptr t = [] {
      Kel::registerTypes<Kel::Dir>();
      auto root = Kel::makePtr<Kel::Dir>(Kel::Name("root"));
      root->mkdir("served/a/b");
      root->mkdir("served/c");
      root->mkdir("secret");
      return root;
   }();
   return t;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   int sv[2];
   if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv) != 0) return 0;
   {
      Kel::NboAttrLog::ConnectionLimits limits;
      limits.bufferBytes = 512;  // small: the flow-out path runs too
      Kel::NboAttrLog::Writer w(sv[0], tree()->entity("served"), "fuzz", limits);
      size_t off = 0;
      char drain[4096];
      for (int round = 0; round < 64 && !w.closed(); ++round) {
         if (off < size) {
            ssize_t n = ::write(sv[1], data + off, size - off < 997 ? size - off : 997);
            if (n > 0) off += size_t(n);
         }
         w.onReadable();
         w.pump();
         while (::read(sv[1], drain, sizeof drain) > 0) {
         }
         if (off >= size && !w.flowOut() && w.pending() == 0) break;
      }
      // A closed writer says why and has let go of every entity it knew.
      if (w.closed() && (w.closeReason().empty() || w.adapters() != 0)) __builtin_trap();
   }
   ::close(sv[0]);
   ::close(sv[1]);
   return 0;
}
