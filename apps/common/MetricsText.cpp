// Text exposition format; see MetricsText.h.
#include "MetricsText.h"

#include <charconv>
#include <cmath>

namespace IntfApp {

namespace {

void escaped(std::string & out, std::string_view s, bool quote) {
   for (char c : s) {
      if (c == '\\') {
         out += "\\\\";
      } else if (c == '\n') {
         out += "\\n";
      } else if (c == '"' && quote) {
         out += "\\\"";
      } else {
         out += c;
      }
   }
}

} // namespace

void MetricsText::family(std::string_view name, std::string_view type, std::string_view help) {
   out_ += "# HELP ";
   out_ += name;
   out_ += ' ';
   escaped(out_, help, false);
   out_ += "\n# TYPE ";
   out_ += name;
   out_ += ' ';
   out_ += type;
   out_ += '\n';
}

void MetricsText::head(std::string_view name, Labels const & labels) {
   out_ += name;
   if (!labels.empty()) {
      out_ += '{';
      bool first = true;
      for (auto const & [k, v] : labels) {
         if (!first) out_ += ',';
         first = false;
         out_ += k;
         out_ += "=\"";
         escaped(out_, v, true);
         out_ += '"';
      }
      out_ += '}';
   }
   out_ += ' ';
}

void MetricsText::sample(std::string_view name, Labels const & labels, uint64_t value) {
   head(name, labels);
   out_ += std::to_string(value);
   out_ += '\n';
}

void MetricsText::sample(std::string_view name, Labels const & labels, double value) {
   head(name, labels);
   if (std::isnan(value)) {
      out_ += "NaN";
   } else if (std::isinf(value)) {
      out_ += value > 0 ? "+Inf" : "-Inf";
   } else {
      // The shortest text that reads back as the same double.
      char buf[32];
      auto r = std::to_chars(buf, buf + sizeof buf, value);
      out_.append(buf, r.ptr);
   }
   out_ += '\n';
}

} // namespace IntfApp
