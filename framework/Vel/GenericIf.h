// Generic access: reading, writing, deleting, calling, iterating and watching the attributes of any
// entity by name, with plain values or text, through its type descriptor.
//
//    auto tracker = Vel::GenericIf::create("Zor::ChildProcessTrackerSm");
//    tracker->write("errorTerminationCount", 3);
//    for (const auto& [pid, child] : tracker->iterate("process")) ...
#pragma once

#include <Vel/Notifiee.h>
#include <Vel/VelType.h>

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

namespace Vel {

using AttributeId = unsigned;

// One operation on one attribute.
struct AttributeOp {
   enum Kind : unsigned { read, write, del, members, changeStamp, has, call = 8 };

   const VelAttr* attr;
   unsigned kind;
};

// Hears of changes of an entity's attributes by their ids.
class VEL_EXPORT GenericNotifieeConst {
 public:
   virtual void onRawAttribute(AttributeId id) = 0;

 protected:
   ~GenericNotifieeConst() = default;
};

// What a bridge from typed to generic notification forwards to.
class GenericNotifier {
 public:
   explicit GenericNotifier(GenericNotifieeConst* notifiee) noexcept : notifiee_(notifiee) {}
   GenericNotifieeConst* genericNotifiee() const noexcept { return notifiee_; }

 private:
   GenericNotifieeConst* notifiee_; // uncounted: the notifiee owns the bridge
};

class AttributeIterator;

struct AttributeIteratorVTable {
   Ptr<GenericIf> (*iterObj)(AttributeIterator&);
   Ptr<GenericIf> (*iterKey)(AttributeIterator&);
   bool (*iterNonnull)(AttributeIterator&);
   void (*iterInc)(AttributeIterator&);
   void (*iterDel)(AttributeIterator&);
};

// Stands on one element of a collection and owns the typed iterator behind it; movable.
class VEL_EXPORT AttributeIterator {
 public:
   AttributeIterator() noexcept = default;
   AttributeIterator(AttributeIterator&& other) noexcept;
   AttributeIterator& operator=(AttributeIterator&& other) noexcept;
   ~AttributeIterator();

   const VelAttr* attr() const noexcept { return attr_; }
   bool isConst() const noexcept { return isConst_; }
   template <class Typed> Typed& typed() const noexcept { return *static_cast<Typed*>(iterator_); }

   Ptr<GenericIf> key();
   Ptr<GenericIf> value();
   bool atEnd();
   void advance(); // dropping the element left may end it

 private:
   friend class GenericIf;

   Ptr<PtrInterface const> owner_; // keeps the collection while the iterator is used
   const AttributeIteratorVTable* table_ = nullptr;
   const VelAttr* attr_ = nullptr;
   void* iterator_ = nullptr; // given back through the table
   bool isConst_ = false;
};

// The string representation of a value, to be told from a text that is the value.
struct Text {
   std::string_view representation;
};

// An argument as a caller has it: a plain C++ value, an entity, a handle, or text. A C++ string is
// the value of a string and the representation of anything else. Lives for one call.
class VEL_EXPORT GenericValue {
 public:
   GenericValue(std::nullptr_t) {}
   // Whole numbers and bool only: nothing else is to become one of them silently.
   template <class T>
      requires(std::integral<T> || std::is_enum_v<T>)
   GenericValue(T value) : value_(wide(value)) {}
   GenericValue(const char* text) : GenericValue(std::string_view(text != nullptr ? text : "")) {}
   GenericValue(std::string_view text) : value_(text) {}
   GenericValue(const std::string& text) : value_(std::string_view(text)) {}
   GenericValue(const String8& text) : value_(std::string_view(text)) {}
   GenericValue(Text text) : value_(text) {}
   template <std::derived_from<PtrInterface> T>
   GenericValue(T* object) : value_(asObject(object)) {}
   template <std::derived_from<PtrInterface> T>
   GenericValue(const Ptr<T>& object) : value_(asObject(object.get())) {}

   using Object = Ptr<PtrInterface const>; // an entity, or a handle
   using Any = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, std::string_view,
                            Text, Object>;
   const Any& any() const noexcept { return value_; }

 private:
   template <class T> static Any wide(T value) {
      if constexpr (std::is_enum_v<T>) {
         return wide(static_cast<std::underlying_type_t<T>>(value));
      } else if constexpr (std::is_same_v<T, bool>) {
         return value;
      } else if constexpr (std::is_signed_v<T>) {
         return static_cast<std::int64_t>(value);
      } else {
         return static_cast<std::uint64_t>(value);
      }
   }
   static Any asObject(const PtrInterface* object) {
      return object != nullptr ? Any(Object(object)) : Any(nullptr);
   }

   Any value_ = nullptr;
};

// A counted handle on an entity or on a plain value of a registered type. Activity thread only.
// An operation does what the typed one does, handlers and exceptions included. What can't be done
// is told apart: OpNotSupportedException when the attribute, or a const handle, has no such
// operation; RangeException for wrong names, counts, types and texts, with nothing changed.
class VEL_EXPORT GenericIf : public PtrInterface {
 public:
   using AttributeOp = Vel::AttributeOp;
   using AttributeIterator = Vel::AttributeIterator;
   using NotifieeConst = GenericNotifieeConst;
   using Notifier = GenericNotifier;
   class Elements;
   class Watch;

   // On an entity; const for a const one.
   template <std::derived_from<PtrInterface> T> static Ptr<GenericIf> of(const Ptr<T>& entity) {
      return of(entity.get(), std::is_const_v<T>);
   }
   // A new entity of a type that can be made from arguments.
   template <class... Values> static Ptr<GenericIf> create(std::string_view type, Values&&... v) {
      return createFrom(type, {GenericValue(std::forward<Values>(v))...});
   }
   // A value of a plain type from its string representation, of which nothing may be left over.
   static Ptr<GenericIf> parse(const VelType& type, std::string_view representation);

   virtual const VelType& type() const = 0;
   virtual const void* object() const = 0;         // the plain value, or the entity
   virtual Ptr<PtrInterface const> entity() const; // empty for a plain value
   virtual String8 strRep() const = 0; // parses back; for an entity the name of its type
   bool isConst() const noexcept { return isConst_; }

   // The plain value; RangeException when it is of another type. An enumeration's is unsigned.
   bool boolValue() const;
   int intValue() const;
   unsigned unsignedValue() const;
   unsigned char byteValue() const;
   String8 stringValue() const; // of a String or a Name

   // The record of an attribute, for use instead of its name.
   const VelAttr* attr(std::string_view name) const;

   // A collection is read, and deleted from, at a key. An absent entity reads as empty.
   Ptr<GenericIf> read(const VelAttr* attr) const { return at(attr, AttributeOp::read, {}); }
   Ptr<GenericIf> read(const VelAttr* attr, const GenericValue& key) const {
      return at(attr, AttributeOp::read, {&key, 1});
   }
   Ptr<GenericIf> del(const VelAttr* attr) const { return at(attr, AttributeOp::del, {}); }
   Ptr<GenericIf> del(const VelAttr* attr, const GenericValue& key) const {
      return at(attr, AttributeOp::del, {&key, 1});
   }
   bool has(const VelAttr* attr, const GenericValue& key) const {
      return at(attr, AttributeOp::has, {&key, 1})->boolValue();
   }
   unsigned members(const VelAttr* attr) const {
      return at(attr, AttributeOp::members, {})->unsignedValue();
   }
   unsigned changeStamp(const VelAttr* attr) const {
      return at(attr, AttributeOp::changeStamp, {})->unsignedValue();
   }
   // With the value; with key and value for a collection of plain values; with the arguments of an
   // instantiating attribute, whose entity is returned.
   template <class... Values> Ptr<GenericIf> write(const VelAttr* attr, Values&&... v) const {
      return writeFrom(attr, {GenericValue(std::forward<Values>(v))...});
   }
   template <class... Values> void call(const VelAttr* attr, Values&&... v) const {
      callFrom(attr, {GenericValue(std::forward<Values>(v))...});
   }
   // The elements of a collection as (key, value), all of them or from a key on; none when the key
   // is absent. The collection may change meanwhile.
   Elements iterate(const VelAttr* attr) const;
   Elements iterate(const VelAttr* attr, const GenericValue& key) const;
   // Calls the function after each change of the attribute, for as long as the watch is held. The
   // watch doesn't keep the entity alive.
   Ptr<Watch> watch(const VelAttr* attr, std::function<void()> changed) const;

   // The same by name.
   template <class... Values> Ptr<GenericIf> read(std::string_view name, Values&&... v) const {
      return read(attr(name), std::forward<Values>(v)...);
   }
   template <class... Values> Ptr<GenericIf> del(std::string_view name, Values&&... v) const {
      return del(attr(name), std::forward<Values>(v)...);
   }
   template <class... Values> Ptr<GenericIf> write(std::string_view name, Values&&... v) const {
      return write(attr(name), std::forward<Values>(v)...);
   }
   template <class... Values> void call(std::string_view name, Values&&... v) const {
      call(attr(name), std::forward<Values>(v)...);
   }
   bool has(std::string_view name, const GenericValue& key) const { return has(attr(name), key); }
   unsigned members(std::string_view name) const { return members(attr(name)); }
   unsigned changeStamp(std::string_view name) const { return changeStamp(attr(name)); }
   template <class... Values> Elements iterate(std::string_view name, Values&&... v) const;
   Ptr<Watch> watch(std::string_view name, std::function<void()> changed) const;

   // The operation as a type carries it out: key and value point to native values, or to
   // GenericArgs where arguments are taken; types are not checked here.
   Ptr<GenericIf> attributeOp(const AttributeOp& op, void* key, void* value) const;

   static AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 protected:
   explicit GenericIf(bool isConst) noexcept : isConst_(isConst) {}
   ~GenericIf() override;

 private:
   static Ptr<GenericIf> of(const PtrInterface* entity, bool isConst);
   static Ptr<GenericIf> createFrom(std::string_view type, std::initializer_list<GenericValue> v);
   Ptr<GenericIf> at(const VelAttr* attr, unsigned kind, std::span<const GenericValue> key) const;
   Ptr<GenericIf> writeFrom(const VelAttr* attr, std::initializer_list<GenericValue> v) const;
   void callFrom(const VelAttr* attr, std::initializer_list<GenericValue> v) const;
   Elements elements(const VelAttr* attr, const GenericValue* key) const;

   bool isConst_;
};

// A range over a collection, for one pass.
class GenericIf::Elements {
 public:
   struct End {};
   class Iterator {
    public:
      explicit Iterator(AttributeIterator* at) noexcept : at_(at) {}
      std::pair<Ptr<GenericIf>, Ptr<GenericIf>> operator*() const {
         return {at_->key(), at_->value()};
      }
      Iterator& operator++() {
         at_->advance();
         return *this;
      }
      friend bool operator==(const Iterator& it, End) { return it.at_->atEnd(); }

    private:
      AttributeIterator* at_;
   };

   explicit Elements(AttributeIterator at) noexcept : at_(std::move(at)) {}
   Iterator begin() noexcept { return Iterator(&at_); }
   End end() const noexcept { return {}; }

 private:
   AttributeIterator at_;
};

template <class... Values>
GenericIf::Elements GenericIf::iterate(std::string_view name, Values&&... v) const {
   return iterate(attr(name), std::forward<Values>(v)...);
}

// A function that is called after each change of one attribute of one entity.
class VEL_EXPORT GenericIf::Watch : public PtrInterface, public GenericNotifieeConst {
 public:
   Watch(const VelAttr* attr, std::function<void()> changed);
   void onRawAttribute(AttributeId id) override;
   ~Watch() override;

   static AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   friend class GenericIf;

   const VelAttr* attr_;
   std::function<void()> changed_;
   Ptr<PtrInterface::NotifieeConst> bridge_; // weakly on the entity
};

// For those who describe a type: making handles, taking arguments apart, and tables of operations.
namespace GenericIfImpl {

// On an entity value of an attribute; empty for null.
VEL_EXPORT Ptr<GenericIf> wrapAttrValue(const VelAttr* attr, const PtrInterface* value,
                                        bool isConst);
// On a plain value of the attribute's type, or of its key's.
VEL_EXPORT Ptr<GenericIf> wrapAttrValue(const VelAttr* attr, const void* value, bool isConst);
VEL_EXPORT Ptr<GenericIf> wrapAttrIndex(const VelAttr* attr, const void* key, bool isConst);

// Pointers to the native values of the arguments, which live as long as these do, one for each
// entry of the table; RangeException when they are not what the table says.
VEL_EXPORT void unwrapMutatorArgs(const VelAttr* attr, const GenericArgs* args, void** out);
VEL_EXPORT void unwrapFunctionArgs(const VelAttr* attr, const GenericArgs* args, void** out);
VEL_EXPORT void unwrapConstructorArgs(const VelType* type, const GenericArgs& args, void** out);

// "(pid S32, description Vel::String)"; null for none.
VEL_EXPORT std::string shownArgs(const VelArg* table);

[[noreturn]] VEL_EXPORT void throwOpNotSupportedException(const AttributeOp& op);

template <class T> struct VEL_EXPORT GenericIfPtrInterface {
   static Ptr<GenericIf> GenericIf_Is(const Ptr<T>& entity, bool isConst);
   static Ptr<GenericIf> FromPtrInterface(const VelType* type, const void* object, bool isConst);
   // Always throws: an entity has no text that it could be made from.
   static Ptr<GenericIf> FromStrRep(const VelType* type, String8::IteratorConst& it,
                                    const String8::IteratorConst& end);
};
extern template struct VEL_EXPORT GenericIfPtrInterface<PtrInterface>;

template <class T> struct VEL_EXPORT GenericIfEnum {
   static Ptr<GenericIf> FromVoidPointer(const VelType* type, const void* value, bool isConst);
   static Ptr<GenericIf> FromStrRep(const VelType* type, String8::IteratorConst& it,
                                    const String8::IteratorConst& end);
};
extern template struct VEL_EXPORT GenericIfEnum<unsigned>;

// One operation on one attribute of an object: what the kind stands for, done.
struct Call {
   PtrInterface* object;
   bool isConst;
   const AttributeOp& op;
   void* key;
   void* value;

   template <class T> T& as() const noexcept { return static_cast<T&>(*object); }
   template <class T> const T& keyAs() const noexcept { return *static_cast<const T*>(key); }
   template <class T> const T& valueAs() const noexcept { return *static_cast<const T*>(value); }
   const GenericArgs* args() const noexcept { return static_cast<const GenericArgs*>(value); }
};
using Operation = Ptr<GenericIf> (*)(const Call&);

// What an attribute can do, by kind; null where it can't.
struct AttributeOperations {
   AttributeId id;
   Operation kinds[9];
};

// The body of a type's attribute operation, given its table.
VEL_EXPORT Ptr<GenericIf> perform(std::span<const AttributeOperations> table, const Call& call,
                                  bool* notHandled);

// The reader of a plain attribute; what it returns is copied.
template <auto reader, class T> Ptr<GenericIf> readPlain(const Call& call) {
   const auto value = (call.as<T>().*reader)();
   return wrapAttrValue(call.op.attr, static_cast<const void*>(&value), call.isConst);
}

// The kinds that every map has alike. collection is its reader.
template <auto collection, class T> Ptr<GenericIf> readMembers(const Call& call) {
   const unsigned members = (call.as<T>().*collection)().members();
   return Builtin<unsigned>::_velType.genericIf(&members, call.isConst);
}
template <auto collection, class T> Ptr<GenericIf> readChangeStamp(const Call& call) {
   const unsigned stamp = (call.as<T>().*collection)().changeStamp();
   return Builtin<unsigned>::_velType.genericIf(&stamp, call.isConst);
}
template <auto collection, class T> Ptr<GenericIf> readHas(const Call& call) {
   const bool has = (call.as<T>().*collection)()[call.keyAs<int>()] != nullptr;
   return Builtin<bool>::_velType.genericIf(&has, call.isConst);
}

// A typed map iterator in a block of its own, as an attribute iterator carries it.
template <class Iterator> void* newIterator(Iterator iterator) {
   return ::new Iterator(std::move(iterator));
}
template <class Map> void* newIteratorAtKey(const Map& map, int key) {
   typename Map::IteratorConst at(&map, key);
   if (map[key] == nullptr) {
      return newIterator(typename Map::IteratorConst(nullptr)); // not the next one: none
   }
   return newIterator(std::move(at));
}
template <class Map> bool iterNonnull(AttributeIterator& at) {
   return static_cast<bool>(at.typed<typename Map::IteratorConst>());
}
template <class Map> void iterInc(AttributeIterator& at) {
   at.typed<typename Map::IteratorConst>().advance();
}
template <class Map> void iterDel(AttributeIterator& at) {
   delete &at.typed<typename Map::IteratorConst>();
}

} // namespace GenericIfImpl

} // namespace Vel
