// The type of the child record: its attributes, what generic access does on each, and its bridge to
// generic notifiees.
#include <Zor/internal/TypeTables.h>

#include <iterator>
#include <new>

namespace Zor {

namespace {

using namespace Vel::GenericIfImpl;

[[gnu::section(".vel.type")]] constexpr char childName[] = "Zor::ChildProcess";

constexpr const VelType* textType = &Vel::Builtin<Vel::String8>::_velType;
constexpr const VelType* voidType = &Vel::_velType_void;
constexpr const VelType* siginfoType = &Vel::ChildSiginfo::_velType;

constexpr VelArg childArgs[] = {
   {"pid", "S32"}, {"description", "Vel::String"}, {"readFromChildFd", "S32"}, {nullptr, nullptr}};
constexpr VelArg siginfoArgs[] = {{"name", "Vel::Name"}, {"pid", "int"}, {nullptr, nullptr}};
constexpr VelArg initializedArgs[] = {{"readFromChildFd", "S32"}, {nullptr, nullptr}};

constexpr Vel::AttributeId siginfoId = 0x85;

// name, id, owner, value type, key type, key name, arguments, flags; ascending by id
constinit const VelAttr attributes[] = {
   {"pid", 0x82, childType, intType, nullptr, nullptr, nullptr, readOnlyFlags},
   {"description", 0x83, childType, textType, nullptr, nullptr, nullptr, readOnlyFlags},
   {"siginfo", siginfoId, childType, siginfoType, nullptr, nullptr, siginfoArgs, 0xb92002ff},
   {"handleInitialized", 0x86, childType, voidType, nullptr, nullptr, initializedArgs,
    functionFlags},
};

namespace _vel_Zor_ChildProcess {

constexpr AttributeOperations operations[] = {
   {0x82, {readPlain<&ChildProcess::pid, ChildProcess>}},
   {0x83, {readPlain<&ChildProcess::description, ChildProcess>}},
   {siginfoId,
    {[](const Call& call) {
        return wrapped(call, call.as<ChildProcess>().siginfo(), call.isConst);
     },
     [](const Call& call) {
        void* args[2];
        unwrapMutatorArgs(call.op.attr, call.args(), args);
        return wrapped(call,
                       call.as<ChildProcess>().siginfoIs(*static_cast<Vel::Name*>(args[0]),
                                                         *static_cast<int*>(args[1])),
                       call.isConst);
     },
     [](const Call& call) {
        return wrapped(call, call.as<ChildProcess>().siginfoDel(), call.isConst);
     }}},
   {0x86,
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     [](const Call& call) {
        void* args[1];
        unwrapFunctionArgs(call.op.attr, call.args(), args);
        call.as<ChildProcess>().handleInitialized(*static_cast<int*>(args[0]));
        return GenericHandle();
     }}},
};

GenericHandle genericIfAttributeOp(void* object, bool isConst, const AttributeOp& op, void* key,
                                   void* value, bool* notHandled) {
   return perform(operations, {static_cast<Vel::PtrInterface*>(object), isConst, op, key, value},
                  notHandled);
}

// Hears the typed notification and tells a generic notifiee, if it has one.
class GenericIfNotifiee_ final : public ChildProcess::NotifieeConst,
                                 public Vel::GenericIf::Notifier {
 public:
   explicit GenericIfNotifiee_(Vel::GenericIf::NotifieeConst* generic)
      : Vel::GenericNotifier(generic) {
      notifieeFlagsIs(reactorFlag);
   }
   ~GenericIfNotifiee_() override = default;

   void onSiginfo() override {
      if (genericNotifiee() != nullptr) {
         genericNotifiee()->onRawAttribute(siginfoId);
      }
   }

   // As newEntity, but without a tally of its own: tracked as the notifiee it is, in memory from
   // the global new.
   static Vel::Ptr<GenericIfNotifiee_>
   GenericIfNotifiee_Is(Vel::GenericIf::NotifieeConst* generic) {
      using Tracked = Vel::PtrInterface::NotifieeConst;
      Vel::AllocTrackTypeInfo::trackAllocation(&Tracked::velAllocTrackTypeInfo_, typeid(Tracked),
                                               sizeof(Tracked));
      GenericIfNotifiee_* made = nullptr;
      try {
         made = ::new GenericIfNotifiee_(generic);
      } catch (...) {
         Vel::AllocTrackTypeInfo::trackDeallocation(Tracked::velAllocTrackTypeInfo_);
         throw;
      }
      Vel::Ptr<GenericIfNotifiee_> handle(made);
      made->referencesDec();
      return handle;
   }
};

Vel::Ptr<Vel::PtrInterface::NotifieeConst>
genericIfNotifiee(Vel::GenericIf::NotifieeConst* notifiee) {
   return GenericIfNotifiee_::GenericIfNotifiee_Is(notifiee);
}

} // namespace _vel_Zor_ChildProcess

} // namespace

constinit const VelType ChildProcess::_velType = {
   .name = childName,
   .size = sizeof(ChildProcess),
   .parent = &Vel::PtrInterface::_velType,
   .attrs = attributes,
   .attrCount = std::size(attributes),
   .ctorArgs = childArgs,
   .flags = 0x0000ffff,
   .wrap = EntityType::FromPtrInterface,
   .fromStrRep = EntityType::FromStrRep,
   .attributeOp = _vel_Zor_ChildProcess::genericIfAttributeOp,
   .genericNotifiee = _vel_Zor_ChildProcess::genericIfNotifiee,
};

const VelType* ChildProcess::fwkType() const { return &_velType; }

} // namespace Zor
