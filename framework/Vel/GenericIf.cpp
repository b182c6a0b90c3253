// The front of generic access: from what a caller has to what a type takes, and back.
#include <Vel/GenericIf.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>

namespace Vel {

namespace {

using Native = std::variant<bool, int, unsigned, unsigned char, String8, Name>;

void* address(Native& native) {
   return std::visit([](auto& value) -> void* { return &value; }, native);
}

std::string shown(const GenericValue& value) {
   return std::visit(
      [](const auto& given) -> std::string {
         using T = std::decay_t<decltype(given)>;
         if constexpr (std::is_same_v<T, std::nullptr_t>) {
            return "nothing";
         } else if constexpr (std::is_same_v<T, bool>) {
            return given ? "true" : "false";
         } else if constexpr (std::is_integral_v<T>) {
            return std::to_string(given);
         } else if constexpr (std::is_same_v<T, std::string_view>) {
            return valueToStrep(String8(given)).charPtr();
         } else if constexpr (std::is_same_v<T, Text>) {
            return valueToStrep(String8(given.representation)).charPtr();
         } else {
            const auto handle = Ptr<GenericIf const>::narrow(given);
            return std::string("a ") + (handle ? handle->type().name : given->fwkType()->name);
         }
      },
      value.any());
}

// Where a value goes, for saying what was expected there.
struct Target {
   std::string_view owner;
   std::string_view attribute;
   std::string_view argument; // empty for the attribute's value itself

   [[noreturn]] void refuse(const VelType& expected, const GenericValue& given) const {
      fail("expected " + std::string(argument) + (argument.empty() ? "" : " ") + expected.name +
           ", got " + shown(given));
   }
   [[noreturn]] void fail(const std::string& what) const {
      const std::string place = std::string(owner) + (attribute.empty() ? "" : ".");
      throwRangeException((place + std::string(attribute) + ": " + what).c_str());
   }
};

Target targetOf(const VelAttr& attr) { return {attr.owner->name, attr.name, {}}; }

// ---- plain values ----

bool isEnumeration(const VelType& type) { return (type.flags & VelType::enumerationFlag) != 0; }
bool isText(const VelType& type) {
   return &type == &Builtin<String8>::_velType || &type == &Builtin<Name>::_velType;
}

Native textAs(const VelType& type, std::string_view text) {
   return &type == &Builtin<Name>::_velType ? Native(Name(text)) : Native(String8(text));
}

template <class T, class Wide> std::optional<Native> narrowed(Wide value) {
   return std::in_range<T>(value) ? std::optional<Native>(static_cast<T>(value)) : std::nullopt;
}

template <class Wide> std::optional<Native> numberAs(const VelType& type, Wide value) {
   if (&type == &Builtin<int>::_velType) {
      return narrowed<int>(value);
   }
   if (&type == &Builtin<unsigned>::_velType || isEnumeration(type)) {
      return narrowed<unsigned>(value);
   }
   if (&type == &Builtin<unsigned char>::_velType) {
      return narrowed<unsigned char>(value);
   }
   return std::nullopt;
}

Native contentOf(const GenericIf& handle) {
   const VelType& type = handle.type();
   if (&type == &Builtin<bool>::_velType) {
      return handle.boolValue();
   }
   if (&type == &Builtin<int>::_velType) {
      return handle.intValue();
   }
   if (&type == &Builtin<unsigned char>::_velType) {
      return handle.byteValue();
   }
   return isText(type) ? textAs(type, handle.stringValue()) : Native(handle.unsignedValue());
}

Native textParsed(const VelType& type, const Target& target, std::string_view text,
                  const GenericValue& given) {
   try {
      return contentOf(*GenericIf::parse(type, text));
   } catch (const RangeException&) {
      target.refuse(type, given);
   }
}

std::optional<Native> handleAs(const VelType& type, const GenericValue::Object& object) {
   const auto handle = Ptr<GenericIf const>::narrow(object);
   if (handle && isText(type) && isText(handle->type())) {
      return textAs(type, handle->stringValue());
   }
   return handle && &handle->type() == &type && !handle->entity()
             ? std::optional<Native>(contentOf(*handle))
             : std::nullopt;
}

Native nativeOf(const VelType& type, const Target& target, const GenericValue& given) {
   const std::optional<Native> native = std::visit(
      [&](const auto& value) -> std::optional<Native> {
         using T = std::decay_t<decltype(value)>;
         if constexpr (std::is_same_v<T, std::nullptr_t>) {
            return std::nullopt;
         } else if constexpr (std::is_same_v<T, bool>) {
            return &type == &Builtin<bool>::_velType ? std::optional<Native>(value) : std::nullopt;
         } else if constexpr (std::is_integral_v<T>) {
            return numberAs(type, value);
         } else if constexpr (std::is_same_v<T, std::string_view>) {
            return isText(type) ? textAs(type, value) : textParsed(type, target, value, given);
         } else if constexpr (std::is_same_v<T, Text>) {
            return textParsed(type, target, value.representation, given);
         } else {
            return handleAs(type, value);
         }
      },
      given.any());
   if (!native) {
      target.refuse(type, given);
   }
   return *native;
}

// ---- entities ----

bool isEntityType(const VelType& type) {
   return type.wrap == GenericIfImpl::GenericIfPtrInterface<PtrInterface>::FromPtrInterface;
}

// The entity that was given, itself or by a handle; empty for nothing.
Ptr<PtrInterface const> entityOf(const VelType& type, const Target& target,
                                 const GenericValue& given) {
   if (std::holds_alternative<std::nullptr_t>(given.any())) {
      return nullptr;
   }
   const auto* const object = std::get_if<GenericValue::Object>(&given.any());
   const auto handle = object != nullptr ? Ptr<GenericIf const>::narrow(*object) : nullptr;
   Ptr<PtrInterface const> entity = handle              ? handle->entity()
                                    : object != nullptr ? *object
                                                        : nullptr;
   if (!entity || !entity->fwkType()->isA(type)) {
      target.refuse(type, given);
   }
   return entity;
}

// ---- arguments ----

std::string counted(std::size_t count, const char* what) {
   return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

void requireCount(const Target& target, std::size_t expected, std::size_t given) {
   if (expected != given) {
      target.fail("expected " + counted(expected, "value") + ", got " + std::to_string(given));
   }
}

GenericArgs argsOf(const Target& target, const VelArg* table,
                   std::initializer_list<GenericValue> given) {
   const VelArg* expected = table;
   while (expected != nullptr && expected->name != nullptr) {
      ++expected;
   }
   if (static_cast<std::size_t>(expected - table) != given.size()) {
      target.fail("expected " + GenericIfImpl::shownArgs(table) + ", got " +
                  counted(given.size(), "value"));
   }
   GenericArgs args;
   for (const VelArg* arg = table; arg != expected; ++arg) {
      const GenericValue& value = given.begin()[arg - table];
      const Target argument{target.owner, target.attribute, arg->name};
      const VelType* const type = typeNode(arg->typeName);
      if (type == nullptr) {
         argument.fail(std::string("no type ") + arg->typeName);
      }
      if (isEntityType(*type)) {
         const Ptr<PtrInterface const> entity = entityOf(*type, argument, value);
         if (!entity) {
            argument.refuse(*type, value);
         }
         args.push_back(type->genericIf(entity.get(), true));
      } else {
         Native native = nativeOf(*type, argument, value);
         args.push_back(type->genericIf(address(native), true));
      }
   }
   return args;
}

const VelType* knownType(std::string_view name) {
   const VelType* const type = typeNode(name);
   if (type == nullptr) {
      throwRangeException(("no type " + std::string(name)).c_str());
   }
   return type;
}

} // namespace

// ---- making handles ----

Ptr<GenericIf> GenericIf::of(const PtrInterface* entity, bool isConst) {
   return GenericIfImpl::wrapAttrValue(nullptr, entity, isConst);
}

Ptr<GenericIf> GenericIf::createFrom(std::string_view name, std::initializer_list<GenericValue> v) {
   const VelType* const type = knownType(name);
   if (type->fromCtorArgs == nullptr) {
      throwOpNotSupportedException((std::string(type->name) + ": can't be created").c_str());
   }
   return type->fromCtorArgs(type, argsOf({type->name, {}, {}}, type->ctorArgs, v), false);
}

Ptr<GenericIf> GenericIf::parse(const VelType& type, std::string_view representation) {
   String8::IteratorConst it = representation.data();
   const String8::IteratorConst end = it + representation.size();
   Ptr<GenericIf> value = type.fromStrRep != nullptr ? type.fromStrRep(&type, it, end) : nullptr;
   if (!value || it != end) {
      throwRangeException((std::string("not a text for ") + type.name).c_str());
   }
   return value;
}

// ---- reading values ----

namespace {

template <class T> const T& valueAs(const GenericIf& handle, bool matches) {
   if (!matches) {
      const std::string message =
         std::string("expected ") + Builtin<T>::_velType.name + ", got " + handle.type().name;
      throwRangeException(message.c_str());
   }
   return *static_cast<const T*>(handle.object());
}

template <class T> const T& valueAs(const GenericIf& handle) {
   return valueAs<T>(handle, &handle.type() == &Builtin<T>::_velType);
}

} // namespace

bool GenericIf::boolValue() const { return valueAs<bool>(*this); }
int GenericIf::intValue() const { return valueAs<int>(*this); }
unsigned char GenericIf::byteValue() const { return valueAs<unsigned char>(*this); }
unsigned GenericIf::unsignedValue() const {
   return valueAs<unsigned>(*this,
                            &type() == &Builtin<unsigned>::_velType || isEnumeration(type()));
}
String8 GenericIf::stringValue() const { return valueAs<String8>(*this, isText(type())); }

// ---- operations ----

const VelAttr* GenericIf::attr(std::string_view name) const {
   for (const VelType* at = &type(); at != nullptr && !isEnumeration(*at); at = at->parent) {
      const VelAttr* const end = at->attrs + at->attrCount;
      const VelAttr* const found =
         std::find_if(at->attrs, end, [name](const VelAttr& attr) { return attr.name == name; });
      if (found != end) {
         return found;
      }
   }
   throwRangeException(
      (std::string(type().name) + ": no attribute " + valueToStrep(String8(name)).charPtr())
         .c_str());
}

Ptr<GenericIf> GenericIf::attributeOp(const AttributeOp& op, void* key, void* value) const {
   const VelType& own = type();
   const Ptr<PtrInterface const> held = entity(); // what is done may drop every other handle on it
   if (held && own.isA(*op.attr->owner)) {
      const bool changes = op.kind == AttributeOp::write || op.kind == AttributeOp::del ||
                           op.kind == AttributeOp::call;
      if (isConst_ && changes) {
         throwOpNotSupportedException(
            (std::string(op.attr->owner->name) + '.' + op.attr->name + ": the handle is const")
               .c_str());
      }
      for (const VelType* at = &own; at != nullptr; at = at->parent) {
         bool notHandled = at->attributeOp == nullptr;
         if (!notHandled) {
            Ptr<GenericIf> result = at->attributeOp(const_cast<PtrInterface*>(held.get()), isConst_,
                                                    op, key, value, &notHandled);
            if (!notHandled) {
               return result;
            }
         }
      }
   }
   targetOf(*op.attr).fail(std::string("not an attribute of ") + own.name);
}

Ptr<GenericIf> GenericIf::at(const VelAttr* attr, unsigned kind,
                             std::span<const GenericValue> key) const {
   const bool collection = attr->is(VelAttr::collectionFlag);
   if (attr->is(VelAttr::functionFlag) || (kind == AttributeOp::has && !collection)) {
      GenericIfImpl::throwOpNotSupportedException({attr, kind});
   }
   const bool keyed =
      collection && kind != AttributeOp::members && kind != AttributeOp::changeStamp;
   if (keyed != !key.empty()) {
      targetOf(*attr).fail(keyed ? "expected a key" : "expected no key");
   }
   if (!keyed) {
      return attributeOp({attr, kind}, nullptr, nullptr);
   }
   const Target target{attr->owner->name, attr->name, "key"};
   Native native = nativeOf(*attr->keyType, target, key.front());
   return attributeOp({attr, kind}, address(native), nullptr);
}

Ptr<GenericIf> GenericIf::writeFrom(const VelAttr* attr,
                                    std::initializer_list<GenericValue> v) const {
   const AttributeOp op{attr, AttributeOp::write};
   const Target target = targetOf(*attr);
   if (attr->is(VelAttr::readOnlyFlag) || attr->is(VelAttr::functionFlag)) {
      GenericIfImpl::throwOpNotSupportedException(op);
   }
   if (attr->is(VelAttr::instantiatingFlag)) {
      GenericArgs args = argsOf(target, attr->args, v);
      return attributeOp(op, nullptr, &args);
   }
   if (attr->is(VelAttr::entityFlag)) {
      requireCount(target, 1, v.size());
      const Ptr<PtrInterface const> entity = entityOf(*attr->valueType, target, *v.begin());
      return attributeOp(op, nullptr, const_cast<PtrInterface*>(entity.get()));
   }
   const bool keyed = attr->is(VelAttr::collectionFlag);
   requireCount(target, keyed ? 2 : 1, v.size());
   Native value = nativeOf(*attr->valueType, target, v.begin()[keyed ? 1 : 0]);
   if (!keyed) {
      return attributeOp(op, nullptr, address(value));
   }
   Native key = nativeOf(*attr->keyType, {target.owner, target.attribute, "key"}, *v.begin());
   return attributeOp(op, address(key), address(value));
}

void GenericIf::callFrom(const VelAttr* attr, std::initializer_list<GenericValue> v) const {
   const AttributeOp op{attr, AttributeOp::call};
   if (!attr->is(VelAttr::functionFlag)) {
      GenericIfImpl::throwOpNotSupportedException(op);
   }
   GenericArgs args = argsOf(targetOf(*attr), attr->args, v);
   attributeOp(op, nullptr, &args);
}

// ---- iterating ----

AttributeIterator::AttributeIterator(AttributeIterator&& other) noexcept
   : owner_(std::move(other.owner_)), table_(other.table_), attr_(other.attr_),
     iterator_(std::exchange(other.iterator_, nullptr)), isConst_(other.isConst_) {}

AttributeIterator& AttributeIterator::operator=(AttributeIterator&& other) noexcept {
   std::swap(owner_, other.owner_);
   std::swap(table_, other.table_);
   std::swap(attr_, other.attr_);
   std::swap(iterator_, other.iterator_);
   std::swap(isConst_, other.isConst_);
   return *this;
}

AttributeIterator::~AttributeIterator() {
   if (iterator_ != nullptr) {
      table_->iterDel(*this);
   }
}

Ptr<GenericIf> AttributeIterator::key() { return table_->iterKey(*this); }
Ptr<GenericIf> AttributeIterator::value() { return table_->iterObj(*this); }
bool AttributeIterator::atEnd() { return iterator_ == nullptr || !table_->iterNonnull(*this); }
void AttributeIterator::advance() { table_->iterInc(*this); }

GenericIf::Elements GenericIf::elements(const VelAttr* attr, const GenericValue* key) const {
   const VelType& owner = *attr->owner;
   if (!type().isA(owner)) {
      targetOf(*attr).fail(std::string("not an attribute of ") + type().name);
   }
   if (!attr->is(VelAttr::collectionFlag) || owner.attributeIterator == nullptr) {
      throwOpNotSupportedException(
         (std::string(owner.name) + '.' + attr->name + ": not a collection").c_str());
   }
   AttributeIterator at;
   at.owner_ = entity();
   at.attr_ = attr;
   at.isConst_ = isConst_;
   void* const object = const_cast<PtrInterface*>(at.owner_.get());
   if (key != nullptr) {
      Native native = nativeOf(*attr->keyType, {owner.name, attr->name, "key"}, *key);
      at.iterator_ = owner.attributeIteratorKey(object, attr, address(native), &at.table_);
   } else {
      at.iterator_ = owner.attributeIterator(object, attr, &at.table_);
   }
   return Elements(std::move(at));
}

GenericIf::Elements GenericIf::iterate(const VelAttr* attr) const {
   return elements(attr, nullptr);
}
GenericIf::Elements GenericIf::iterate(const VelAttr* attr, const GenericValue& key) const {
   return elements(attr, &key);
}

// ---- watching ----

AllocTrackTypeInfo* GenericIf::Watch::velAllocTrackTypeInfo_ = nullptr;

GenericIf::Watch::Watch(const VelAttr* attr, std::function<void()> changed)
   : attr_(attr), changed_(std::move(changed)) {}

GenericIf::Watch::~Watch() = default;

void GenericIf::Watch::onRawAttribute(AttributeId id) {
   if (id == attr_->id) {
      const Ptr<Watch> self(this); // the function may drop the watch
      changed_();
   }
}

Ptr<GenericIf::Watch> GenericIf::watch(const VelAttr* attr, std::function<void()> changed) const {
   const VelType& owner = *attr->owner;
   if (!type().isA(owner)) {
      targetOf(*attr).fail(std::string("not an attribute of ") + type().name);
   }
   if (owner.genericNotifiee == nullptr || !attr->is(VelAttr::notifyingFlag)) {
      throwOpNotSupportedException(
         (std::string(owner.name) + '.' + attr->name + ": changes are not announced").c_str());
   }
   Ptr<Watch> watch = newEntity<Watch>(attr, std::move(changed));
   watch->bridge_ = owner.genericNotifiee(watch.get());
   watch->bridge_->weakNotifierIs(true);
   watch->bridge_->notifierIs(entity());
   watch->bridge_->isRegisteredNotifieeIs(true);
   return watch;
}

Ptr<GenericIf::Watch> GenericIf::watch(std::string_view name, std::function<void()> changed) const {
   return watch(attr(name), std::move(changed));
}

} // namespace Vel
