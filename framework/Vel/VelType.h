// Type descriptors: constant records that say of a type, by name, what it has and how to reach it.
#pragma once

#include <Vel/Notifiee.h>
#include <Vel/Ptr.h>
#include <Vel/String8.h>

#include <boost/container/small_vector.hpp>
#include <cstdint>
#include <iosfwd>

namespace Vel {

class GenericIf;
struct AttributeOp;
struct AttributeIteratorVTable;
class GenericNotifieeConst;

// The arguments of a generic creation, instantiating write or call.
using GenericArgs = boost::container::small_vector<Ptr<GenericIf const>, 8>;

// One argument of a constructor, instantiating attribute or function; a pair of nulls ends a table.
struct VelArg {
   const char* name;
   const char* typeName;
};

// One attribute of a type, or one value of an enumeration. Eight words, constant data.
struct VelAttr {
   static constexpr std::uintptr_t notifyingFlag = 0x80000000;
   static constexpr std::uintptr_t readOnlyFlag = 0x40000000;
   static constexpr std::uintptr_t instantiatingFlag = 0x01000000; // written from arguments
   static constexpr std::uintptr_t entityFlag = 0x00200000;        // its values are entities
   static constexpr std::uintptr_t functionFlag = 0x00100000;
   static constexpr std::uintptr_t collectionFlag = 0x00010000;

   bool is(std::uintptr_t flag) const noexcept { return (flags & flag) != 0; }

   const char* name;
   std::uintptr_t id; // the numeric value, in an enumeration
   const VelType* owner;
   const VelType* valueType; // of a function: of its result
   const VelType* keyType;   // of a collection, else null
   const char* keyName;      // of a collection that names it, else null
   const VelArg* args;       // of functions and instantiating attributes, else null
   std::uintptr_t flags;
};

// One type. Seventeen words, constant data that lives for the whole process.
struct VEL_EXPORT VelType {
   static constexpr std::uintptr_t enumerationFlag = 0x00100000;

   // Whether it is the other type or derived from it.
   bool isA(const VelType& other) const noexcept {
      const VelType* at = this;
      while (at != nullptr && at != &other) {
         at = at->parent;
      }
      return at != nullptr;
   }

   const char* name = nullptr;
   std::uintptr_t size = 0; // of an object, in bytes
   const VelType* parent = nullptr;
   const VelAttr* attrs = nullptr; // in ascending order of their ids
   std::uintptr_t attrCount = 0;
   const VelArg* ctorArgs = nullptr;
   std::uintptr_t flags = 0;
   std::uintptr_t reserved[3] = {};
   // Null where a type has no such operation. isConst: the handle refuses what would change it.
   Ptr<GenericIf> (*wrap)(const VelType* type, const void* object, bool isConst) = nullptr;
   Ptr<GenericIf> (*fromCtorArgs)(const VelType* type, const GenericArgs& args,
                                  bool isConst) = nullptr;
   Ptr<GenericIf> (*fromStrRep)(const VelType* type, String8::IteratorConst& it,
                                const String8::IteratorConst& end) = nullptr;
   Ptr<GenericIf> (*attributeOp)(void* object, bool isConst, const AttributeOp& op, void* key,
                                 void* value, bool* notHandled) = nullptr;
   void* (*attributeIterator)(void* object, const VelAttr* attr,
                              const AttributeIteratorVTable** table) = nullptr;
   void* (*attributeIteratorKey)(void* object, const VelAttr* attr, void* key,
                                 const AttributeIteratorVTable** table) = nullptr;
   // A bridge to the generic notifiee, not yet attached to an entity.
   Ptr<PtrInterface::NotifieeConst> (*genericNotifiee)(GenericNotifieeConst* notifiee) = nullptr;

   // A handle on a plain value, which is copied, or on an entity.
   Ptr<GenericIf> genericIf(const void* object, bool isConst) const;
};

static_assert(sizeof(VelAttr) == 8 * sizeof(void*) && sizeof(VelType) == 17 * sizeof(void*));

// Enters a descriptor into the registry, which keeps the pointer for the process. A second
// descriptor of the same name replaces the first for typeNode. Meant for static initialisers.
VEL_EXPORT void typeNodeIs(const VelType* type);

// The descriptor registered under the name, or null. S32, U32 and Vel::String8 are other names of
// int, unsigned int and Vel::String.
VEL_EXPORT const VelType* typeNode(std::string_view name);

// The descriptors of plain values: bool, int, unsigned int, unsigned char, String8 and Name.
template <class T> struct VEL_EXPORT Builtin { static const VelType _velType; };
template <> const VelType Builtin<bool>::_velType;
template <> const VelType Builtin<int>::_velType;
template <> const VelType Builtin<unsigned>::_velType;
template <> const VelType Builtin<unsigned char>::_velType;
template <> const VelType Builtin<String8>::_velType;
template <> const VelType Builtin<Name>::_velType;
extern VEL_EXPORT const VelType _velType_void; // of what has no value

// Both directions between the values and the names of an enumeration, by its descriptor.
template <class T> struct VEL_EXPORT EnumType {
   // The value for a number or name; RangeException for one that the enumeration doesn't have.
   static T instance(T number, const VelType& type);
   static T instance(const char* name, const VelType& type);
   // The value's name, or its number in decimal when it has none.
   static String8 stringValue(T value, const VelType& type);
   static String8 valueToStrep(T value, const VelType& type) { return stringValue(value, type); }
   static std::ostream& operatorLessLess(std::ostream& stream, T value, const VelType& type);
   // Parses a name, or a number as valueToStrep gives for a value without one, and leaves it
   // behind what was used; RangeException, and it stays, when neither is found there.
   static T sequenceToValue(String8::IteratorConst& it, const String8::IteratorConst& end,
                            const VelType& type);
};
extern template struct VEL_EXPORT EnumType<unsigned>;

} // namespace Vel
