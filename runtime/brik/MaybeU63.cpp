#include <Brik/MaybeU63.h>

namespace Brik {

std::ostream & operator<<(std::ostream & os, MaybeU63 m) {
   return os << Kel::valueToStrep(m);
}

} // namespace Brik

void Kel::Text<Brik::MaybeU63>::parse(TextIt & it, TextIt end, Brik::MaybeU63 * m) {
   skipBlanks(it, end);
   if (end - it >= 4 && std::string_view(it, 4) == "None") {
      it += 4;
      *m = Brik::MaybeU63::absent();
      return;
   }
   *m = Brik::MaybeU63(parseU64(it, end, ~Brik::MaybeU63::absentBit));
}
