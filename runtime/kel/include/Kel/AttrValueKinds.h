// Row kinds of the entity pattern for values that are not plain stored
// attributes (see the row list in Kel/Attr.h):
//   VScalar  a Scalar whose reader is virtual and returns a copy: a derived
//            type may present the value from elsewhere (an adapter over a
//            shared-memory row), the mutator and notification are Scalar's.
//   Memo     process-local bookkeeping set through a const handle (a cached
//            address): never replicated, never announced.
//   Mutable  a Scalar set through a const handle (state that a look-up on a
//            const entity records, such as a generation seen): announced and
//            replicated like any Scalar.
// Every family of Attr.h gets one entry per kind here; kinds that behave
// like Scalar in a family say so by forwarding.
#pragma once

// ---- VScalar ---------------------------------------------------------------------------------
#define KEL_EA_CTORF_IF_VScalar(...)
#define KEL_EA_CB_VScalar(Name, ...) virtual void on##Name() {}
#define KEL_EA_CHILD_VScalar(name)
#define KEL_EA_HAS_VScalar(name)
#define KEL_EA_EACH_VScalar(name)
#define KEL_EA_DETACH_VScalar(name)
#define KEL_EA_DESC_VScalar(an, Name, Type, dflt) KEL_EA_DESC_VALUE_(an, VScalar, Type)
#define KEL_EA_STORE_VScalar(name, Name, Type, dflt) Type name##_ = dflt;
#define KEL_EA_MEMBER_VScalar(...)
#define KEL_EA_API_VScalar(name, Name, Type, dflt)                                    \
   virtual Type name() const { return name##_; }                                      \
   virtual void name##Is(Type const & v) {                                            \
      if (!::Kel::setField(name##_, v, this)) return;                                 \
      kelModified();                                                                  \
      KEL_EA_NOTIFY_(Name, kelId_##name);                                             \
   }

// ---- Memo ------------------------------------------------------------------------------------
#define KEL_EA_CTORF_IF_Memo(...)
#define KEL_EA_CB_Memo(Name, ...)
#define KEL_EA_CHILD_Memo(name)
#define KEL_EA_HAS_Memo(name)
#define KEL_EA_EACH_Memo(name)
#define KEL_EA_DETACH_Memo(name)
#define KEL_EA_DESC_Memo(an, Name, Type, dflt)                                        \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Memo, ::Kel::attrLocal, Type)                             \
      KEL_EA_DESC_GET_(an) v.push_back(d);                                            \
   }
#define KEL_EA_STORE_Memo(name, Name, Type, dflt) mutable Type name##_ = dflt;
#define KEL_EA_MEMBER_Memo(...)
#define KEL_EA_API_Memo(name, Name, Type, dflt)                                       \
   ::Kel::Ret<Type> name() const { return name##_; }                                  \
   void name##Is(Type const & v) const { name##_ = v; }

// ---- Mutable ---------------------------------------------------------------------------------
#define KEL_EA_CTORF_IF_Mutable(...)
#define KEL_EA_CB_Mutable(Name, ...) virtual void on##Name() {}
#define KEL_EA_CHILD_Mutable(name)
#define KEL_EA_HAS_Mutable(name)
#define KEL_EA_EACH_Mutable(name)
#define KEL_EA_DETACH_Mutable(name)
#define KEL_EA_DESC_Mutable(an, Name, Type, dflt) KEL_EA_DESC_VALUE_(an, Mutable, Type)
#define KEL_EA_STORE_Mutable(name, Name, Type, dflt) mutable Type name##_ = dflt;
#define KEL_EA_MEMBER_Mutable(...)
#define KEL_EA_API_Mutable(name, Name, Type, dflt)                                    \
   ::Kel::Ret<Type> name() const { return name##_; }                                  \
   void name##Is(Type const & v) const {                                              \
      if (!::Kel::setField(name##_, v, this)) return;                                 \
      const_cast<KelSelf *>(this)->kelModified();                                     \
      KEL_EA_NOTIFY_(Name, kelId_##name);                                             \
   }
