// Any entity as JSON: the example's program, and what its walk makes of cycles and of bytes that
// are no text.
#include "../examples/inspect/EntityJson.h"

#include <Vel/GenericIf.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>
#include <string>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;
using Vel::VelType;

std::string outputOf(const char* program) {
   std::string output;
   FILE* const pipe = ::popen(program, "r");
   for (int byte = 0; (byte = std::fgetc(pipe)) != EOF;) {
      output += static_cast<char>(byte);
   }
   EXPECT_EQ(::pclose(pipe), 0);
   return output;
}

TEST(Inspect, ShowsATrackerBeforeAndAfterItsChildrenEnd) {
   const Json all = Json::parse(outputOf(INSPECT_PROGRAM));
   EXPECT_EQ(all["kept descriptors"]["skipFd"].size(), 4U);
   const Json& running = all["while they run"];
   ASSERT_EQ(running["process"].size(), 3U);
   for (const auto& [pid, child] : running["process"].items()) {
      EXPECT_EQ(std::to_string(child["pid"].get<int>()), pid);
      EXPECT_EQ(child["siginfo"]["signalCode"], "none");
      EXPECT_EQ(running["childProcess"][pid], Json({{"$ref", child["$id"]}}));
   }
   EXPECT_TRUE(running["lastFailedProcess"].is_null());
   const Json& ended = all["when they have ended"];
   EXPECT_TRUE(ended["process"].empty() && ended["childProcess"].empty());
   EXPECT_EQ(ended["lastFailedProcess"]["description"], "verify");
   EXPECT_EQ(ended["lastFailedProcess"]["siginfo"]["exitStatus"], 3);
   EXPECT_EQ(ended["lastFailedProcessTerminationError"], "nonZeroExitStatus");
   EXPECT_EQ(ended["successfulTerminationCount"], 2);
   EXPECT_EQ(ended["errorTerminationCount"], 1);
}

// An entity with a text and a way on to another one.
class Node : public Vel::PtrInterface {
 public:
   explicit Node(Vel::String8 text) : text_(std::move(text)) {}
   Vel::String8 text() const { return text_; }
   const VelType* fwkType() const override { return &_velType; }

   Vel::Ptr<Node> next;
   static const VelType _velType;
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   Vel::String8 text_;
};

constexpr Vel::GenericIfImpl::AttributeOperations operations[] = {
   {0x82, {Vel::GenericIfImpl::readPlain<&Node::text, Node>}},
   {0x83, {[](const Vel::GenericIfImpl::Call& call) {
       const Vel::PtrInterface* const next = call.as<Node>().next.get();
       return Vel::GenericIfImpl::wrapAttrValue(call.op.attr, next, call.isConst);
    }}},
};
const Vel::VelAttr attributes[] = {
   {"text", 0x82, &Node::_velType, &Vel::Builtin<Vel::String8>::_velType, nullptr, nullptr, nullptr,
    0x580002ff},
   {"next", 0x83, &Node::_velType, &Node::_velType, nullptr, nullptr, nullptr, 0x582002ff},
};
const VelType Node::_velType = {
   .name = "Node",
   .size = sizeof(Node),
   .parent = &Vel::PtrInterface::_velType,
   .attrs = attributes,
   .attrCount = std::size(attributes),
   .wrap = Vel::GenericIfImpl::GenericIfPtrInterface<Vel::PtrInterface>::FromPtrInterface,
   .attributeOp =
      [](void* object, bool isConst, const Vel::AttributeOp& op, void* key, void* value,
         bool* notHandled) {
         auto* const entity = static_cast<Vel::PtrInterface*>(object);
         return Vel::GenericIfImpl::perform(operations, {entity, isConst, op, key, value},
                                            notHandled);
      },
};

TEST(Inspect, ShowsEachEntityOfACycleOnceAndBytesAsTheirRepresentation) {
   const auto first = Vel::newEntity<Node>("na\xc3\xafve");
   first->next = Vel::newEntity<Node>("\xff");
   first->next->next = first;
   EXPECT_EQ(entityJson(*Vel::GenericIf::of(first)).dump(),
             R"({"$id":1,"$type":"Node","text":"na)"
             "\xc3\xafve"
             R"(","next":{"$id":2,"$type":"Node","text":"\"\\xff\"","next":{"$ref":1}}})");
   first->next = nullptr; // which ends the cycle
}

} // namespace
