// What the tracker's type tables have in common.
#pragma once

#include <Zor/ChildProcessTracker.h>

#include <Vel/GenericIf.h>

#include <cstdint>

namespace Zor {

using GenericHandle = Vel::Ptr<Vel::GenericIf>;
using Vel::AttributeIterator;
using Vel::AttributeIteratorVTable;
using Vel::AttributeOp;
using Vel::GenericArgs;
using Vel::VelArg;
using Vel::VelAttr;
using Vel::VelType;
using Vel::GenericIfImpl::AttributeOperations;
using Vel::GenericIfImpl::Call;
using EntityType = Vel::GenericIfImpl::GenericIfPtrInterface<Vel::PtrInterface>;

// The flags of the usual kinds of attributes.
constexpr std::uintptr_t functionFlags = 0x101000ff;
constexpr std::uintptr_t plainFlags = 0x380002ff;
constexpr std::uintptr_t readOnlyFlags = 0x580002ff;

constexpr const VelType* boolType = &Vel::Builtin<bool>::_velType;
constexpr const VelType* intType = &Vel::Builtin<int>::_velType;
constexpr const VelType* childType = &ChildProcess::_velType;

// An entity that came untyped: as the value of an entity-valued attribute, or as an argument.
template <class T> Vel::Ptr<T const> entityAt(void* entity) {
   return Vel::Ptr<T const>(static_cast<const T*>(static_cast<Vel::PtrInterface*>(entity)));
}

inline GenericHandle wrapped(const Call& call, const Vel::Ptr<Vel::PtrInterface const>& entity,
                             bool isConst) {
   return Vel::GenericIfImpl::wrapAttrValue(call.op.attr, entity.get(), isConst);
}

} // namespace Zor
