// The text exposition format that monitoring servers scrape: families with
// their help and type, then one line per sample with escaped labels.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace IntfApp {

using Labels = std::vector<std::pair<std::string_view, std::string_view>>;

class MetricsText {
 public:
   // Starts a family: "# HELP" and "# TYPE" lines (type counter or gauge).
   void family(std::string_view name, std::string_view type, std::string_view help);
   void sample(std::string_view name, Labels const & labels, uint64_t value);
   void sample(std::string_view name, Labels const & labels, double value);
   std::string const & text() const { return out_; }
   void clear() { out_.clear(); }

 private:
   void head(std::string_view name, Labels const & labels);
   std::string out_;
};

} // namespace IntfApp
