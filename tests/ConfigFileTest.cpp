// The agents' configuration file: what it accepts, and for what it refuses,
// the exact line and reason an operator sees.
#include "ConfigFile.h"

#include <gtest/gtest.h>

#include <string>

using IntfApp::ConfigError;
using IntfApp::parseConfig;
using Zenet::IntfId;

namespace {

std::string errorOf(std::string const & text) {
   try {
      parseConfig(text, "intf.conf");
   } catch (ConfigError const & e) {
      return e.what();
   }
   return "accepted";
}

} // namespace

TEST(ConfigFile, EverySettingOfAFullFileIsRead) {
   auto cfg = parseConfig(
      "# switch one\n"
      "\n"
      "global load-interval=60 link-status-logging=off   # site default\n"
      "Ethernet1 admin=up mtu=9000 load-interval=30 description=\"uplink \\\"spine\\\" #1\" "
      "netns=blue device=veth-to-spine1\r\n"
      "  Loopback0\tadmin=down load-interval=default\n"
      "Ethernet3/1.100 mtu=2147483647",
      "intf.conf");
   ASSERT_TRUE(cfg.global.loadInterval);
   EXPECT_EQ(*cfg.global.loadInterval, Interface::LoadInterval(false, 60));
   EXPECT_EQ(cfg.global.linkStatusLogging, Interface::IntfLoggingMode::off);
   ASSERT_EQ(cfg.intfs.size(), 3u);

   auto const * e1 = cfg.intf(IntfId("Ethernet1"));
   ASSERT_NE(e1, nullptr);
   EXPECT_EQ(e1->line, 4u);
   EXPECT_EQ(e1->adminUp, true);
   EXPECT_EQ(e1->mtu, 9000u);
   EXPECT_EQ(e1->loadInterval, Interface::LoadInterval(false, 30));
   EXPECT_EQ(e1->description, "uplink \"spine\" #1");
   ASSERT_TRUE(e1->netNs);
   EXPECT_EQ(e1->netNs->name(), "blue");
   EXPECT_EQ(e1->device, "veth-to-spine1");  // 15 bytes, the most a device name has

   auto const * lo = cfg.intf(IntfId("Loopback0"));
   ASSERT_NE(lo, nullptr);
   EXPECT_EQ(lo->line, 5u);
   EXPECT_EQ(lo->adminUp, false);
   EXPECT_EQ(lo->loadInterval, Interface::LoadInterval());  // follow the global one
   EXPECT_FALSE(lo->mtu);
   EXPECT_FALSE(lo->description);

   EXPECT_EQ(cfg.intfs[2].intfId, IntfId("Ethernet3/1.100"));
   EXPECT_EQ(cfg.intfs[2].mtu, 2147483647u);  // lo takes more than 65535
   EXPECT_FALSE(cfg.intfs[2].adminUp);
}

TEST(ConfigFile, AnEmptyOrCommentOnlyFileConfiguresNothing) {
   for (std::string text : {"", "\n\n", "# nothing\n   # at all", "\r\n"}) {
      auto cfg = parseConfig(text, "intf.conf");
      EXPECT_TRUE(cfg.intfs.empty()) << text;
      EXPECT_FALSE(cfg.global.loadInterval) << text;
   }
}

TEST(ConfigFile, ABadLineIsNamedWithItsReason) {
   std::string many;
   for (int i = 0; i < 17; ++i) many += " k" + std::to_string(i) + "=v";
   struct Case {
      std::string text;
      std::string error;
   };
   Case const cases[] = {
      {"Ethernet1 admin=off", "intf.conf:1: admin must be up or down, not \"off\""},
      {"Ethernet1 mtu=0", "intf.conf:1: mtu must be 1 to 2147483647, not \"0\""},
      {"Ethernet1 mtu=2147483648", "intf.conf:1: mtu must be 1 to 2147483647, not \"2147483648\""},
      {"Ethernet1 mtu=9k", "intf.conf:1: mtu must be 1 to 2147483647, not \"9k\""},
      {"Ethernet1 mtu=-1", "intf.conf:1: mtu must be 1 to 2147483647, not \"-1\""},
      {"Ethernet1 mtu=", "intf.conf:1: no value for mtu"},
      {"Ethernet1 mtu", "intf.conf:1: expected key=value, found \"mtu\""},
      {"Ethernet1 mtu==9000", "intf.conf:1: no value for mtu"},
      {"Ethernet1 load-interval=4",
       "intf.conf:1: load-interval must be 5 to 600 seconds or default, not \"4\""},
      {"Ethernet1 load-interval=601",
       "intf.conf:1: load-interval must be 5 to 600 seconds or default, not \"601\""},
      {"global load-interval=default",
       "intf.conf:1: load-interval must be 5 to 600 seconds, not \"default\""},
      {"global link-status-logging=useGlobal",
       "intf.conf:1: link-status-logging must be on or off, not \"useGlobal\""},
      {"global mtu=9000",
       "intf.conf:1: unknown setting \"mtu\" (global takes load-interval, link-status-logging)"},
      {"Ethernet1 speed=100g",
       "intf.conf:1: unknown setting \"speed\" (an interface takes admin, mtu, load-interval, "
       "description, netns, device)"},
      {"Ethernet1 mtu=1500 mtu=9000", "intf.conf:1: setting \"mtu\" given twice"},
      {"\n# two\nEthernet1 mtu=1500\n\nethernet1 mtu=9000",
       "intf.conf:5: not an interface name: \"ethernet1\""},
      {"Ethernet1 mtu=1500\n# again\nEthernet1 admin=up",
       "intf.conf:3: Ethernet1 configured again (first on line 1)"},
      {"global load-interval=30\nglobal link-status-logging=on",
       "intf.conf:2: global given again (first on line 1)"},
      {"IntfId(0x1) mtu=1500", "intf.conf:1: not an interface name: \"IntfId(0x1)\""},
      {"Ethernet1 description=\"open", "intf.conf:1: unterminated quoted value of description"},
      {"Ethernet1 description=\"a\\nb\"",
       "intf.conf:1: only \\\" and \\\\ may follow a backslash in the value of description"},
      {"Ethernet1 description=\"a\"mtu=1",
       "intf.conf:1: no blank after the quoted value of description"},
      {"Ethernet1 description=a\"b", "intf.conf:1: stray quote in the value of description"},
      {"Ethernet1 description=" + std::string(241, 'd'),
       "intf.conf:1: description longer than 240 bytes"},
      {"Ethernet1 netns=" + std::string(151, 'n'),
       "intf.conf:1: netns must be 1 to 150 bytes without '/', not \"" + std::string(60, 'n') +
          "...\""},
      {"Ethernet1 netns=../x", "intf.conf:1: netns must be 1 to 150 bytes without '/', not \"../x\""},
      {"Ethernet1 device=abcdefghijklmnop",
       "intf.conf:1: device must be a kernel device name of 1 to 15 bytes, not \"abcdefghijklmnop\""},
      {"Ethernet1 device=..",
       "intf.conf:1: device must be a kernel device name of 1 to 15 bytes, not \"..\""},
      {"Ethernet1 description=\"a\x01\"", "intf.conf:1: control byte in the value of description"},
      {std::string("Ethernet1 mtu=1500\nEthernet2\0 mtu=1", 34), "intf.conf:2: NUL byte in the line"},
      {"Ethernet1 device=eth0\nEthernet2 device=eth0 netns=blue\nEthernet3 device=eth0 netns=default",
       "intf.conf:3: device eth0 in default is already Ethernet1 (line 1)"},
      {"=x", "intf.conf:1: a line starts with global or an interface name, not \"=x\""},
      {"Eth\x01 mtu=1500", "intf.conf:1: not an interface name: \"Eth\\x01\""},
      {"Ethernet1 description=a\x7f", "intf.conf:1: control byte in the value of description"},
      {"Ethernet1" + many, "intf.conf:1: more than 16 settings on one line"},
      {std::string(IntfApp::maxConfigBytes + 1, '#'), "intf.conf:0: larger than 1048576 bytes"},
   };
   for (auto const & c : cases) EXPECT_EQ(errorOf(c.text), c.error) << c.text;
}
