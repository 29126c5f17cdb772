// The command line of the interface programs: options with or without a
// value ("--name VALUE" or "--name=VALUE"), repeatable ones, words, and the
// --help and --version every program answers the same way. A bad command
// line is said in one line ("<program>: <why>") and ends with status 2.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace IntfApp {

struct OptionSpec {
   std::string name;   // "--socket"
   std::string value;  // what it takes ("PATH"), "" for a flag
   std::string help;   // may span lines; each is indented under the option
   bool repeatable = false;
   bool mayBeEmpty = false;  // "" is a value ("none"), not a missing one
};

class CommandLine {
 public:
   // `synopsis` follows the program's name in the usage line; `about` and
   // `epilog` come before and after the options in --help.
   CommandLine(std::string program, std::string synopsis, std::string about, std::vector<OptionSpec> options,
               std::string epilog = {});

   // 0 to go on; otherwise the program ends with the status returned
   // (0 after --help or --version, 2 after a bad command line, said on
   // standard error).
   int parse(int argc, char ** argv);

   bool has(std::string const & name) const { return values_.count(name) > 0; }
   // The value given last, or `otherwise`.
   std::string value(std::string const & name, std::string const & otherwise = {}) const;
   // Every value of a repeatable option, in order.
   std::vector<std::string> values(std::string const & name) const;
   std::vector<std::string> const & words() const { return words_; }

   // Prints "<program>: <why>" and returns 2, for checks after parse().
   int bad(std::string const & why) const;
   void usage(std::FILE * to) const;
   std::string const & program() const { return program_; }

 private:
   std::string program_, synopsis_, about_, epilog_;
   std::vector<OptionSpec> options_;
   std::map<std::string, std::vector<std::string>> values_;
   std::vector<std::string> words_;
};

// "intf-agent 0.1.0 (libIntf 0.1.0)": what --version prints.
std::string versionLine(std::string const & program);

} // namespace IntfApp
