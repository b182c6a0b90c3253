// Any entity as JSON: the example's program, and what its walk makes of bytes that are no text.
#include "../examples/inspect/EntityJson.h"

#include <Vel/GenericIf.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using Json = nlohmann::ordered_json;

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
   EXPECT_EQ(running["$id"], 1) << "known before what it leads to, which may lead back";
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

TEST(Inspect, ShowsBytesThatAreNoTextAsTheirRepresentation) {
   const auto shown = [](const Vel::String8& text) {
      return entityJson(*Vel::Builtin<Vel::String8>::_velType.genericIf(&text, true)).dump();
   };
   EXPECT_EQ(shown("na\xc3\xafve"), "\"na\xc3\xafve\"");
   EXPECT_EQ(shown("\xff"), R"("\"\\xff\"")");
}

} // namespace
