// The handles behind generic access, and the descriptors of plain values.
#include <Vel/GenericIf.h>

#include <charconv>
#include <ostream>
#include <string>

namespace Vel {

AllocTrackTypeInfo* GenericIf::velAllocTrackTypeInfo_ = nullptr;

namespace {

// ---- text ----

String8 representation(bool value) { return value ? "true" : "false"; }
template <std::integral T> String8 representation(T value) {
   return String8(std::to_string(value));
}
String8 representation(const String8& value) { return valueToStrep(value); }

[[noreturn]] void throwUnparsable(const VelType& type) {
   throwRangeException((std::string("not a text for ") + type.name).c_str());
}

using Place = String8::IteratorConst;

template <class T> T parsed(const VelType& type, Place& it, const Place& end) {
   if constexpr (std::is_same_v<T, bool>) {
      for (const std::string_view word : {"true", "false"}) {
         if (std::string_view(it, static_cast<std::size_t>(end - it)).starts_with(word)) {
            it += word.size();
            return word == "true";
         }
      }
      throwUnparsable(type);
   } else if constexpr (std::is_integral_v<T>) {
      T value{};
      const auto [ptr, error] = std::from_chars(it, end, value);
      if (error != std::errc()) {
         throwUnparsable(type);
      }
      it = ptr;
      return value;
   } else {
      return sequenceToValue(it, end, static_cast<String8*>(nullptr));
   }
}

// ---- handles ----

template <class T> class PlainHandle final : public GenericIf {
 public:
   PlainHandle(const VelType& type, T value, bool isConst)
      : GenericIf(isConst), type_(type), value_(std::move(value)) {}
   const VelType& type() const override { return type_; }
   const void* object() const override { return &value_; }
   String8 strRep() const override {
      if constexpr (std::is_same_v<T, unsigned>) {
         if ((type_.flags & VelType::enumerationFlag) != 0) {
            return EnumType<unsigned>::valueToStrep(value_, type_);
         }
      }
      return representation(value_);
   }

 private:
   const VelType& type_;
   const T value_;
};

class EntityHandle final : public GenericIf {
 public:
   EntityHandle(Ptr<PtrInterface const> entity, bool isConst)
      : GenericIf(isConst), entity_(std::move(entity)) {}
   const VelType& type() const override { return *entity_->fwkType(); }
   const void* object() const override { return entity_.get(); }
   Ptr<PtrInterface const> entity() const override { return entity_; }
   String8 strRep() const override { return type().name; }

 private:
   const Ptr<PtrInterface const> entity_;
};

template <class T> Ptr<GenericIf> wrapPlain(const VelType* type, const void* value, bool isConst) {
   return newEntity<PlainHandle<T>>(*type, *static_cast<const T*>(value), isConst);
}

template <class T> Ptr<GenericIf> parsePlain(const VelType* type, Place& it, const Place& end) {
   return newEntity<PlainHandle<T>>(*type, parsed<T>(*type, it, end), false);
}

template <class T> constexpr VelType plainType(const char* name) {
   VelType type;
   type.name = name;
   type.size = sizeof(T);
   type.flags = 0xffff;
   type.wrap = wrapPlain<T>;
   type.fromStrRep = parsePlain<T>;
   return type;
}

[[gnu::section(".vel.type")]] constexpr char boolName[] = "bool";
[[gnu::section(".vel.type")]] constexpr char intName[] = "int";
[[gnu::section(".vel.type")]] constexpr char unsignedName[] = "unsigned int";
[[gnu::section(".vel.type")]] constexpr char byteName[] = "unsigned char";
[[gnu::section(".vel.type")]] constexpr char stringName[] = "Vel::String";
[[gnu::section(".vel.type")]] constexpr char nameName[] = "Vel::Name";
[[gnu::section(".vel.type")]] constexpr char voidName[] = "void";
[[gnu::section(".vel.type")]] constexpr char entityName[] = "Vel::PtrInterface";

using EntityType = GenericIfImpl::GenericIfPtrInterface<PtrInterface>;

} // namespace

GenericIf::~GenericIf() = default;
Ptr<PtrInterface const> GenericIf::entity() const { return nullptr; }

// ---- descriptors ----

template <> constinit const VelType Builtin<bool>::_velType = plainType<bool>(boolName);
template <> constinit const VelType Builtin<int>::_velType = plainType<int>(intName);
template <> constinit const VelType Builtin<unsigned>::_velType = plainType<unsigned>(unsignedName);
template <>
constinit const VelType Builtin<unsigned char>::_velType = plainType<unsigned char>(byteName);
template <> constinit const VelType Builtin<String8>::_velType = plainType<String8>(stringName);
template <> constinit const VelType Builtin<Name>::_velType = plainType<Name>(nameName);
constinit const VelType _velType_void = {.name = voidName, .flags = 0xffff};
constinit const VelType PtrInterface::_velType = {.name = entityName,
                                                  .size = sizeof(PtrInterface),
                                                  .flags = 0xffff,
                                                  .wrap = EntityType::FromPtrInterface,
                                                  .fromStrRep = EntityType::FromStrRep};
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

Ptr<GenericIf> VelType::genericIf(const void* object, bool isConst) const {
   if (wrap == nullptr) {
      throwRangeException((std::string("no values of type ") + name).c_str());
   }
   return wrap(this, object, isConst);
}

namespace GenericIfImpl {

template <class T>
Ptr<GenericIf> GenericIfPtrInterface<T>::GenericIf_Is(const Ptr<T>& entity, bool isConst) {
   return entity ? Ptr<GenericIf>(newEntity<EntityHandle>(entity, isConst)) : nullptr;
}
template <class T>
Ptr<GenericIf> GenericIfPtrInterface<T>::FromPtrInterface(const VelType*, const void* object,
                                                          bool isConst) {
   const Ptr<PtrInterface const> entity(static_cast<const PtrInterface*>(object));
   return entity ? Ptr<GenericIf>(newEntity<EntityHandle>(entity, isConst)) : nullptr;
}
template <class T>
Ptr<GenericIf> GenericIfPtrInterface<T>::FromStrRep(const VelType* type, String8::IteratorConst&,
                                                    const String8::IteratorConst&) {
   throwUnparsable(*type);
}
template struct GenericIfPtrInterface<PtrInterface>;

template <class T>
Ptr<GenericIf> GenericIfEnum<T>::FromVoidPointer(const VelType* type, const void* value,
                                                 bool isConst) {
   return wrapPlain<T>(type, value, isConst);
}
template <class T>
Ptr<GenericIf> GenericIfEnum<T>::FromStrRep(const VelType* type, String8::IteratorConst& it,
                                            const String8::IteratorConst& end) {
   return newEntity<PlainHandle<T>>(*type, EnumType<T>::sequenceToValue(it, end, *type), false);
}
template struct GenericIfEnum<unsigned>;

Ptr<GenericIf> wrapAttrValue(const VelAttr*, const PtrInterface* value, bool isConst) {
   return EntityType::FromPtrInterface(nullptr, value, isConst);
}
Ptr<GenericIf> wrapAttrValue(const VelAttr* attr, const void* value, bool isConst) {
   return attr->valueType->genericIf(value, isConst);
}
Ptr<GenericIf> wrapAttrIndex(const VelAttr* attr, const void* key, bool isConst) {
   return attr->keyType->genericIf(key, isConst);
}

std::string shownArgs(const VelArg* table) {
   std::string shown = "(";
   for (const VelArg* arg = table; arg != nullptr && arg->name != nullptr; ++arg) {
      shown += std::string(arg != table ? ", " : "") + arg->name + ' ' + arg->typeName;
   }
   return shown + ')';
}

namespace {

[[noreturn]] void throwWrongArgs(const std::string& where, const VelArg* table) {
   throwRangeException((where + ": expected " + shownArgs(table)).c_str());
}

void unwrap(const std::string& where, const VelArg* table, const GenericArgs& args, void** out) {
   static constexpr VelArg noArgs[] = {{nullptr, nullptr}};
   const VelArg* expected = table != nullptr ? table : noArgs;
   for (const Ptr<GenericIf const>& arg : args) {
      const VelType* const type =
         expected->name != nullptr ? typeNode(expected->typeName) : nullptr;
      if (type == nullptr || !arg || !arg->type().isA(*type)) {
         throwWrongArgs(where, table);
      }
      *out++ = const_cast<void*>(arg->object());
      ++expected;
   }
   if (expected->name != nullptr) {
      throwWrongArgs(where, table);
   }
}

std::string nameOf(const VelAttr& attr) { return std::string(attr.owner->name) + '.' + attr.name; }

} // namespace

void unwrapMutatorArgs(const VelAttr* attr, const GenericArgs* args, void** out) {
   unwrap(nameOf(*attr), attr->args, *args, out);
}
void unwrapFunctionArgs(const VelAttr* attr, const GenericArgs* args, void** out) {
   unwrap(nameOf(*attr), attr->args, *args, out);
}
void unwrapConstructorArgs(const VelType* type, const GenericArgs& args, void** out) {
   unwrap(type->name, type->ctorArgs, args, out);
}

void throwOpNotSupportedException(const AttributeOp& op) {
   static constexpr const char* kinds[] = {"reading", "writing",        "deleting",
                                           "members", "a change stamp", "asking for a key"};
   const char* const kind = op.kind < std::size(kinds)     ? kinds[op.kind]
                            : op.kind == AttributeOp::call ? "calling"
                                                           : "this";
   Vel::throwOpNotSupportedException(
      (nameOf(*op.attr) + ": " + kind + " is not supported").c_str());
}

Ptr<GenericIf> perform(std::span<const AttributeOperations> table, const Call& call,
                       bool* notHandled) {
   for (const AttributeOperations& row : table) {
      if (row.id == call.op.attr->id) {
         if (call.op.kind >= std::size(row.kinds) || row.kinds[call.op.kind] == nullptr) {
            throwOpNotSupportedException(call.op);
         }
         return row.kinds[call.op.kind](call);
      }
   }
   *notHandled = true;
   return nullptr;
}

} // namespace GenericIfImpl

} // namespace Vel
