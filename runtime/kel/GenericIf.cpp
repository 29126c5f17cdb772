#include <Kel/Attr.h>
#include <Kel/GenericIf.h>

namespace Kel {

namespace {

const char * opName(int op) {
   switch (op) {
      case AttributeOp::get: return "get";
      case AttributeOp::set: return "set";
      case AttributeOp::index: return "index";
      case AttributeOp::indexSet: return "index set";
      case AttributeOp::del: return "delete";
      case AttributeOp::call: return "call";
   }
   return "unknown";
}

} // namespace

void GenericIf::throwConstException(const char * text) { throwRangeException(text); }

void GenericIf::throwTypeException(String8 const & attr) {
   throwRangeException(String8("wrong type of value for ") + attr);
}

void GenericIf::throwUnknownAttrException(String8 const & type, String8 const & attr) {
   throwRangeException(type + " has no such attribute: " + attr);
}

void GenericIf::throwBadIndexAttrException(String8 const & attr) {
   throwRangeException(String8("attribute ") + attr + " is not a collection and cannot be indexed");
}

void GenericIf::throwOpNotSupportedException(String8 const & attr, int opId, bool) {
   throwRangeException(String8("operation ") + opName(opId) + " is not supported by attribute " +
                       attr);
}

void GenericIf::throwUnknownArgException(String8 const & type) {
   throwRangeException(String8("arguments do not fit the attributes of ") + type);
}

void GenericIf::checkValueType(GenericIf const & g, KelType const * t, const char * attr) {
   if (g.type() != t) throwTypeException(attr);
}

void const * GenericIf::voidPtrIs(KelType const *) const { return nullptr; }

namespace {

// attributeId without a call through the library's symbol table.
inline AttributeId idOf(KelType const * t, String8 const & name) {
   AttrDesc const * d = t->attribute(name.view());
   if (!d) GenericIf::throwUnknownAttrException(shortTypeName(t->name().charPtr()), name);
   return d->id;
}

} // namespace

AttributeId GenericIf::attributeId(String8 const & name) const { return idOf(type(), name); }

void GenericIf::attributeOp(AttributeOp const & op, PtrConst const & arg,
                            Kel::Ptr<Result> const & result) {
   attributeOpOn(type(), instance(), op, arg, result);
}

void GenericIf::attributeOpOn(KelType const * t, void * obj, AttributeOp const & op,
                              PtrConst const & arg, Kel::Ptr<Result> const & result) {
   AttrDesc const * d = t->attribute(op.attr);
   if (!d) {
      throwUnknownAttrException(shortTypeName(t->name().charPtr()),
                                Kel::format("%u", unsigned(op.attr)));
   }
   bool mutating = op.op == AttributeOp::set || op.op == AttributeOp::indexSet ||
                   op.op == AttributeOp::del;
   if (mutating && isConst()) throwConstException("attempting to modify a const instance");
   bool collection = d->flags & attrCollection;
   if ((op.op == AttributeOp::index || op.op == AttributeOp::indexSet ||
        op.op == AttributeOp::del) && !collection) {
      throwBadIndexAttrException(d->name);
   }
   switch (op.op) {
      case AttributeOp::get:
         if (!d->get) throwOpNotSupportedException(d->name, op.op, false);
         if (result) result->valIs(d->get(obj));
         return;
      case AttributeOp::set:
         if (!d->set || !arg) throwOpNotSupportedException(d->name, op.op, false);
         d->set(obj, *arg);
         return;
      case AttributeOp::index:
         if (!d->index || !arg) throwOpNotSupportedException(d->name, op.op, false);
         if (result) result->valIs(d->index(obj, *arg));
         return;
      case AttributeOp::indexSet: {
         auto const * list = dynamic_cast<List const *>(arg.ptr());
         if (!d->indexSet || !list || list->items().size() != 2) {
            throwOpNotSupportedException(d->name, op.op, false);
         }
         d->indexSet(obj, *list->items()[0], *list->items()[1]);
         return;
      }
      case AttributeOp::del:
         if (!d->del || !arg) throwOpNotSupportedException(d->name, op.op, false);
         d->del(obj, *arg);
         return;
      case AttributeOp::call:
         if (!d->call) throwOpNotSupportedException(d->name, op.op, false);
         if (auto r = d->call(obj, arg ? *arg : static_cast<GenericIf const &>(List()));
             result) {
            result->valIs(std::move(r));
         }
         return;
   }
}

Kel::Ptr<GenericIterator> GenericIf::attributeIteratorConst(AttributeId id) const {
   AttrDesc const * d = type()->attribute(id);
   if (!d) throwUnknownAttrException(type()->name(), Kel::format("%u", unsigned(id)));
   if (!d->iterate) throwBadIndexAttrException(d->name);
   return d->iterate(instance());
}

using detail::StackResult;

GenericIf::Ptr GenericIf::attribute(String8 const & name) {
   StackResult r;
   attributeOp(AttributeOp{AttributeOp::get, idOf(type(), name)}, nullptr, r.p);
   return r.box.valTake();
}

void GenericIf::attributeIs(String8 const & name, PtrConst const & v) {
   attributeOp(AttributeOp{AttributeOp::set, idOf(type(), name)}, v, detail::noResult);
}

GenericIf::Ptr GenericIf::attributeAt(String8 const & name, PtrConst const & key) {
   StackResult r;
   attributeOp(AttributeOp{AttributeOp::index, idOf(type(), name)}, key, r.p);
   return r.box.valTake();
}

namespace detail {

constinit thread_local GenericIf * spareValues[spareSlots]
    __attribute__((tls_model("initial-exec"))) = {};

namespace {

// Releases the thread's spare boxes when it ends. A value made after that
// (by another thread-exit handler) gets a box of its own.
enum class SpareState : uint8_t { none, kept, released };
thread_local SpareState spareState __attribute__((tls_model("initial-exec"))) = SpareState::none;

struct SpareRelease {
   ~SpareRelease() {
      spareState = SpareState::released;
      for (GenericIf *& s : spareValues) {
         GenericIf * v = s;
         s = nullptr;
         if (v) v->referencesDec();
      }
   }
};

} // namespace

GenericIf::Ptr spareValueIs(int slot, GenericIf * fresh) {
   GenericIf::Ptr r(fresh);
   if (spareState == SpareState::released) return r;
   if (spareState == SpareState::none) {
      static thread_local SpareRelease release;
      spareState = SpareState::kept;
   }
   GenericIf *& s = spareValues[slot];
   if (GenericIf * old = s) {
      s = nullptr;
      old->referencesDec();
   }
   fresh->referencesInc();
   s = fresh;
   return r;
}

} // namespace detail

KelType const * GenericIf::List::type() const {
   static KelType const t("Kel::GenericIf::List", KelType::Kind::builtin, nullptr, 0);
   return &t;
}

String8 GenericIf::List::strRep() const {
   String8 s("[");
   for (size_t i = 0; i < items_.size(); ++i) {
      if (i) s += ", ";
      s += items_[i] ? items_[i]->strRep() : String8("None");
   }
   s += "]";
   return s;
}

} // namespace Kel
