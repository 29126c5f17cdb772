// Entity types used only by the tests: one of every attribute kind.
#pragma once

#include <Intf/Types.h>
#include <Kel/Attr.h>

namespace KelTest {

using Interface::PktType;

// A child made by an instantiating collection, with a second constructor
// parameter that a reinstantiation must repeat.
#define KEL_ATTRS_Queue(X)                                                            \
   X(Ctor, queueId, QueueId, uint8_t)                                                 \
   X(Ctor, pktType, PktType, PktType)                                                 \
   X(Scalar, pkts, Pkts, uint64_t, 0)
class Queue : public Kel::Entity {
   KEL_ENTITY(Queue, Kel::Entity, "KelTest::Queue", KEL_ATTRS_Queue)
 public:
   Queue(uint8_t id, PktType t) : Kel::Entity(Kel::format("q%u", id)), queueId_(id), pktType_(t) {}
};
KEL_FACTORY(queueFactory, Queue);

#define KEL_ATTRS_Leaf(X)                                                             \
   X(Ctor, intfId, IntfId, Zenet::IntfId)                                             \
   X(Scalar, mtu, Mtu, uint32_t, 1500)
class Leaf : public Kel::Entity {
   KEL_ENTITY(Leaf, Kel::Entity, "KelTest::Leaf", KEL_ATTRS_Leaf)
 public:
   explicit Leaf(Zenet::IntfId id) : Kel::Entity(id.stringValue()), intfId_(id) {}
   explicit Leaf(Kel::Name const & n) : Leaf(Zenet::IntfId(n.view())) {}
};
KEL_FACTORY(leafFactory, Leaf);

#define KEL_ATTRS_Thing(X)                                                            \
   X(Ctor, id, Id, uint32_t)                                                          \
   X(Scalar, flag, Flag, bool, false)                                                 \
   X(Scalar, count, Count, uint32_t, 7)                                               \
   X(Scalar, ratio, Ratio, double, 0.0)                                               \
   X(Scalar, text, Text, Kel::String8, {})                                            \
   X(Scalar, state, State, Interface::IntfEnabledState,                               \
     Interface::IntfEnabledState::unknownEnabledState)                                \
   X(Scalar, interval, Interval, Interface::LoadInterval, {})                         \
   X(Ptr, peer, Peer, Leaf const, Nullable)                                           \
   X(Ptr, must, Must, Leaf, NotNull)                                                  \
   X(WriteOnce, config, Config, Leaf)                                                 \
   X(Local, cache, Cache, Leaf)                                                       \
   X(Derived, doubled, Doubled, uint32_t)                                             \
   X(Const, answer, Answer, uint32_t, 42)                                             \
   X(Coll, requestor, Requestor, Kel::HashMap, Kel::String8, bool)                    \
   X(Coll, request, Request, Kel::HashMap, Interface::IntfConfigRequest, bool)        \
   X(EntColl, leaf, Leaf, Kel::HashMap, Zenet::IntfId, Leaf, intfId)                  \
   X(RefColl, byName, ByName, Kel::HashMap, Kel::String8, Leaf)                       \
   X(InstColl, queues, Queues, Kel::RbTreeMap, uint8_t, Queue)                        \
   X(Coll, ordered, Ordered, Kel::RbTreeMap, uint32_t, Kel::String8)
class Thing : public Kel::Entity {
   KEL_ENTITY(Thing, Kel::Entity, "KelTest::Thing", KEL_ATTRS_Thing)
 public:
   explicit Thing(uint32_t id) : Kel::Entity(Kel::format("thing%u", id)), id_(id) {}
   uint32_t doubled() const { return count_ * 2; }
};
KEL_FACTORY(thingFactory, Thing);

// A derived type: its attributes number on after its base's.
#define KEL_ATTRS_SubThing(X) X(Scalar, extra, Extra, int32_t, -1)
class SubThing : public Thing {
   KEL_ENTITY(SubThing, Thing, "KelTest::SubThing", KEL_ATTRS_SubThing)
 public:
   explicit SubThing(uint32_t id) : Thing(id) {}
};
KEL_FACTORY(subThingFactory, SubThing);

// A single constructed child and a process-local cache.
#define KEL_ATTRS_Holder(X)                                                           \
   X(InstChild, child, Child, Leaf)                                                   \
   X(Cache, memo, Memo, Leaf)
class Holder : public Kel::Entity {
   KEL_ENTITY(Holder, Kel::Entity, "KelTest::Holder", KEL_ATTRS_Holder)
 public:
   explicit Holder(Kel::Name n) : Kel::Entity(std::move(n)) {}
   Leaf::Ptr memo() const { return memo_; }
};
KEL_FACTORY(holderFactory, Holder);

} // namespace KelTest
