// Tracing: which messages are composed at all, and what becomes of them.
#include <Vel/Trace.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <stdexcept>

namespace {

using Vel::TraceFacility;
using Vel::TraceHandle;
using Vel::TraceHelper;

// A trace site as the library has them. Says whether the message was composed.
bool traced(
   TraceHandle& handle, unsigned level,
   const std::function<void(std::ostream&)>& compose = [](std::ostream&) {}) {
   alignas(TraceHelper) std::byte storage[sizeof(TraceHelper)];
   TraceHelper* const helper = TraceHelper::createIfEnabled(handle, level, storage);
   if (helper != nullptr) {
      const Vel::EnsureTraceHelperIsDestroyed guard(helper);
      compose(helper->stream());
      helper->trace("File", 63, "function");
   }
   return helper != nullptr;
}

class Tracing : public testing::Test {
 protected:
   void SetUp() override {
      TraceFacility::sinkIs(
         [this](auto handle, int level, auto file, int line, auto function, auto text) {
            received.append(handle).append(std::to_string(level)).append(file);
            received.append(std::to_string(line)).append(function).append(text) += '|';
         });
   }
   void TearDown() override { TraceFacility::sinkIs({}); }
   std::string received;
};

TEST_F(Tracing, EachLevelOfANameIsSwitchedByItselfBeforeOrAfterTheHandleExists) {
   TraceFacility::levelEnabledIs("Early", 8, true);
   TraceHandle early("Early", false), late("Late", false), same("Late", false), all("All", true);
   EXPECT_TRUE(traced(early, 8) && !traced(early, 7) && !traced(early, 40) && !traced(late, 8));
   EXPECT_TRUE(traced(all, 0) && traced(all, 63) && !traced(all, 64));
   TraceFacility::levelEnabledIs("Late", 8, true);
   TraceFacility::levelEnabledIs("Late", 63, true);
   EXPECT_TRUE(TraceFacility::levelEnabled("Late", 63) && !TraceFacility::levelEnabled("Late", 7));
   EXPECT_FALSE(TraceFacility::levelEnabled("All", 64) || TraceFacility::levelEnabled("None", 8));
   EXPECT_TRUE(traced(late, 63) && traced(same, 8) && !traced(late, 31));
   TraceFacility::levelEnabledIs("Late", 63, false);
   EXPECT_TRUE(!traced(late, 63) && traced(late, 8));
   EXPECT_THROW(TraceFacility::levelEnabledIs("Late", 64, true), std::runtime_error);
}

TEST_F(Tracing, ASinkThatThrowsOrTracesItselfOrSetsAnErrorDisturbsNothing) {
   TraceHandle handle("Sink", true);
   TraceFacility::sinkIs([](auto...) {
      errno = EIO;
      throw std::runtime_error("full");
   });
   errno = ENOENT;
   EXPECT_TRUE(traced(handle, 1) && errno == ENOENT);
   TraceFacility::sinkIs([&](auto...) {
      SetUp(); // ends the function that is running
      traced(handle, 2);
   });
   traced(handle, 1);
   EXPECT_THROW(traced(handle, 8, [](auto&) { throw std::runtime_error("no text"); }),
                std::runtime_error);
   EXPECT_EQ(received, "Sink2File63function|");
}

TEST_F(Tracing, WithoutASinkAMessageIsOneLineOnStandardErrorWithControlCharactersShown) {
   TraceHandle handle("Line\n", true);
   TraceFacility::sinkIs({});
   testing::internal::CaptureStderr();
   traced(handle, 8, [](std::ostream& stream) {
      stream << std::string_view("a\n\x1b[1m\0\x7f\xc3\xa9", 10) << Vel::String8("text");
   });
   const std::string line = testing::internal::GetCapturedStderr();
   EXPECT_THAT(line, testing::MatchesRegex("Line.x0a[^\n]*8[^\n]*File:63[^\n]*function[^\n]*\n"));
   EXPECT_THAT(line, testing::EndsWith("a\\x0a\\x1b[1m\\x00\\x7f\xc3\xa9text\n"));
}

} // namespace
