// A shared-memory name prefix of this test process's own, so that parallel
// runs never meet, and removal of what a test made on every path.
#pragma once

#include <Smash/Table.h>

#include <unistd.h>

#include <string>
#include <vector>

struct ShmTestPrefix {
   ShmTestPrefix() { Smash::shmPrefixIs("/intf-test-" + std::to_string(::getpid()) + "-"); }
   ~ShmTestPrefix() {
      for (auto const & p : tables) Smash::removeTable(p);
   }
   std::string table(std::string path) {
      tables.push_back(path);
      Smash::removeTable(path);
      return path;
   }
   std::vector<std::string> tables;
};
