// An entity's full path split into its components: the directories from
// the root down, then the entity's own name. An absolute path's first
// component is the root itself (named ""), so component 1 is the top-level
// tree the entity belongs to.
#pragma once

#include <Kel/String8.h>

#include <string_view>
#include <vector>

namespace Kel {

class UriPath {
 public:
   explicit UriPath(std::string_view fullName) {
      if (!fullName.empty() && fullName[0] == '/') {
         parts_.emplace_back();
         fullName.remove_prefix(1);
      }
      while (!fullName.empty()) {
         size_t slash = fullName.find('/');
         std::string_view part = fullName.substr(0, slash);
         if (!part.empty()) parts_.emplace_back(part);
         if (slash == std::string_view::npos) break;
         fullName.remove_prefix(slash + 1);
      }
   }
   // Directory components: every component but the last.
   size_t dirs() const { return parts_.empty() ? 0 : parts_.size() - 1; }
   String8 const & dir(size_t i) const { return parts_[i]; }
   String8 const & name() const { return parts_.back(); }
   size_t size() const { return parts_.size(); }

 private:
   std::vector<String8> parts_;
};

} // namespace Kel
