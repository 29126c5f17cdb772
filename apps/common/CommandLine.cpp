// Command lines of the interface programs; see CommandLine.h.
#include "CommandLine.h"

namespace IntfApp {

CommandLine::CommandLine(std::string program, std::string synopsis, std::string about,
                         std::vector<OptionSpec> options, std::string epilog)
      : program_(std::move(program)), synopsis_(std::move(synopsis)), about_(std::move(about)),
        epilog_(std::move(epilog)), options_(std::move(options)) {
   options_.push_back({"--help", "", "this text"});
   options_.push_back({"--version", "", "the program's version"});
}

int CommandLine::parse(int argc, char ** argv) {
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      if (a.rfind("--", 0) != 0 || a == "--") {
         words_.push_back(a);
         continue;
      }
      std::string value;
      bool inlineValue = false;
      if (size_t eq = a.find('='); eq != std::string::npos) {
         value = a.substr(eq + 1);
         a.resize(eq);
         inlineValue = true;
      }
      OptionSpec const * spec = nullptr;
      for (auto const & o : options_) {
         if (o.name == a) spec = &o;
      }
      if (!spec) {
         usage(stderr);
         return bad("unknown option " + a);
      }
      if (spec->value.empty()) {
         if (inlineValue) return bad(a + " takes no value");
         if (a == "--help") {
            usage(stdout);
            return -1;
         }
         if (a == "--version") {
            std::printf("%s\n", versionLine(program_).c_str());
            return -1;
         }
      } else {
         if (!inlineValue) {
            if (i + 1 == argc) return bad(a + " needs a value");
            value = argv[++i];
         }
         if (value.empty() && !spec->mayBeEmpty) return bad(a + " needs a value");
      }
      // A repeatable option collects its values; for the others the last one counts.
      auto & vs = values_[a];
      if (!spec->repeatable) vs.clear();
      vs.push_back(value);
   }
   return 0;
}

std::string CommandLine::value(std::string const & name, std::string const & otherwise) const {
   auto it = values_.find(name);
   return it == values_.end() ? otherwise : it->second.back();
}

std::vector<std::string> CommandLine::values(std::string const & name) const {
   auto it = values_.find(name);
   return it == values_.end() ? std::vector<std::string>() : it->second;
}

int CommandLine::bad(std::string const & why) const {
   std::fprintf(stderr, "%s: %s\n", program_.c_str(), why.c_str());
   return 2;
}

void CommandLine::usage(std::FILE * to) const {
   std::fprintf(to, "usage: %s %s\n%s\n", program_.c_str(), synopsis_.c_str(), about_.c_str());
   std::fprintf(to, "Options:\n");
   for (auto const & o : options_) {
      std::string head = "  " + o.name + (o.value.empty() ? "" : " " + o.value);
      std::fprintf(to, "%s\n", head.c_str());
      size_t at = 0;
      while (at <= o.help.size()) {
         size_t eol = o.help.find('\n', at);
         if (eol == std::string::npos) eol = o.help.size();
         std::fprintf(to, "        %s\n", o.help.substr(at, eol - at).c_str());
         at = eol + 1;
      }
   }
   if (!epilog_.empty()) std::fprintf(to, "%s\n", epilog_.c_str());
}

std::string versionLine(std::string const & program) { return program + " " INTF_VERSION; }

} // namespace IntfApp
