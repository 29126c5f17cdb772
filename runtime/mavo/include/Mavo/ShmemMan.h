// The manager of shared-memory counter cells: fixed-size cells found by a
// string key, many cells to a mapping. A writer creates cells; readers only
// find them (and get 0 for a key with no cell). Once a process has mapped a
// cell's segment, finding the cell costs no system call.
//
// Objects, under the Smash prefix (Smash::shmPrefixIs), for a manager at
// mount path P: the key index "P/index" (a Smash table from key to cell
// number) and the cell segments "P/seg<N>", each holding cellsPerSegment
// cells. Cells are never moved or freed while the manager's objects exist,
// so an address stays valid for the life of the mapping. A writer makes
// each 208-byte counter cell's two copies agree when it first hands the
// cell out (a writer killed between them leaves them apart), so readers
// never see a counter go back after a writer restarts.
#pragma once

#include <Kel/String8.h>
#include <Smash/Table.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Mavo {

class ShmemMan {
 public:
   static constexpr uint32_t cellsPerSegment = 65536;
   static constexpr uint32_t maxKeyBytes = 48;

   // `cellBytes`: the size of every cell (a request for another size gets
   // no cell). A writer creates the objects; a reader attaches lazily.
   ShmemMan(std::string path, bool writer, uint32_t cellBytes = 208);
   ~ShmemMan();
   ShmemMan(ShmemMan const &) = delete;
   ShmemMan & operator=(ShmemMan const &) = delete;

   // The address of the cell of `key` as a number, 0 when there is none
   // (a reader asking for a key no writer made, a key over maxKeyBytes, a
   // size other than the cells').
   uint64_t counterAddr(Kel::String8 const & key, uint32_t size, bool forRead);
   // Stores a generation id in the cell of `key` (creating it).
   void shmemGenIdIs(Kel::String8 const & key, uint32_t size, uint32_t genId);
   // The cell of `key` under the generation rules of counter entities,
   // whose last seen generation is *counterGenId: a cell whose generation
   // is non-zero and equal is returned to readers and writers; otherwise a
   // writer starts a new generation (*counterGenId + 1, skipping 0, stored
   // in the cell and in *counterGenId) and a reader traces the mismatch and
   // gets 0. `who` names the caller in the level 9 traces.
   uint64_t cellFor(Kel::String8 const & key, uint32_t size, bool forRead, uint32_t * counterGenId,
                    char const * who = "Mavo::ShmemMan::cellFor");
   std::string const & path() const { return path_; }
   bool writer() const { return writer_ != nullptr; }
   // Removes every object of the manager at `path`.
   static void remove(std::string const & path);

 private:
   uint8_t * segment(uint32_t n, bool create);
   struct Segment;
   std::string path_;
   uint32_t cellBytes_;
   std::unique_ptr<Smash::TableWriter> writer_;
   std::unique_ptr<Smash::TableReader> reader_;
   std::vector<std::unique_ptr<Segment>> segments_;
   std::unordered_map<std::string, uint64_t> cache_;
   uint32_t next_ = 0;
};

} // namespace Mavo
