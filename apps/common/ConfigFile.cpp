// Parser of the agents' configuration file; see ConfigFile.h for the format.
#include "ConfigFile.h"

#include <Kel/Exception.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <unordered_map>

namespace IntfApp {

ConfigError::ConfigError(std::string const & file, unsigned line, std::string const & reason)
      : std::runtime_error(file + ":" + std::to_string(line) + ": " + reason), line_(line) {}

IntfSettings const * ConfigFile::intf(Zenet::IntfId id) const {
   for (auto const & s : intfs) {
      if (s.intfId == id) return &s;
   }
   return nullptr;
}

namespace {

// Operators paste text from elsewhere; show what was found, kept short and
// printable, so that an error line stays one line.
std::string shown(std::string_view s) {
   std::string out = "\"";
   for (size_t i = 0; i < s.size() && i < 60; ++i) {
      unsigned char c = static_cast<unsigned char>(s[i]);
      if (c < 0x20 || c == 0x7f) {
         char buf[8];
         std::snprintf(buf, sizeof buf, "\\x%02x", c);
         out += buf;
      } else {
         out += char(c);
      }
   }
   if (s.size() > 60) out += "...";
   return out + "\"";
}

struct Line {
   std::string_view rest;
   std::string const & file;
   unsigned number;

   [[noreturn]] void fail(std::string const & why) const { throw ConfigError(file, number, why); }

   void skipBlanks() {
      while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) rest.remove_prefix(1);
      if (!rest.empty() && rest.front() == '#') rest = {};
   }
   bool atEnd() {
      skipBlanks();
      return rest.empty();
   }
   // A bare word: up to a blank, '=', '#' or the end.
   std::string_view word() {
      size_t n = 0;
      while (n < rest.size() && rest[n] != ' ' && rest[n] != '\t' && rest[n] != '=' &&
             rest[n] != '#') {
         ++n;
      }
      std::string_view w = rest.substr(0, n);
      rest.remove_prefix(n);
      return w;
   }
   std::string value(std::string_view key) {
      if (rest.empty() || rest.front() != '"') {
         std::string_view w = word();
         if (w.empty()) fail("no value for " + std::string(key));
         if (!rest.empty() && rest.front() == '=') fail("unexpected '=' in the value of " + std::string(key));
         if (w.find('"') != std::string_view::npos) fail("stray quote in the value of " + std::string(key));
         for (char c : w) {
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
               fail("control byte in the value of " + std::string(key));
            }
         }
         return std::string(w);
      }
      rest.remove_prefix(1);
      std::string out;
      while (true) {
         if (rest.empty()) fail("unterminated quoted value of " + std::string(key));
         char c = rest.front();
         rest.remove_prefix(1);
         if (c == '"') break;
         if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            fail("control byte in the value of " + std::string(key));
         }
         if (c == '\\') {
            if (rest.empty() || (rest.front() != '"' && rest.front() != '\\')) {
               fail("only \\\" and \\\\ may follow a backslash in the value of " + std::string(key));
            }
            c = rest.front();
            rest.remove_prefix(1);
         }
         out += c;
      }
      if (!rest.empty() && rest.front() != ' ' && rest.front() != '\t' && rest.front() != '#') {
         fail("no blank after the quoted value of " + std::string(key));
      }
      return out;
   }
};

bool parseUnsigned(std::string_view s, uint64_t * v) {
   if (s.empty()) return false;
   auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), *v);
   return ec == std::errc() && p == s.data() + s.size();
}

Interface::LoadInterval loadInterval(Line & l, std::string const & v, bool allowDefault) {
   if (allowDefault && v == "default") return Interface::LoadInterval();
   uint64_t secs = 0;
   if (!parseUnsigned(v, &secs) || secs < Interface::LoadInterval::minVal ||
       secs > Interface::LoadInterval::maxVal) {
      l.fail("load-interval must be 5 to 600 seconds" +
             std::string(allowDefault ? " or default" : "") + ", not " + shown(v));
   }
   return Interface::LoadInterval(false, double(secs));
}

void intfSetting(Line & l, IntfSettings & s, std::string_view key, std::string const & v) {
   if (key == "admin") {
      if (v != "up" && v != "down") l.fail("admin must be up or down, not " + shown(v));
      s.adminUp = v == "up";
   } else if (key == "mtu") {
      uint64_t mtu = 0;
      if (!parseUnsigned(v, &mtu) || mtu < 1 || mtu > maxMtu) {
         l.fail("mtu must be 1 to " + std::to_string(maxMtu) + ", not " + shown(v));
      }
      s.mtu = uint32_t(mtu);
   } else if (key == "load-interval") {
      s.loadInterval = loadInterval(l, v, true);
   } else if (key == "description") {
      if (v.size() > 240) l.fail("description longer than 240 bytes");
      s.description = v;
   } else if (key == "netns") {
      if (v.empty() || v.size() > Zenet::NamespaceName::maxBytes || v.find('/') != std::string::npos) {
         l.fail("netns must be 1 to 150 bytes without '/', not " + shown(v));
      }
      s.netNs = Zenet::NamespaceName(Kel::String8(v));
   } else if (key == "device") {
      if (v.empty() || v.size() > 15 || v.find('/') != std::string::npos ||
          v.find_first_of(" \t:") != std::string::npos || v == "." || v == "..") {
         l.fail("device must be a kernel device name of 1 to 15 bytes, not " + shown(v));
      }
      s.device = v;
   } else {
      l.fail("unknown setting " + shown(key) +
             " (an interface takes admin, mtu, load-interval, description, netns, device)");
   }
}

void globalSetting(Line & l, GlobalSettings & g, std::string_view key, std::string const & v) {
   if (key == "load-interval") {
      g.loadInterval = loadInterval(l, v, false);
   } else if (key == "link-status-logging") {
      if (v != "on" && v != "off") l.fail("link-status-logging must be on or off, not " + shown(v));
      g.linkStatusLogging =
         v == "on" ? Interface::IntfLoggingMode::on : Interface::IntfLoggingMode::off;
   } else {
      l.fail("unknown setting " + shown(key) +
             " (global takes load-interval, link-status-logging)");
   }
}

} // namespace

ConfigFile parseConfig(std::string_view text, std::string const & fileName) {
   if (text.size() > maxConfigBytes) {
      throw ConfigError(fileName, 0, "larger than " + std::to_string(maxConfigBytes) + " bytes");
   }
   ConfigFile cfg;
   std::unordered_map<uint64_t, unsigned> seen;  // identifier -> line
   unsigned globalLine = 0;
   size_t pos = 0;
   for (unsigned number = 1; pos <= text.size(); ++number) {
      size_t eol = text.find('\n', pos);
      if (eol == std::string_view::npos) eol = text.size();
      std::string_view raw = text.substr(pos, eol - pos);
      pos = eol + 1;
      if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
      Line l{raw, fileName, number};
      if (raw.find('\0') != std::string_view::npos) l.fail("NUL byte in the line");
      if (l.atEnd()) continue;
      std::string_view head = l.word();
      if (head.empty()) l.fail("a line starts with global or an interface name, not " + shown(l.rest));
      std::vector<std::pair<std::string_view, std::string>> settings;
      while (!l.atEnd()) {
         std::string_view key = l.word();
         if (key.empty() || l.rest.empty() || l.rest.front() != '=') {
            l.fail("expected key=value, found " + shown(key.empty() ? l.rest : key));
         }
         l.rest.remove_prefix(1);
         if (settings.size() == 16) l.fail("more than 16 settings on one line");
         for (auto const & [k, v] : settings) {
            if (k == key) l.fail("setting " + shown(key) + " given twice");
         }
         std::string v = l.value(key);
         settings.emplace_back(key, std::move(v));
      }
      if (head == "global") {
         if (globalLine) {
            l.fail("global given again (first on line " + std::to_string(globalLine) + ")");
         }
         globalLine = number;
         for (auto const & [k, v] : settings) globalSetting(l, cfg.global, k, v);
         continue;
      }
      IntfSettings s;
      s.line = number;
      try {
         s.intfId = Zenet::IntfId(head);
      } catch (Kel::Exception const &) {
         l.fail("not an interface name: " + shown(head));
      }
      if (s.intfId.isNull() || !s.intfId.hasName()) {
         l.fail("not an interface name: " + shown(head));
      }
      auto [it, fresh] = seen.emplace(s.intfId.intfIdValue(), number);
      if (!fresh) {
         l.fail(std::string(head) + " configured again (first on line " +
                std::to_string(it->second) + ")");
      }
      for (auto const & [k, v] : settings) intfSetting(l, s, k, v);
      if (s.device) {
         std::string where = (s.netNs ? s.netNs->name().str() : std::string(Zenet::DEFAULT_NS));
         for (auto const & o : cfg.intfs) {
            std::string ow = o.netNs ? o.netNs->name().str() : std::string(Zenet::DEFAULT_NS);
            if (o.device == s.device && ow == where) {
               l.fail("device " + *s.device + " in " + where + " is already " +
                      o.intfId.stringValue().str() + " (line " + std::to_string(o.line) + ")");
            }
         }
      }
      cfg.intfs.push_back(std::move(s));
   }
   return cfg;
}

std::string readConfigText(std::string const & path) {
   auto unreadable = [&](int err) {
      return ConfigError(path, 0, std::string("cannot be read: ") + std::strerror(err));
   };
   int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw unreadable(errno);
   std::string text;
   char buf[65536];
   ssize_t n;
   while ((n = ::read(fd, buf, sizeof buf)) > 0) {
      text.append(buf, size_t(n));
      if (text.size() > maxConfigBytes) {
         ::close(fd);
         throw ConfigError(path, 0, "larger than " + std::to_string(maxConfigBytes) + " bytes");
      }
   }
   int err = errno;
   ::close(fd);
   if (n < 0) throw unreadable(err);
   return text;
}

ConfigFile readConfigFile(std::string const & path) { return parseConfig(readConfigText(path), path); }

} // namespace IntfApp
