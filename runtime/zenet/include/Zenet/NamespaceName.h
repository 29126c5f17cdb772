// The name of a network namespace: at most 150 bytes. A fresh name is the
// default namespace's.
#pragma once

#include <Kel/Value.h>

#include <cstdint>

namespace Zenet {

// The name of the namespace that holds every interface nobody moved.
inline constexpr char DEFAULT_NS[] = "default";

#define KEL_FIELDS_NamespaceName(F)                                                   \
   F(Field, name, Kel::String8, DEFAULT_NS)                                           \
   F(Const, maxBytes, uint32_t, 150)
struct NamespaceName {
   KEL_VALUE_TYPE(NamespaceName, "Zenet::NamespaceName", KEL_FIELDS_NamespaceName)
   // Refuses a name longer than maxBytes.
   explicit NamespaceName(Kel::String8 name) : name_(std::move(name)) { kelCheck(); }
   static NamespaceName defaultNamespace() { return NamespaceName(); }
   // Run on every name that is parsed, set through reflection or read from
   // the attribute log.
   void kelCheck() const;
};
KEL_VALUE_FUNCS(NamespaceName)

} // namespace Zenet
