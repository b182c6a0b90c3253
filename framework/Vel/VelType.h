// Type descriptors: constant records that say of a type, by name, what it has and how to reach it.
#pragma once

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
struct VelType {
   const char* name = nullptr;
   std::uintptr_t size = 0; // of an object, in bytes
   const VelType* parent = nullptr;
   const VelAttr* attrs = nullptr; // in ascending order of their ids
   std::uintptr_t attrCount = 0;
   const VelArg* ctorArgs = nullptr;
   std::uintptr_t flags = 0;
   std::uintptr_t reserved[3] = {};
   // Null where a type has no such operation. isConst: the handle refuses what would change it.
   Ptr<GenericIf const> (*wrap)(const VelType* type, const void* object, bool isConst) = nullptr;
   Ptr<GenericIf const> (*fromCtorArgs)(const VelType* type, const GenericArgs& args,
                                        bool isConst) = nullptr;
   Ptr<GenericIf const> (*fromStrRep)(const VelType* type, String8::IteratorConst& it,
                                      const String8::IteratorConst& end) = nullptr;
   Ptr<GenericIf const> (*attributeOp)(void* object, bool isConst, const AttributeOp& op, void* key,
                                       void* value, bool* notHandled) = nullptr;
   void* (*attributeIterator)(void* object, const VelAttr* attr,
                              const AttributeIteratorVTable** table) = nullptr;
   void* (*attributeIteratorKey)(void* object, const VelAttr* attr, void* key,
                                 const AttributeIteratorVTable** table) = nullptr;
   Ptr<PtrInterface> (*genericNotifiee)(GenericNotifieeConst* notifiee) = nullptr;
};

static_assert(sizeof(VelAttr) == 8 * sizeof(void*) && sizeof(VelType) == 17 * sizeof(void*));

// Enters a descriptor into the registry, which keeps the pointer for the process. A second
// descriptor of the same name replaces the first for typeNode. Meant for static initialisers.
VEL_EXPORT void typeNodeIs(const VelType* type);

// The descriptor registered under the name, or null.
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
