#include <Vel/Notifiee.h>
#include <Vel/VelType.h>

// The descriptors that need no table: plain values, and the base of all entities.
#define VEL_TYPE_NAME(variable, text) [[gnu::section(".vel.type")]] constexpr char variable[] = text

namespace Vel {

namespace {

VEL_TYPE_NAME(boolName, "bool");
VEL_TYPE_NAME(intName, "int");
VEL_TYPE_NAME(unsignedName, "unsigned int");
VEL_TYPE_NAME(byteName, "unsigned char");
VEL_TYPE_NAME(stringName, "Vel::String");
VEL_TYPE_NAME(nameName, "Vel::Name");
VEL_TYPE_NAME(voidName, "void");
VEL_TYPE_NAME(entityName, "Vel::PtrInterface");

constexpr VelType plain(const char* name, std::uintptr_t size) {
   VelType type{};
   type.name = name;
   type.size = size;
   type.flags = 0xffff;
   return type;
}

} // namespace

#undef VEL_TYPE_NAME

template <> constinit const VelType Builtin<bool>::_velType = plain(boolName, sizeof(bool));
template <> constinit const VelType Builtin<int>::_velType = plain(intName, sizeof(int));
template <>
constinit const VelType Builtin<unsigned>::_velType = plain(unsignedName, sizeof(unsigned));
template <>
constinit const VelType Builtin<unsigned char>::_velType = plain(byteName, sizeof(unsigned char));
template <> constinit const VelType Builtin<String8>::_velType = plain(stringName, sizeof(String8));
template <> constinit const VelType Builtin<Name>::_velType = plain(nameName, sizeof(Name));
constinit const VelType _velType_void = plain(voidName, 0);

constinit const VelType PtrInterface::_velType = plain(entityName, sizeof(PtrInterface));
const VelType* PtrInterface::fwkType() const { return &_velType; }

namespace {

const struct BuiltinsAreRegistered {
   BuiltinsAreRegistered() {
      for (const VelType* type :
           {&Builtin<bool>::_velType, &Builtin<int>::_velType, &Builtin<unsigned>::_velType,
            &Builtin<unsigned char>::_velType, &Builtin<String8>::_velType,
            &Builtin<Name>::_velType, &_velType_void, &PtrInterface::_velType}) {
         typeNodeIs(type);
      }
   }
} builtinsAreRegistered;

} // namespace

} // namespace Vel
