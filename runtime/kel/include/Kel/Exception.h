// Exceptions of the runtime. Every refusal of a mutator, parser or
// constructor is one of these, with a fixed message text.
#pragma once

#include <Kel/Ptr.h>
#include <Kel/String8.h>

#include <cstdint>
#include <exception>

namespace Kel {

class Exception : public std::exception {
 public:
   using Id = uint32_t;

   // Well-known identifiers carried in an exception's identifier set.
   static constexpr Id notificationId = 0;
   static constexpr Id rangeId = 1;
   static constexpr Id nameInUseId = 2;
   static constexpr Id internalId = 3;
   static constexpr Id writeOnceId = 11;

   // A small set of exception identifiers (0..127).
   class IdBitArray {
    public:
      IdBitArray() : bits_{0, 0} {}
      IdBitArray & add(Id id) {
         if (id < 128) bits_[id / 64] |= uint64_t(1) << (id % 64);
         return *this;
      }
      bool has(Id id) const {
         return id < 128 && (bits_[id / 64] >> (id % 64)) & 1;
      }
      bool empty() const { return !bits_[0] && !bits_[1]; }
      friend bool operator==(IdBitArray const &, IdBitArray const &) = default;

    private:
      uint64_t bits_[2];
   };

   Exception(String8 message, IdBitArray ids = IdBitArray(), bool internal = false)
         : message_(std::move(message)), ids_(ids), internal_(internal) {}

   const char * what() const noexcept override { return message_.charPtr(); }
   String8 const & message() const { return message_; }
   IdBitArray const & ids() const { return ids_; }
   bool internal() const { return internal_; }

 private:
   String8 message_;
   IdBitArray ids_;
   bool internal_;
};

// A value outside its declared range, a null argument that is refused, or
// text that does not parse.
class RangeException : public Exception {
 public:
   explicit RangeException(String8 message)
         : Exception(std::move(message), IdBitArray().add(rangeId)) {}
};

// Text ended where more was needed. Value-type parsers turn it into
// "premature end of value type <Name>".
class PrematureEndException : public RangeException {
 public:
   PrematureEndException() : RangeException("premature end of text"), generic_(true) {}
   explicit PrematureEndException(String8 message)
         : RangeException(std::move(message)), generic_(false) {}
   // True until a value-type parser has named the type that ran short.
   bool generic() const { return generic_; }

 private:
   bool generic_;
};

class NameInUseException : public Exception {
 public:
   explicit NameInUseException(String8 message)
         : Exception(std::move(message), IdBitArray().add(nameInUseId)) {}
};

class InternalException : public Exception {
 public:
   explicit InternalException(String8 message,
                              IdBitArray ids = IdBitArray().add(internalId))
         : Exception(std::move(message), ids, true) {}
};

[[noreturn]] void throwRangeException(const char * text);
[[noreturn]] void throwRangeException(String8 const & text);
[[noreturn]] void throwNameInUseException(String8 const & text);
[[noreturn]] void throwInternalException(const char * text);
[[noreturn]] void throwInternalException(String8 const & text);
[[noreturn]] void throwInternalException(String8 const & text,
                                         Exception::IdBitArray ids);
// Adds the attribute being parsed to a parse error of a nested value.
[[noreturn]] void rethrowFromDeserializeAttr(RangeException const & e,
                                             String8 const & attrName);

// Scope guard naming the exception identifier that code inside the scope
// expects. Nested scopes restore the outer expectation on exit. A
// notification runs each reactor as if under Expect(notificationId): the
// walk does not open a scope per reactor, it is seen through its depth (a
// walk deeper than the innermost scope expects notificationId).
class Expect {
 public:
   explicit Expect(Exception::Id id) : prev_(current_) {
      current_ = Scope{int64_t(id), detail::notifyWalks.depth};
   }
   ~Expect() { current_ = prev_; }
   Expect(Expect const &) = delete;
   Expect & operator=(Expect const &) = delete;
   // The innermost expected identifier, or -1 outside any scope.
   static int64_t current() {
      if (detail::notifyWalks.depth > current_.walkDepth) {
         return int64_t(Exception::notificationId);
      }
      return current_.id;
   }

 private:
   struct Scope {
      int64_t id;
      uint32_t walkDepth;
   };
   Scope prev_;
   static constinit thread_local Scope current_ __attribute__((tls_model("initial-exec")));
};

} // namespace Kel
