// The type descriptors of the tracker's classes and of its enumeration.
#include <Zor/ChildProcessTracker.h>

#include <ios>
#include <iterator>

namespace Zor {

namespace {

using Sm = ChildProcessTrackerSm;
using Context = ChildProcessTrackerCloseFdsContext;
using Vel::VelArg;
using Vel::VelAttr;

[[gnu::section(".vel.type")]] constexpr char smName[] = "Zor::ChildProcessTrackerSm";
[[gnu::section(".vel.type")]] constexpr char childName[] = "Zor::ChildProcess";
[[gnu::section(".vel.type")]] constexpr char contextName[] =
   "Zor::ChildProcessTrackerCloseFdsContext";
[[gnu::section(".vel.type")]] constexpr char errorName[] =
   "Zor::ChildProcessTrackerSm::terminationError";

constexpr VelArg childArgs[] = {
   {"pid", "S32"}, {"description", "Vel::String"}, {"readFromChildFd", "S32"}, {nullptr, nullptr}};
constexpr VelArg hookArgs[] = {{"child", "Zor::ChildProcess"}, {nullptr, nullptr}};
constexpr VelArg pidArgs[] = {{"pid", "S32"}, {nullptr, nullptr}};
constexpr VelArg siginfoArgs[] = {{"name", "Vel::Name"}, {"pid", "int"}, {nullptr, nullptr}};
constexpr VelArg initializedArgs[] = {{"readFromChildFd", "S32"}, {nullptr, nullptr}};

constexpr std::uintptr_t function = 0x101000ff;
constexpr std::uintptr_t plainValue = 0x380002ff;
constexpr std::uintptr_t readOnlyValue = 0x580002ff;
constexpr std::uintptr_t enumValue = 0x508000ff;

const Vel::VelType* const smType = &Sm::_velType;
const Vel::VelType* const childType = &ChildProcess::_velType;
const Vel::VelType* const contextType = &Context::_velType;
const Vel::VelType* const errorType = &Sm::_velType_terminationError;
const Vel::VelType* const voidType = &Vel::_velType_void;
const Vel::VelType* const boolType = &Vel::Builtin<bool>::_velType;
const Vel::VelType* const intType = &Vel::Builtin<int>::_velType;
const Vel::VelType* const countType = &Vel::Builtin<unsigned>::_velType;
const Vel::VelType* const textType = &Vel::Builtin<Vel::String8>::_velType;
const Vel::VelType* const siginfoType = &Vel::ChildSiginfo::_velType;

// name, id, owner, value type, key type, key name, arguments, flags; ascending by id
constinit const VelAttr smAttrs[] = {
   {"process", 0x82, smType, childType, intType, "pid", childArgs, 0x39210200},
   {"forkedChildExitCallback", 0x84, smType, voidType, nullptr, nullptr, hookArgs, function},
   {"handleTerminatedChildProcess", 0x85, smType, voidType, nullptr, nullptr, pidArgs, function},
   {"childProcess", 0x86, smType, childType, intType, "pid", nullptr, 0x382102ff},
   {"lastFailedProcess", 0x87, smType, childType, nullptr, nullptr, nullptr, 0x382002ff},
   {"lastFailedProcessTerminationError", 0x88, smType, errorType, nullptr, nullptr, nullptr,
    plainValue},
   {"successfulTerminationCount", 0x89, smType, countType, nullptr, nullptr, nullptr, plainValue},
   {"errorTerminationCount", 0x8a, smType, countType, nullptr, nullptr, nullptr, plainValue},
};

constinit const VelAttr childAttrs[] = {
   {"pid", 0x82, childType, intType, nullptr, nullptr, nullptr, readOnlyValue},
   {"description", 0x83, childType, textType, nullptr, nullptr, nullptr, readOnlyValue},
   {"siginfo", 0x85, childType, siginfoType, nullptr, nullptr, siginfoArgs, 0xb92002ff},
   {"handleInitialized", 0x86, childType, voidType, nullptr, nullptr, initializedArgs, function},
};

constinit const VelAttr contextAttrs[] = {
   {"skipFd", 0x82, contextType, boolType, intType, nullptr, nullptr, 0x380102ff},
};

constinit const VelAttr errorValues[] = {
   {"invalid", Sm::invalid, errorType, errorType, nullptr, nullptr, nullptr, enumValue},
   {"nonZeroExitStatus", Sm::nonZeroExitStatus, errorType, errorType, nullptr, nullptr, nullptr,
    enumValue},
   {"signaled", Sm::signaled, errorType, errorType, nullptr, nullptr, nullptr, enumValue},
};

} // namespace

constinit const Vel::VelType Sm::_velType = {
   .name = smName,
   .size = sizeof(Sm),
   .attrs = smAttrs,
   .attrCount = std::size(smAttrs),
   .flags = 0x0004ffff,
};

constinit const Vel::VelType ChildProcess::_velType = {
   .name = childName,
   .size = sizeof(ChildProcess),
   .parent = &Vel::PtrInterface::_velType,
   .attrs = childAttrs,
   .attrCount = std::size(childAttrs),
   .ctorArgs = childArgs,
   .flags = 0x0000ffff,
};

constinit const Vel::VelType Context::_velType = {
   .name = contextName,
   .size = sizeof(Context),
   .parent = &Vel::PtrInterface::_velType,
   .attrs = contextAttrs,
   .attrCount = std::size(contextAttrs),
   .flags = 0x0000ffff,
};

constinit const Vel::VelType Sm::_velType_terminationError = {
   .name = errorName,
   .size = sizeof(Sm::terminationError),
   .attrs = errorValues,
   .attrCount = std::size(errorValues),
   .flags = 0x0011ffff,
};

const Vel::VelType* Sm::fwkType() const { return &_velType; }
const Vel::VelType* ChildProcess::fwkType() const { return &_velType; }
const Vel::VelType* Context::fwkType() const { return &_velType; }

namespace {

const std::ios_base::Init streamsAreReady; // before anything of the library may write

const struct TypesAreRegistered {
   TypesAreRegistered() {
      for (const Vel::VelType* type : {childType, contextType, smType, errorType}) {
         Vel::typeNodeIs(type);
      }
   }
} typesAreRegistered;

} // namespace

} // namespace Zor
