// The type of the tracker: its attributes, what generic access does on each, and its enumeration.
// Every change goes through the virtual operations, so that a derived tracker sees it.
#include <Zor/internal/TypeTables.h>

#include <iterator>

namespace Zor {

using Sm = ChildProcessTrackerSm;
using Vel::AttributeId;

namespace {

using namespace Vel::GenericIfImpl;

[[gnu::section(".vel.type")]] constexpr char smName[] = "Zor::ChildProcessTrackerSm";
[[gnu::section(".vel.type")]] constexpr char errorName[] =
   "Zor::ChildProcessTrackerSm::terminationError";

constexpr const VelType* smType = &Sm::_velType;
constexpr const VelType* errorType = &Sm::_velType_terminationError;
constexpr const VelType* voidType = &Vel::_velType_void;
constexpr const VelType* countType = &Vel::Builtin<unsigned>::_velType;

constexpr VelArg processArgs[] = {
   {"pid", "S32"}, {"description", "Vel::String"}, {"readFromChildFd", "S32"}, {nullptr, nullptr}};
constexpr VelArg hookArgs[] = {{"child", "Zor::ChildProcess"}, {nullptr, nullptr}};
constexpr VelArg pidArgs[] = {{"pid", "S32"}, {nullptr, nullptr}};

// name, id, owner, value type, key type, key name, arguments, flags; ascending by id
constinit const VelAttr attributes[] = {
   {"process", 0x82, smType, childType, intType, "pid", processArgs, 0x39210200},
   {"forkedChildExitCallback", 0x84, smType, voidType, nullptr, nullptr, hookArgs, functionFlags},
   {"handleTerminatedChildProcess", 0x85, smType, voidType, nullptr, nullptr, pidArgs,
    functionFlags},
   {"childProcess", 0x86, smType, childType, intType, "pid", nullptr, 0x382102ff},
   {"lastFailedProcess", 0x87, smType, childType, nullptr, nullptr, nullptr, 0x382002ff},
   {"lastFailedProcessTerminationError", 0x88, smType, errorType, nullptr, nullptr, nullptr,
    plainFlags},
   {"successfulTerminationCount", 0x89, smType, countType, nullptr, nullptr, nullptr, plainFlags},
   {"errorTerminationCount", 0x8a, smType, countType, nullptr, nullptr, nullptr, plainFlags},
};

constexpr std::uintptr_t valueFlags = 0x508000ff;
constinit const VelAttr errorValues[] = {
   {"invalid", Sm::invalid, errorType, errorType, nullptr, nullptr, nullptr, valueFlags},
   {"nonZeroExitStatus", Sm::nonZeroExitStatus, errorType, errorType, nullptr, nullptr, nullptr,
    valueFlags},
   {"signaled", Sm::signaled, errorType, errorType, nullptr, nullptr, nullptr, valueFlags},
};

namespace _vel_Zor_ChildProcessTrackerSm {

constexpr AttributeId processId = 0x82;
constexpr AttributeId reactorsId = 0x86;

constexpr const Sm::ProcessMap& (Sm::*processes)() const noexcept = &Sm::process;
constexpr const Sm::ChildProcessMap& (Sm::*reactors)() const noexcept = &Sm::childProcess;

Vel::Ptr<ChildProcess const> watchedBy(const Sm::VelChildProcess* reactor) {
   return reactor != nullptr ? reactor->notifier() : nullptr;
}

constexpr AttributeOperations operations[] = {
   {processId,
    {[](const Call& call) {
        return wrapped(call, call.as<Sm>().process(call.keyAs<int>()), call.isConst);
     },
     [](const Call& call) {
        void* args[3];
        unwrapMutatorArgs(call.op.attr, call.args(), args);
        return wrapped(call,
                       call.as<Sm>().processIs(*static_cast<int*>(args[0]),
                                               *static_cast<Vel::String8*>(args[1]),
                                               *static_cast<int*>(args[2])),
                       call.isConst);
     },
     [](const Call& call) {
        return wrapped(call, call.as<Sm>().processDel(call.keyAs<int>()), call.isConst);
     },
     readMembers<processes, Sm>, readChangeStamp<processes, Sm>, readHas<processes, Sm>}},
   {0x84,
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     [](const Call& call) {
        void* args[1];
        unwrapFunctionArgs(call.op.attr, call.args(), args);
        call.as<Sm>().forkedChildExitCallback(entityAt<ChildProcess>(args[0]));
        return GenericHandle();
     }}},
   {0x85,
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     [](const Call& call) {
        void* args[1];
        unwrapFunctionArgs(call.op.attr, call.args(), args);
        call.as<Sm>().handleTerminatedChildProcess(*static_cast<int*>(args[0]));
        return GenericHandle();
     }}},
   {reactorsId,
    {[](const Call& call) {
        return wrapped(call, watchedBy(call.as<Sm>().childProcess(call.keyAs<int>())), true);
     },
     [](const Call& call) {
        call.as<Sm>().childProcessIs(entityAt<ChildProcess>(call.value));
        return GenericHandle();
     },
     [](const Call& call) {
        return wrapped(call, call.as<Sm>().childProcessDel(call.keyAs<int>()), true);
     },
     readMembers<reactors, Sm>, readChangeStamp<reactors, Sm>, readHas<reactors, Sm>}},
   {0x87,
    {[](const Call& call) { return wrapped(call, call.as<Sm>().lastFailedProcess(), true); },
     [](const Call& call) {
        call.as<Sm>().lastFailedProcessIs(entityAt<ChildProcess>(call.value));
        return GenericHandle();
     }}},
   {0x88,
    {readPlain<&Sm::lastFailedProcessTerminationError, Sm>,
     [](const Call& call) {
        call.as<Sm>().lastFailedProcessTerminationErrorIs(
           static_cast<Sm::terminationError>(call.valueAs<unsigned>()));
        return GenericHandle();
     }}},
   {0x89,
    {readPlain<&Sm::successfulTerminationCount, Sm>,
     [](const Call& call) {
        call.as<Sm>().successfulTerminationCountIs(call.valueAs<unsigned>());
        return GenericHandle();
     }}},
   {0x8a,
    {readPlain<&Sm::errorTerminationCount, Sm>,
     [](const Call& call) {
        call.as<Sm>().errorTerminationCountIs(call.valueAs<unsigned>());
        return GenericHandle();
     }}},
};

using ProcessIterator = Sm::ProcessMap::IteratorConst;
using ReactorIterator = Sm::ChildProcessMap::IteratorConst;

bool overProcesses(const AttributeIterator& at) { return at.attr()->id == processId; }

GenericHandle iterObj(AttributeIterator& at) {
   if (overProcesses(at)) {
      return wrapAttrValue(at.attr(), at.typed<ProcessIterator>().ptr(), at.isConst());
   }
   return wrapAttrValue(at.attr(), at.typed<ReactorIterator>()->notifier().get(), true);
}

GenericHandle iterKey(AttributeIterator& at) {
   const int key = overProcesses(at) ? at.typed<ProcessIterator>()->pid()
                                     : at.typed<ReactorIterator>()->fwkKey();
   return wrapAttrIndex(at.attr(), &key, at.isConst());
}

bool iterNonnull(AttributeIterator& at) {
   return overProcesses(at) ? Vel::GenericIfImpl::iterNonnull<Sm::ProcessMap>(at)
                            : Vel::GenericIfImpl::iterNonnull<Sm::ChildProcessMap>(at);
}

void iterInc(AttributeIterator& at) {
   overProcesses(at) ? Vel::GenericIfImpl::iterInc<Sm::ProcessMap>(at)
                     : Vel::GenericIfImpl::iterInc<Sm::ChildProcessMap>(at);
}

void iterDel(AttributeIterator& at) {
   overProcesses(at) ? Vel::GenericIfImpl::iterDel<Sm::ProcessMap>(at)
                     : Vel::GenericIfImpl::iterDel<Sm::ChildProcessMap>(at);
}

constexpr AttributeIteratorVTable iteratorTable = {iterObj, iterKey, iterNonnull, iterInc, iterDel};

GenericHandle genericIfAttributeOp(void* object, bool isConst, const AttributeOp& op, void* key,
                                   void* value, bool* notHandled) {
   return perform(operations, {static_cast<Vel::PtrInterface*>(object), isConst, op, key, value},
                  notHandled);
}

void* genericIfAttributeIterator(void* object, const VelAttr* attr,
                                 const AttributeIteratorVTable** table) {
   const auto& sm = static_cast<const Sm&>(*static_cast<Vel::PtrInterface*>(object));
   if (attr->id != processId && attr->id != reactorsId) {
      return nullptr;
   }
   *table = &iteratorTable;
   return attr->id == processId ? newIterator(ProcessIterator(&sm.process()))
                                : newIterator(ReactorIterator(&sm.childProcess()));
}

void* genericIfAttributeIteratorKey(void* object, const VelAttr* attr, void* key,
                                    const AttributeIteratorVTable** table) {
   const auto& sm = static_cast<const Sm&>(*static_cast<Vel::PtrInterface*>(object));
   if (attr->id != processId && attr->id != reactorsId) {
      return nullptr;
   }
   *table = &iteratorTable;
   const int from = *static_cast<const int*>(key);
   return attr->id == processId ? newIteratorAtKey(sm.process(), from)
                                : newIteratorAtKey(sm.childProcess(), from);
}

GenericHandle genericIfFromCtorArgs(const VelType* type, const GenericArgs& args, bool isConst) {
   unwrapConstructorArgs(type, args, nullptr); // there are none
   return EntityType::GenericIf_Is(childProcessTrackerSmFactory(), isConst);
}

} // namespace _vel_Zor_ChildProcessTrackerSm

} // namespace

constinit const VelType Sm::_velType = {
   .name = smName,
   .size = sizeof(Sm),
   .attrs = attributes,
   .attrCount = std::size(attributes),
   .flags = 0x0004ffff,
   .wrap = EntityType::FromPtrInterface,
   .fromCtorArgs = _vel_Zor_ChildProcessTrackerSm::genericIfFromCtorArgs,
   .fromStrRep = EntityType::FromStrRep,
   .attributeOp = _vel_Zor_ChildProcessTrackerSm::genericIfAttributeOp,
   .attributeIterator = _vel_Zor_ChildProcessTrackerSm::genericIfAttributeIterator,
   .attributeIteratorKey = _vel_Zor_ChildProcessTrackerSm::genericIfAttributeIteratorKey,
};

constinit const VelType Sm::_velType_terminationError = {
   .name = errorName,
   .size = sizeof(Sm::terminationError),
   .attrs = errorValues,
   .attrCount = std::size(errorValues),
   .flags = 0x0011ffff,
   .wrap = GenericIfEnum<unsigned>::FromVoidPointer,
   .fromStrRep = GenericIfEnum<unsigned>::FromStrRep,
};

const VelType* Sm::fwkType() const { return &_velType; }

} // namespace Zor
