// Where an agent's log lines go: standard error, one line per structured
// log event or trace, from the level chosen with --log-level up. Each line
// starts with the time ("2024-05-01T12:00:00.123+02:00 ") unless standard
// error is the journal's (which times lines itself): the journal sets
// JOURNAL_STREAM to the device and inode of the stream it gave.
#pragma once

#include <Kel/Log.h>

#include <string>

namespace IntfApp {

// The levels --log-level takes, most severe first.
inline constexpr char const * logLevelNames = "emerg, alert, crit, err, warning, notice, info, debug";

// Installs the sink for events of `level` ("warning") and more severe
// ones, and timestamps traces too. Returns "" or why `level` is not one.
std::string logTo(std::string const & level);

// Whether standard error is the journal's stream.
bool underJournal();

// "2024-05-01T12:00:00.123+02:00": local time with milliseconds and offset.
std::string timestamp();

} // namespace IntfApp
