// The type descriptors, and what the operations behind them do: every kind on every attribute.
#include "GenericFixture.h"

#include <algorithm>
#include <array>
#include <dlfcn.h>
#include <string>
#include <vector>

namespace {

constinit std::array<const VelType*, 64> registered{};
constinit std::size_t registeredCount = 0;

} // namespace

// Comes before the library's own, to see in which order the types arrive there.
[[gnu::visibility("default")]] void Vel::typeNodeIs(const VelType* type) {
   registered.at(registeredCount++) = type;
   static void* const own = ::dlsym(RTLD_NEXT, "_ZN3Vel10typeNodeIsEPKNS_7VelTypeE");
   reinterpret_cast<void (*)(const VelType*)>(own)(type);
}

namespace {

std::string shown(const char* text) { return text != nullptr ? text : "-"; }
// The name of a type, provided that the registry leads to that very descriptor.
std::string shown(const VelType* type) {
   return type == nullptr || Vel::typeNode(type->name) == type
             ? shown(type != nullptr ? type->name : nullptr)
             : "not registered";
}
std::string shown(const Vel::VelArg* arg) {
   std::string args = arg != nullptr ? "(" : "-";
   for (; arg != nullptr && arg->name != nullptr; ++arg) {
      args += shown(arg->name) + ' ' + arg->typeName + ' ';
   }
   return args.starts_with('(') ? args + ')' : args;
}

using Entities = Vel::GenericIfImpl::GenericIfPtrInterface<Vel::PtrInterface>;
using Enumerations = Vel::GenericIfImpl::GenericIfEnum<unsigned>;

// The seven operations: e and n for the framework's of entities and enumerations, + for the type's.
std::string functionsOf(const VelType& type) {
   const auto letter = [](auto* function, auto* entities, auto* enumerations) {
      return function == entities ? 'e' : function == enumerations ? 'n' : '+';
   };
   const auto own = [](auto* function) { return function != nullptr ? '+' : '-'; };
   return {letter(type.wrap, Entities::FromPtrInterface, Enumerations::FromVoidPointer),
           own(type.fromCtorArgs),
           letter(type.fromStrRep, Entities::FromStrRep, Enumerations::FromStrRep),
           own(type.attributeOp),
           own(type.attributeIterator),
           own(type.attributeIteratorKey),
           own(type.genericNotifiee)};
}

std::string linesOf(const VelType& type) {
   const auto& r = type.reserved;
   std::string lines = shown(type.name) + ' ' + shown(type.parent) + ' ' + shown(type.ctorArgs) +
                       Vel::format(" %lx %lx ", type.flags, r[0] | r[1] | r[2]).charPtr() +
                       functionsOf(type) + '\n';
   for (const VelAttr* attr = type.attrs; attr != type.attrs + type.attrCount; ++attr) {
      lines += "  " + shown(attr->name) + Vel::format(" %lx ", attr->id).charPtr() +
               (attr->owner == &type ? "" : "not ours ") + shown(attr->valueType) + ' ' +
               shown(attr->keyType) + ' ' + shown(attr->keyName) + ' ' + shown(attr->args) +
               Vel::format(" %lx\n", attr->flags).charPtr();
   }
   return lines;
}

constexpr const char* expectedLines =
   R"(Zor::ChildProcess Vel::PtrInterface (pid S32 description Vel::String readFromChildFd S32 ) ffff 0 e-e+--+
  pid 82 int - - - 580002ff
  description 83 Vel::String - - - 580002ff
  siginfo 85 Vel::ChildSiginfo - - (name Vel::Name pid int ) b92002ff
  handleInitialized 86 void - - (readFromChildFd S32 ) 101000ff
Zor::ChildProcessTrackerCloseFdsContext Vel::PtrInterface - ffff 0 e-e+++-
  skipFd 82 bool int - - 380102ff
Zor::ChildProcessTrackerSm - - 4ffff 0 e+e+++-
  process 82 Zor::ChildProcess int pid (pid S32 description Vel::String readFromChildFd S32 ) 39210200
  forkedChildExitCallback 84 void - - (child Zor::ChildProcess ) 101000ff
  handleTerminatedChildProcess 85 void - - (pid S32 ) 101000ff
  childProcess 86 Zor::ChildProcess int pid - 382102ff
  lastFailedProcess 87 Zor::ChildProcess - - - 382002ff
  lastFailedProcessTerminationError 88 Zor::ChildProcessTrackerSm::terminationError - - - 380002ff
  successfulTerminationCount 89 unsigned int - - - 380002ff
  errorTerminationCount 8a unsigned int - - - 380002ff
Zor::ChildProcessTrackerSm::terminationError - - 11ffff 0 n-n----
  invalid 0 Zor::ChildProcessTrackerSm::terminationError - - - 508000ff
  nonZeroExitStatus 1 Zor::ChildProcessTrackerSm::terminationError - - - 508000ff
  signaled 2 Zor::ChildProcessTrackerSm::terminationError - - - 508000ff
)";

TEST(GenericDescriptors, SayThisAndArriveInThisOrder) {
   std::string lines;
   for (const VelType* type : registered) {
      if (type != nullptr && std::string_view(type->name).starts_with("Zor::")) {
         lines += linesOf(*type);
      }
   }
   EXPECT_EQ(lines, expectedLines);
   EXPECT_EQ(smType->size, sizeof(Sm));
   EXPECT_EQ(childType->size, sizeof(Zor::ChildProcess));
   EXPECT_EQ(contextType->size, sizeof(Context));
   EXPECT_EQ(Sm::_velType_terminationError.size, 4U);
}

// ---- operations ----

// Every change of the world as text.
class GenericOperations : public GenericAccess {
 protected:
   enum Given { nothing, process, hook, ended, entity, number, flag, siginfo, pipe };

   // What a raw operation takes, with the world made ready for it.
   void* given(Given what) {
      if (what == ended) {
         tracker->childProcessDel(41); // so that the end is first heard of by the call
         endIs(*child, Siginfo::killed, 9);
      } else if (what == pipe) {
         child->siginfoDel();
      }
      calls.clear();
      before = lines();
      const int fd = what == process || what == pipe ? readEnd() : -1;
      args = what == process   ? GenericArgs{plain(42), plain(Vel::String8("new")), plain(fd)}
             : what == hook    ? GenericArgs{childIf}
             : what == siginfo ? GenericArgs{plain(Vel::Name("end")), plain(41)}
                               : GenericArgs{plain(what == pipe ? fd : 41)};
      return what == entity   ? static_cast<Vel::PtrInterface*>(other.get())
             : what == number ? static_cast<void*>(&two)
             : what == flag   ? static_cast<void*>(&off)
                              : &args;
   }

   std::set<std::string> lines() const {
      std::set<std::string> all;
      const auto add = [&all](const char* name, auto n) { all.insert(name + std::to_string(n)); };
      const Child last = tracker->lastFailedProcess();
      add("last ", last ? last->pid() : 0);
      add("error ", tracker->lastFailedProcessTerminationError());
      add("successes ", tracker->successfulTerminationCount());
      add("errors ", tracker->errorTerminationCount());
      for (const auto& entry : tracker->process()) {
         add("process ", entry.pid());
      }
      for (const auto& reactor : tracker->childProcess()) {
         add("reactor ", reactor.fwkKey());
      }
      for (const auto& skipFd : context->skipFd()) {
         add(skipFd.value() ? "keep " : "skip ", skipFd.fwkKey());
      }
      all.insert(child->siginfo() ? child->siginfo()->name().charPtr() : "no siginfo");
      return all;
   }
   // The virtual operations called, and what of the state is new (+) or gone (-).
   std::string effect() const {
      std::string text;
      for (const std::string& call : calls) {
         text += ", " + call;
      }
      const auto now = lines();
      for (const std::string& line : now) {
         text += before.contains(line) ? "" : ", +" + line;
      }
      for (const std::string& line : before) {
         text += now.contains(line) ? "" : ", -" + line;
      }
      return text.substr(text.empty() ? 0 : 2);
   }

   static std::string shown(const Handle& handle) {
      if (!handle || !handle->entity()) {
         return handle ? handle->strRep().charPtr() : "none";
      }
      return handle->type().name + std::to_string(handle->read("pid")->intValue());
   }

   std::set<std::string> before;
   GenericArgs args;
   unsigned two = 2;
   bool off = false;

   struct Row {
      const VelType* type;
      unsigned id, kind;
      Given given;
      const char* result;
      const char* effect;
      bool alwaysConst = false;
   };
   static const Row rows[];
   void check(const VelType& type, Vel::PtrInterface* object, unsigned id, unsigned kind,
              bool isConst);
};

constexpr const char* child41 = "Zor::ChildProcess41";
constexpr const char* siginfo41 = "Vel::ChildSiginfo41";
const GenericOperations::Row GenericOperations::rows[] = {
   {smType, 0x82, 0, nothing, child41, ""},
   {smType, 0x82, 1, process, "Zor::ChildProcess42",
    "processIs 42, childProcessIs 42, +process 42, +reactor 42"},
   {smType, 0x82, 2, nothing, child41,
    "processDel 41, childProcessDel 41, -process 41, -reactor 41"},
   {smType, 0x82, 3, nothing, "1", ""},
   {smType, 0x82, 4, nothing, "1", ""},
   {smType, 0x82, 5, nothing, "true", ""},
   {smType, 0x84, 8, hook, "none", "hook 41"},
   {smType, 0x85, 8, ended, "none",
    "lastFailed 41, error 2, errors 1, hook 41, processDel 41, childProcessDel 41, "
    "+error 2, +errors 1, +last 41, -error 0, -errors 0, -last 0, -process 41"},
   {smType, 0x86, 0, nothing, child41, "", true},
   {smType, 0x86, 1, entity, "none", "childProcessIs 43, +reactor 43"},
   {smType, 0x86, 2, nothing, child41, "childProcessDel 41, -reactor 41", true},
   {smType, 0x86, 3, nothing, "1", ""},
   {smType, 0x86, 4, nothing, "1", ""},
   {smType, 0x86, 5, nothing, "true", ""},
   {smType, 0x87, 0, nothing, "none", ""},
   {smType, 0x87, 1, entity, "none", "lastFailed 43, +last 43, -last 0"},
   {smType, 0x88, 0, nothing, "invalid", ""},
   {smType, 0x88, 1, number, "none", "error 2, +error 2, -error 0"},
   {smType, 0x89, 0, nothing, "0", ""},
   {smType, 0x89, 1, number, "none", "+successes 2, -successes 0"},
   {smType, 0x8a, 0, nothing, "0", ""},
   {smType, 0x8a, 1, number, "none", "+errors 2, -errors 0"},
   {contextType, 0x82, 0, nothing, "true", ""},
   {contextType, 0x82, 1, flag, "none", "+skip 7, -keep 7"},
   {contextType, 0x82, 2, nothing, "true", "-keep 7"},
   {contextType, 0x82, 3, nothing, "1", ""},
   {contextType, 0x82, 4, nothing, "1", ""},
   {contextType, 0x82, 5, nothing, "true", ""},
   {childType, 0x82, 0, nothing, "41", ""},
   {childType, 0x83, 0, nothing, "\"worker\"", ""},
   {childType, 0x85, 0, nothing, siginfo41, ""},
   {childType, 0x85, 1, siginfo, siginfo41, "+end, -ChildSiginfo-41"},
   {childType, 0x85, 2, nothing, siginfo41, "+no siginfo, -ChildSiginfo-41"},
   {childType, 0x86, 8, pipe, "none", "+ChildSiginfo-41, -no siginfo"},
};

void GenericOperations::check(const VelType& type, Vel::PtrInterface* object, unsigned id,
                              unsigned kind, bool isConst) {
   const auto* const row = std::find_if(std::begin(rows), std::end(rows), [&](const Row& each) {
      return each.type == &type && each.id == id && each.kind == kind;
   });
   const bool supported = row != std::end(rows);
   const auto* const end = type.attrs + type.attrCount;
   const auto* const attr =
      std::find_if(type.attrs, end, [id](const VelAttr& each) { return each.id == id; });
   VelAttr record = attr != end ? *attr : *type.attrs;
   record.id = id;
   int key = &type == contextType ? 7 : 41;
   void* const value = given(supported ? row->given : nothing);
   bool notHandled = false;
   try {
      const AttributeOp op{&record, kind};
      const Handle result = type.attributeOp(object, isConst, op, &key, value, &notHandled);
      EXPECT_EQ(notHandled, attr == end);
      EXPECT_EQ(shown(result), supported ? row->result : "none");
      EXPECT_EQ(effect(), supported ? row->effect : "");
      EXPECT_TRUE(supported || notHandled) << "not refused";
      EXPECT_TRUE(!result || !supported || result->isConst() == (row->alwaysConst || isConst));
   } catch (const Vel::OpNotSupportedException&) {
      EXPECT_TRUE(attr != end && !supported && !notHandled);
   }
   args.clear();
   if (supported) {
      worldIs();
   }
}

TEST_F(GenericOperations, OnlyCollectionsAreIterated) {
   const Vel::AttributeIteratorVTable* table = nullptr;
   for (const Handle& on : {sm, contextIf}) {
      void* const object = const_cast<Vel::PtrInterface*>(on->entity().get());
      EXPECT_EQ(on->type().attributeIterator(object, childType->attrs + 2, &table), nullptr);
   }
}

TEST_F(GenericOperations, DoesOnEachAttributeWhatItsTypeSays) {
   for (unsigned n = 0; n < 3 * 16 * 10 * 2; ++n) {
      const unsigned id = 0x80 + n % 16;
      const unsigned kind = n / 16 % 10;
      const bool isConst = n / 160 % 2 != 0;
      const Handle on = std::array{sm, childIf, contextIf}[n / 320];
      SCOPED_TRACE(Vel::format("%s  id %x kind %u const %d", on->type().name, id, kind, isConst));
      check(on->type(), const_cast<Vel::PtrInterface*>(on->entity().get()), id, kind, isConst);
   }
}

} // namespace
