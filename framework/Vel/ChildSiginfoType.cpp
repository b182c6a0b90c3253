// The type of the record of a child's end: what generic access can read of it.
#include <Vel/ChildSiginfo.h>
#include <Vel/GenericIf.h>

#include <iterator>
#include <ostream>

namespace Vel {

namespace {

using namespace GenericIfImpl;

[[gnu::section(".vel.type")]] constexpr char siginfoName[] = "Vel::ChildSiginfo";
[[gnu::section(".vel.type")]] constexpr char codeName[] = "Vel::ChildSiginfo::SignalCode";
[[gnu::section(".vel.type")]] constexpr char provenanceName[] = "Vel::ChildSiginfo::Provenance";

constexpr const VelType* siginfoType = &ChildSiginfo::_velType;
extern const VelType codeType;
extern const VelType provenanceType;

constexpr std::uintptr_t readOnly = 0x580002ff;
constexpr std::uintptr_t enumValue = 0x508000ff;

constexpr VelAttr value(const VelType* type, const char* name, std::uintptr_t number) {
   return {name, number, type, type, nullptr, nullptr, nullptr, enumValue};
}

constexpr VelAttr attribute(const char* name, AttributeId id, const VelType* type) {
   return {name, id, siginfoType, type, nullptr, nullptr, nullptr, readOnly};
}

constinit const VelAttr codes[] = {
   value(&codeType, "none", ChildSiginfo::none),
   value(&codeType, "exited", ChildSiginfo::exited),
   value(&codeType, "killed", ChildSiginfo::killed),
   value(&codeType, "lost", ChildSiginfo::lost),
};

constinit const VelAttr provenances[] = {
   value(&provenanceType, "none", static_cast<unsigned>(ChildSiginfo::Provenance::none)),
   value(&provenanceType, "reaped", static_cast<unsigned>(ChildSiginfo::reaped)),
   value(&provenanceType, "recovered", static_cast<unsigned>(ChildSiginfo::recovered)),
   value(&provenanceType, "unknown", static_cast<unsigned>(ChildSiginfo::unknown)),
};

constinit const VelAttr attributes[] = {
   attribute("name", 0x82, &Builtin<Name>::_velType),
   attribute("pid", 0x83, &Builtin<int>::_velType),
   attribute("signalCode", 0x84, &codeType),
   attribute("exitStatus", 0x85, &Builtin<unsigned char>::_velType),
   attribute("exitSignal", 0x86, &Builtin<unsigned char>::_velType),
   attribute("coreDumped", 0x87, &Builtin<bool>::_velType),
   attribute("provenance", 0x88, &provenanceType),
};

constexpr AttributeOperations operations[] = {
   {0x82, {readPlain<&ChildSiginfo::name, ChildSiginfo>}},
   {0x83, {readPlain<&ChildSiginfo::pid, ChildSiginfo>}},
   {0x84, {readPlain<&ChildSiginfo::signalCode, ChildSiginfo>}},
   {0x85, {readPlain<&ChildSiginfo::exitStatus, ChildSiginfo>}},
   {0x86, {readPlain<&ChildSiginfo::exitSignal, ChildSiginfo>}},
   {0x87, {readPlain<&ChildSiginfo::coreDumped, ChildSiginfo>}},
   {0x88, {[](const Call& call) {
       const auto provenance = static_cast<unsigned>(call.as<ChildSiginfo>().provenance());
       return wrapAttrValue(call.op.attr, static_cast<const void*>(&provenance), call.isConst);
    }}},
};

Ptr<GenericIf> genericIfAttributeOp(void* object, bool isConst, const AttributeOp& op, void* key,
                                    void* value, bool* notHandled) {
   return perform(operations, {static_cast<PtrInterface*>(object), isConst, op, key, value},
                  notHandled);
}

constexpr VelType enumeration(const char* name, const VelAttr* values, std::size_t count) {
   return {.name = name,
           .size = sizeof(unsigned),
           .attrs = values,
           .attrCount = count,
           .flags = 0x0011ffff,
           .wrap = GenericIfEnum<unsigned>::FromVoidPointer,
           .fromStrRep = GenericIfEnum<unsigned>::FromStrRep};
}

constinit const VelType codeType = enumeration(codeName, codes, std::size(codes));
constinit const VelType provenanceType =
   enumeration(provenanceName, provenances, std::size(provenances));

const struct TypesAreRegistered {
   TypesAreRegistered() {
      for (const VelType* type : {siginfoType, &codeType, &provenanceType}) {
         typeNodeIs(type);
      }
   }
} typesAreRegistered;

} // namespace

constinit const VelType ChildSiginfo::_velType = {
   .name = siginfoName,
   .size = sizeof(ChildSiginfo),
   .parent = &PtrInterface::_velType,
   .attrs = attributes,
   .attrCount = std::size(attributes),
   .flags = 0xffff,
   .wrap = GenericIfPtrInterface<PtrInterface>::FromPtrInterface,
   .fromStrRep = GenericIfPtrInterface<PtrInterface>::FromStrRep,
   .attributeOp = genericIfAttributeOp,
};

const VelType* ChildSiginfo::fwkType() const { return &_velType; }

std::ostream& operator<<(std::ostream& stream, const ChildSiginfo::SignalCode& code) {
   return EnumType<unsigned>::operatorLessLess(stream, code, codeType);
}

} // namespace Vel
