// The details provider registry: exact type names, the last registration
// wins, overlapping index ranges are warned about.
#include <Intf/IntfDetailsProvider.h>
#include <Kel/Trace.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Provider : Intf::IntfDetailsProvider {
   Provider(char const * type, int32_t low, int32_t high)
         : IntfDetailsProvider(low, high), type(type) {}
   Kel::String8 typeName() const override { return type; }
   char const * type;
};

std::vector<std::string> warnings;

} // namespace

// An interface kind of its own, and one derived from it (named, so that
// their type names are plain).
namespace IntfTest {
struct TunnelStatus : Interface::IntfStatus {
   using IntfStatus::IntfStatus;
};
struct GreStatus : TunnelStatus {
   using TunnelStatus::TunnelStatus;
};
} // namespace IntfTest
using IntfTest::GreStatus;
using IntfTest::TunnelStatus;

TEST(IntfDetailsProvider, ExactTypesOnlyTheLastRegistrationWinsAndOverlapsAreWarned) {
   Kel::traceLevelIs("Intf::IntfDetailsProvider", 2);
   Kel::traceSinkIs([](const char *, int, Kel::String8 const & m) {
      if (m.view().rfind("Warning", 0) == 0) warnings.push_back(m.str());
   });
   static Provider first("IntfTest::TunnelStatus", 1000, 1999),
       second("IntfTest::TunnelStatus", 1000, 1999);
   static Provider touching("Other1", 1999, 2999), apart("Other2", 3000, 3999);
   Intf::registerIntfDetailsProvider(&first);
   Intf::registerIntfDetailsProvider(&second);
   Intf::registerIntfDetailsProvider(&touching);
   Intf::registerIntfDetailsProvider(&apart);
   Kel::traceSinkIs(nullptr);
   Kel::traceLevelIs("Intf::IntfDetailsProvider", -1);

   auto tunnel = Kel::makePtr<TunnelStatus>(Zenet::IntfId("Tunnel1"), nullptr, 1);
   auto gre = Kel::makePtr<GreStatus>(Zenet::IntfId("Tunnel2"), nullptr, 1);
   auto plain = Interface::intfStatusFactory(Zenet::IntfId("Ethernet1"), nullptr, 1);
   EXPECT_EQ(Intf::intfDetailsProvider(tunnel), &second);
   EXPECT_EQ(Intf::intfDetailsProvider(gre), nullptr);  // no fall-back to the base type
   EXPECT_EQ(Intf::intfDetailsProvider(plain), nullptr);
   EXPECT_EQ(Intf::providerMap().size(), 3u);
   EXPECT_EQ(warnings, (std::vector<std::string>{
                           "Warning ifIndex range for IntfTest::TunnelStatus(1000, 1999) overlaps "
                           "range for IntfTest::TunnelStatus(1000, 1999)",
                           "Warning ifIndex range for Other1(1999, 2999) overlaps range for "
                           "IntfTest::TunnelStatus(1000, 1999)"}));
}
