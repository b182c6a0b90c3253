#include "EntityJson.h"

#include <map>
#include <string>

namespace {

using Handle = Vel::Ptr<Vel::GenericIf>;
using Json = nlohmann::ordered_json;
using Vel::GenericIf;
using Vel::VelAttr;
using Vel::VelType;

Json textJson(const GenericIf& value) {
   Json text = std::string(value.stringValue());
   try {
      static_cast<void>(text.dump());
   } catch (const Json::type_error&) {
      return std::string(value.strRep());
   }
   return text;
}

Json plainJson(const GenericIf& value) {
   const VelType& type = value.type();
   if (&type == &Vel::Builtin<bool>::_velType) {
      return value.boolValue();
   }
   if (&type == &Vel::Builtin<int>::_velType) {
      return value.intValue();
   }
   if (&type == &Vel::Builtin<unsigned>::_velType) {
      return value.unsignedValue();
   }
   if (&type == &Vel::Builtin<unsigned char>::_velType) {
      return value.byteValue();
   }
   const bool isText =
      &type == &Vel::Builtin<Vel::String8>::_velType || &type == &Vel::Builtin<Vel::Name>::_velType;
   return isText ? textJson(value) : Json(std::string(value.strRep()));
}

// One walk. Remembers by their numbers the entities that it has come to, and holds them, so that
// none of them can make room for another at its address.
class Walk {
 public:
   Json json(const GenericIf* value) {
      if (value == nullptr) {
         return nullptr;
      }
      const Vel::Ptr<Vel::PtrInterface const> entity = value->entity();
      if (!entity) {
         return plainJson(*value);
      }
      const auto [known, isNew] = seen_.try_emplace(entity.get(), entity, seen_.size() + 1);
      const std::size_t number = known->second.second;
      return isNew ? attributes(*value, number) : Json{{"$ref", number}};
   }

 private:
   // No attribute's name begins with the sign of the two that are added here.
   Json attributes(const GenericIf& entity, std::size_t number) {
      Json object = {{"$id", number}, {"$type", entity.type().name}};
      for (const VelType* type = &entity.type(); type != nullptr; type = type->parent) {
         for (const VelAttr* attr = type->attrs; attr != type->attrs + type->attrCount; ++attr) {
            if (attr->is(VelAttr::collectionFlag)) {
               object[attr->name] = collection(entity, attr);
            } else if (!attr->is(VelAttr::functionFlag)) {
               object[attr->name] = json(entity.read(attr).get());
            }
         }
      }
      return object;
   }

   Json collection(const GenericIf& entity, const VelAttr* attr) {
      Json elements = Json::object();
      for (const auto& [key, value] : entity.iterate(attr)) {
         const Json name = plainJson(*key);
         elements[name.is_string() ? name.get<std::string>() : name.dump()] = json(value.get());
      }
      return elements;
   }

   using Seen = std::pair<Vel::Ptr<Vel::PtrInterface const>, std::size_t>;
   std::map<const Vel::PtrInterface*, Seen> seen_;
};

} // namespace

Json entityJson(const GenericIf& handle) { return Walk().json(&handle); }
