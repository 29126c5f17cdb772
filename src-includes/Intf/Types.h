// Enumerations and records of the interface model. Each table below is the
// whole declaration of its type: values, text form, equality and parser come
// from the runtime.
#pragma once

#include <Brik/MaybeU63.h>
#include <Kel/Value.h>
#include <Zenet/IntfId.h>
#include <Zenet/Units.h>

#include <cstdint>

namespace Interface {

using Seconds = double;

// ---- enumerations ------------------------------------------------------------------
// Numbers are what the attribute log carries; keep them. Each enumeration E
// comes with stringValue(E), its value's name ("intfOperUp"),
// EInstance(name) and EInstance(number), which refuse anything that is not
// one of its values with Kel::RangeException, and operator<<.

#define KEL_VALUES_IntfOperStatus(V)                                                  \
   V(intfOperUp, 1)                                                                   \
   V(intfOperDown, 2)                                                                 \
   V(intfOperTesting, 3)                                                              \
   V(intfOperUnknown, 4)                                                              \
   V(intfOperDormant, 5)                                                              \
   V(intfOperNotPresent, 6)                                                           \
   V(intfOperLowerLayerDown, 7)
KEL_ENUM(IntfOperStatus, "Interface::IntfOperStatus", KEL_VALUES_IntfOperStatus)

#define KEL_VALUES_IntfEnabledState(V)                                                \
   V(unknownEnabledState, 0)                                                          \
   V(enabled, 1)                                                                      \
   V(shutdown, 2)
KEL_ENUM(IntfEnabledState, "Interface::IntfEnabledState", KEL_VALUES_IntfEnabledState)

#define KEL_VALUES_IntfForwardingModel(V)                                             \
   V(intfForwardingModelRecirculation, 0)                                             \
   V(intfForwardingModelQuietDataLink, 1)                                             \
   V(intfForwardingModelUnauthorized, 2)                                              \
   V(intfForwardingModelDataLink, 3)                                                  \
   V(intfForwardingModelBridged, 4)                                                   \
   V(intfForwardingModelRouted, 5)
KEL_ENUM(IntfForwardingModel, "Interface::IntfForwardingModel", KEL_VALUES_IntfForwardingModel)

#define KEL_VALUES_IntfLoggingMode(V)                                                 \
   V(on, 0)                                                                           \
   V(off, 1)                                                                          \
   V(useGlobal, 2)
KEL_ENUM(IntfLoggingMode, "Interface::IntfLoggingMode", KEL_VALUES_IntfLoggingMode)

#define KEL_VALUES_PktType(V)                                                         \
   V(uc, 0)                                                                           \
   V(mc, 1)                                                                           \
   V(mixedUcMc, 2)
KEL_ENUM(PktType, "Interface::PktType", KEL_VALUES_PktType)

#define KEL_VALUES_DropPrecedence(V)                                                  \
   V(dropPrecedence0, 0)                                                              \
   V(dropPrecedence1, 1)                                                              \
   V(dropPrecedence2, 2)
KEL_ENUM(DropPrecedence, "Interface::DropPrecedence", KEL_VALUES_DropPrecedence)

// ---- records -------------------------------------------------------------------------

// One sample of an interface's counters. Exactly outOctets and outDiscards
// may be absent; the rate computation depends on that mix.
#define KEL_FIELDS_IntfStatistics(F)                                                  \
   F(Field, outUcastPkts, uint64_t, 0)                                                \
   F(Field, outMulticastPkts, uint64_t, 0)                                            \
   F(Field, outBroadcastPkts, uint64_t, 0)                                            \
   F(Field, inUcastPkts, uint64_t, 0)                                                 \
   F(Field, inMulticastPkts, uint64_t, 0)                                             \
   F(Field, inBroadcastPkts, uint64_t, 0)                                             \
   F(Field, outOctets, Brik::MaybeU63, {})                                            \
   F(Field, inOctets, uint64_t, 0)                                                    \
   F(Field, inDiscards, uint64_t, 0)                                                  \
   F(Field, inErrors, uint64_t, 0)                                                    \
   F(Field, outDiscards, Brik::MaybeU63, {})                                          \
   F(Field, outErrors, uint64_t, 0)                                                   \
   F(Field, lastUpdate, Seconds, 0.0)
struct IntfStatistics {
   KEL_VALUE_TYPE(IntfStatistics, "Interface::IntfStatistics", KEL_FIELDS_IntfStatistics)
};
KEL_VALUE_FUNCS(IntfStatistics)

#define KEL_FIELDS_IntfRates(F)                                                       \
   F(Field, outPktsRate, Zenet::PacketsPerSecond, 0.0)                                \
   F(Field, inPktsRate, Zenet::PacketsPerSecond, 0.0)                                 \
   F(Field, outBitsRate, Zenet::BitsPerSecond, 0.0)                                   \
   F(Field, inBitsRate, Zenet::BitsPerSecond, 0.0)                                    \
   F(Field, statsUpdateTime, Seconds, 0.0)
struct IntfRates {
   KEL_VALUE_TYPE(IntfRates, "Interface::IntfRates", KEL_FIELDS_IntfRates)
};
KEL_VALUE_FUNCS(IntfRates)

// The averaging interval of rates. A fresh one defers to the next level
// (useDefault) with the default interval.
#define KEL_FIELDS_LoadInterval(F)                                                    \
   F(Field, useDefault, bool, true)                                                   \
   F(Field, val, Seconds, 300.0)                                                      \
   F(Const, defaultVal, Seconds, 300.0)                                               \
   F(Const, minVal, Seconds, 5.0)                                                     \
   F(Const, maxVal, Seconds, 600.0)
struct LoadInterval {
   KEL_VALUE_TYPE(LoadInterval, "Interface::LoadInterval", KEL_FIELDS_LoadInterval)
   LoadInterval(bool useDefault, Seconds val) : useDefault_(useDefault), val_(val) {}
   // val within [minVal, maxVal]; a NaN is outside.
   void kelCheck() const;
};
KEL_VALUE_FUNCS(LoadInterval)

// A request by some agent concerning an interface. Ordered and hashed so
// that it can key a collection.
#define KEL_FIELDS_IntfConfigRequest(F)                                               \
   F(Field, intf, Zenet::IntfId, {})                                                  \
   F(Field, requestor, Kel::String8, {})
struct IntfConfigRequest {
   KEL_VALUE_TYPE(IntfConfigRequest, "Interface::IntfConfigRequest",
                  KEL_FIELDS_IntfConfigRequest)
   IntfConfigRequest(Zenet::IntfId intf, Kel::String8 requestor)
         : intf_(intf), requestor_(std::move(requestor)) {}
   // Sum of the field hashes, bit-reversed.
   uint32_t hash() const;
   // By intf, then by requestor.
   friend bool operator<(IntfConfigRequest const & a, IntfConfigRequest const & b) {
      if (a.intf_ != b.intf_) return a.intf_ < b.intf_;
      return a.requestor_ < b.requestor_;
   }
   friend bool operator>(IntfConfigRequest const & a, IntfConfigRequest const & b) { return b < a; }
   friend bool operator<=(IntfConfigRequest const & a, IntfConfigRequest const & b) { return !(b < a); }
   friend bool operator>=(IntfConfigRequest const & a, IntfConfigRequest const & b) { return !(a < b); }
};
KEL_VALUE_FUNCS(IntfConfigRequest)

// When the operational status of an interface last changed, and how often
// it has. Known to users as IntfStatus::OperStatusChange.
#define KEL_FIELDS_OperStatusChange(F)                                                \
   F(Field, time, Seconds, 0.0)                                                       \
   F(Field, count, uint32_t, 0)
struct IntfStatusOperStatusChange {
   KEL_VALUE_TYPE(IntfStatusOperStatusChange, "Interface::IntfStatus::OperStatusChange",
                  KEL_FIELDS_OperStatusChange)
};
KEL_VALUE_FUNCS(IntfStatusOperStatusChange)

// Type-level constants of the queue counters; no stored attributes, so any
// two are equal.
#define KEL_FIELDS_QueueCounterConstants(F)                                           \
   F(Const, maxQueueId, uint32_t, 17)                                                 \
   F(Const, counterCellBytes, uint32_t, 208)
struct QueueCounterConstants {
   KEL_VALUE_TYPE(QueueCounterConstants, "Interface::QueueCounterConstants",
                  KEL_FIELDS_QueueCounterConstants)
};
KEL_VALUE_FUNCS(QueueCounterConstants)

} // namespace Interface
