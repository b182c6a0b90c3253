// The type of the close-descriptors context: its one attribute and what generic access does on it.
#include <Zor/internal/TypeTables.h>

#include <iterator>

namespace Zor {

using Context = ChildProcessTrackerCloseFdsContext;

namespace {

using namespace Vel::GenericIfImpl;

[[gnu::section(".vel.type")]] constexpr char contextName[] =
   "Zor::ChildProcessTrackerCloseFdsContext";

constexpr Vel::AttributeId skipFdId = 0x82;

constinit const VelAttr attributes[] = {
   {"skipFd", skipFdId, &Context::_velType, boolType, intType, nullptr, nullptr, 0x380102ff},
};

namespace _vel_Zor_ChildProcessTrackerCloseFdsContext {

constexpr const Context::SkipFdMap& (Context::*entries)() const noexcept = &Context::skipFd;
using Iterator = Context::SkipFdMap::IteratorConst;

GenericHandle flag(const Call& call, bool value) {
   return wrapAttrValue(call.op.attr, static_cast<const void*>(&value), call.isConst);
}

constexpr AttributeOperations operations[] = {
   {skipFdId,
    {[](const Call& call) { return flag(call, call.as<Context>().skipFd(call.keyAs<int>())); },
     [](const Call& call) {
        call.as<Context>().skipFdIs(call.keyAs<int>(), call.valueAs<bool>());
        return GenericHandle();
     },
     [](const Call& call) { return flag(call, call.as<Context>().skipFdDel(call.keyAs<int>())); },
     readMembers<entries, Context>, readChangeStamp<entries, Context>, readHas<entries, Context>}},
};

GenericHandle iterObj(AttributeIterator& at) {
   const bool keep = at.typed<Iterator>()->value();
   return wrapAttrValue(at.attr(), static_cast<const void*>(&keep), at.isConst());
}

GenericHandle iterKey(AttributeIterator& at) {
   const int key = at.typed<Iterator>()->fwkKey();
   return wrapAttrIndex(at.attr(), &key, at.isConst());
}

constexpr AttributeIteratorVTable iteratorTable = {
   iterObj, iterKey, iterNonnull<Context::SkipFdMap>, iterInc<Context::SkipFdMap>,
   iterDel<Context::SkipFdMap>};

GenericHandle genericIfAttributeOp(void* object, bool isConst, const AttributeOp& op, void* key,
                                   void* value, bool* notHandled) {
   return perform(operations, {static_cast<Vel::PtrInterface*>(object), isConst, op, key, value},
                  notHandled);
}

const Context::SkipFdMap& mapOf(void* object) {
   return static_cast<const Context&>(*static_cast<Vel::PtrInterface*>(object)).skipFd();
}

void* genericIfAttributeIterator(void* object, const VelAttr* attr,
                                 const AttributeIteratorVTable** table) {
   if (attr->id != skipFdId) {
      return nullptr;
   }
   *table = &iteratorTable;
   return newIterator(Iterator(&mapOf(object)));
}

void* genericIfAttributeIteratorKey(void* object, const VelAttr* attr, void* key,
                                    const AttributeIteratorVTable** table) {
   if (attr->id != skipFdId) {
      return nullptr;
   }
   *table = &iteratorTable;
   return newIteratorAtKey(mapOf(object), *static_cast<const int*>(key));
}

} // namespace _vel_Zor_ChildProcessTrackerCloseFdsContext

} // namespace

constinit const VelType Context::_velType = {
   .name = contextName,
   .size = sizeof(Context),
   .parent = &Vel::PtrInterface::_velType,
   .attrs = attributes,
   .attrCount = std::size(attributes),
   .flags = 0x0000ffff,
   .wrap = EntityType::FromPtrInterface,
   .fromStrRep = EntityType::FromStrRep,
   .attributeOp = _vel_Zor_ChildProcessTrackerCloseFdsContext::genericIfAttributeOp,
   .attributeIterator = _vel_Zor_ChildProcessTrackerCloseFdsContext::genericIfAttributeIterator,
   .attributeIteratorKey =
      _vel_Zor_ChildProcessTrackerCloseFdsContext::genericIfAttributeIteratorKey,
};

const VelType* Context::fwkType() const { return &_velType; }

} // namespace Zor
