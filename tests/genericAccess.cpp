// The front of generic access, which takes names, values and text: what it accepts and refuses,
// what it passes on and what it keeps alive.
#include "GenericFixture.h"

#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <typeinfo>
#include <utility>

namespace {

// What was not meant as a number or a truth doesn't become one.
static_assert(!std::is_constructible_v<GenericValue, double>);
static_assert(!std::is_constructible_v<GenericValue, void*>);

// An operation by the letter of its name, n for the number of members.
void operate(const Handle& on, char op, std::string_view attr, const Values& v) {
   const auto with = [&v](const auto& use) {
      v.empty()       ? use()
      : v.size() == 1 ? use(v[0])
      : v.size() == 2 ? use(v[0], v[1])
                      : use(v[0], v[1], v[2]);
   };
   const GenericValue key = v.empty() ? GenericValue(0) : v[0];
   const std::map<char, std::function<void()>> operations = {
      {'r', [&] { v.empty() ? on->read(attr) : on->read(attr, key); }},
      {'w', [&] { with([&](const auto&... each) { on->write(attr, each...); }); }},
      {'d', [&] { v.empty() ? on->del(attr) : on->del(attr, key); }},
      {'c', [&] { with([&](const auto&... each) { on->call(attr, each...); }); }},
      {'h', [&] { on->has(attr, key); }},
      {'i', [&] { v.empty() ? on->iterate(attr) : on->iterate(attr, key); }},
      {'n', [&] { on->members(attr); }},
      {'o', [&] { on->watch(attr, [] {}); }},
   };
   operations.at(op)();
}

TEST_F(GenericAccess, TakesValuesAndTextAndGoesThroughTheVirtualOperations) {
   sm->write("errorTerminationCount", "517");
   sm->write("successfulTerminationCount", plain(3U));
   sm->write("lastFailedProcessTerminationError", "signaled");
   sm->write("lastFailedProcess", childIf);
   sm->write("childProcess", other.get());
   const Handle made = sm->write("process", "42", "new one", readEnd());
   sm->call("forkedChildExitCallback", made);
   sm->call("handleTerminatedChildProcess", "41"); // has not ended
   EXPECT_EQ(calls, (Calls{"error 2", "lastFailed 41", "childProcessIs 43", "processIs 42",
                           "childProcessIs 42", "hook 42"}));
   contextIf->write("skipFd", "8", "true");
   EXPECT_TRUE(context->skipFd(8));
   EXPECT_EQ(childIf->write("siginfo", "end", 41)->entity(), child->siginfo());
   EXPECT_EQ(made->entity(), sm->read("process", "42")->entity());
   EXPECT_EQ(made->read("description")->stringValue(), "new one");
   EXPECT_EQ(sm->read("errorTerminationCount")->unsignedValue(), 517U);
   EXPECT_EQ(sm->read("lastFailedProcessTerminationError")->strRep(), "signaled");
   EXPECT_EQ(sm->read("lastFailedProcess")->entity(), child);
   EXPECT_TRUE(sm->read("lastFailedProcess")->isConst() && !made->isConst());
   EXPECT_EQ(sm->read("process", 99), nullptr);
   EXPECT_TRUE(sm->has("childProcess", 43) && !sm->has("childProcess", 99));
   EXPECT_FALSE(contextIf->has("skipFd", 9) || contextIf->read("skipFd", 9)->boolValue());
   EXPECT_EQ(sm->members("process"), 2U);
}

TEST_F(GenericAccess, RefusesWithAMessageAndChangesNothing) {
   const Handle fixed = GenericIf::of(Child(child));
   const Handle watched = sm->read("childProcess", 41);
   const Handle siginfo = childIf->read("siginfo");
   constexpr const char* noChild = "expected Zor::ChildProcess, got a Vel::ChildSiginfo";
   constexpr const char* noError =
      "expected Zor::ChildProcessTrackerSm::terminationError, got \"signalled\"";
   constexpr const char* tooFew =
      "expected (pid S32, description Vel::String, readFromChildFd S32), got 2 values";
   const struct {
      Handle on;
      char op;
      const char* attr;
      Values values;
      const char* expected; // behind the names of the type and the attribute
   } refusals[] = {
      {sm, 'w', "errorTerminationCount", {-1}, "expected unsigned int, got -1"},
      {sm, 'w', "errorTerminationCount", {1LL << 32}, "expected unsigned int, got 4294967296"},
      {sm, 'w', "errorTerminationCount", {"7 "}, "expected unsigned int, got \"7 \""},
      {sm, 'w', "errorTerminationCount", {nullptr}, "expected unsigned int, got nothing"},
      {sm, 'w', "errorTerminationCount", {}, "expected 1 value, got 0"},
      {sm, 'w', "lastFailedProcessTerminationError", {"signalled"}, noError},
      {sm, 'w', "lastFailedProcess", {siginfo}, noChild},
      {sm, 'w', "process", {42, "new"}, tooFew},
      {sm, 'w', "process", {42, true, 0}, "expected description Vel::String, got true"},
      {sm, 'w', "process", {42, "new", "three"}, "expected readFromChildFd int, got \"three\""},
      {sm, 'r', "process", {"x"}, "expected key int, got \"x\""},
      {sm, 'r', "process", {}, "expected a key"},
      {sm, 'r', "lastFailedProcess", {1}, "expected no key"},
      {sm, 'd', "childProcess", {1LL << 31}, "expected key int, got 2147483648"},
      {contextIf, 'w', "skipFd", {7, 0}, "expected bool, got 0"},
      {childIf, 'w', "pid", {42}, "writing is not supported"},
      {childIf, 'd', "description", {}, "deleting is not supported"},
      {childIf, 'h', "pid", {41}, "asking for a key is not supported"},
      {childIf, 'n', "pid", {}, "members is not supported"},
      {childIf, 'r', "handleInitialized", {}, "reading is not supported"},
      {childIf, 'c', "siginfo", {1}, "calling is not supported"},
      {childIf, 'i', "pid", {}, "not a collection"},
      {childIf, 'o', "pid", {}, "changes are not announced"},
      {fixed, 'd', "siginfo", {}, "the handle is const"},
      {fixed, 'c', "handleInitialized", {1}, "the handle is const"},
      {watched, 'w', "siginfo", {"end", 1}, "the handle is const"},
   };
   const auto before = state();
   for (const auto& refusal : refusals) {
      const std::string message =
         refusal.on->type().name + (std::string(".") + refusal.attr + ": ") + refusal.expected;
      try {
         operate(refusal.on, refusal.op, refusal.attr, refusal.values);
         ADD_FAILURE() << "not refused: " << message;
      } catch (const Vel::Exception& refused) {
         EXPECT_EQ(refused.what(), message);
         EXPECT_TRUE((typeid(refused) == typeid(Vel::RangeException)) ==
                     std::string_view(refusal.expected).starts_with("expected"));
      }
   }
   EXPECT_EQ(state(), before);
}

TEST_F(GenericAccess, ChangesNothingWheneverItRefuses) {
   tracker->calls = nullptr;
   const GenericValue values[] = {nullptr, 41,   1LL << 40, "worker", Vel::Text{"signaled"},
                                  -1,      true, childIf,   contextIf};
   constexpr std::size_t count = std::size(values);
   for (const Handle& on : {sm, childIf, contextIf}) {
      const std::size_t attrCount = on->type().attrCount;
      for (std::size_t n = 0; n < 8 * attrCount * count * count; ++n) {
         Values given; // the digits of a number: none, one or two
         for (std::size_t left = n / 8 / attrCount; left != 0; left /= count) {
            given.push_back(values[left % count]);
         }
         const auto before = state();
         try {
            operate(on, "rwdchino"[n % 8], on -> type().attrs[n / 8 % attrCount].name, given);
         } catch (const Vel::SystemException&) { // 41 is no pipe
         } catch (const Vel::Exception& refused) {
            ASSERT_EQ(state(), before) << refused.what();
         }
      }
   }
}

TEST_F(GenericAccess, RefusesNamesThatItDoesNotKnow) {
   const struct {
      void (*act)(const Handle& on);
      const char* expected;
   } refusals[] = {
      {[](auto& on) { on->read("proces"); }, "Zor::ChildProcessTrackerSm: no attribute \"proces\""},
      {[](auto& on) { on->read(childType->attrs); },
       "Zor::ChildProcess.pid: not an attribute of Zor::ChildProcessTrackerSm"},
      {[](auto&) { plain(41)->boolValue(); }, "expected bool, got int"},
      {[](auto& on) {
          GenericArgs args{plain(true)};
          on->attributeOp({on->attr("handleTerminatedChildProcess"), 8}, nullptr, &args);
       },
       "Zor::ChildProcessTrackerSm.handleTerminatedChildProcess: expected (pid S32)"},
      {[](auto&) { GenericIf::create("Zor::Tracker"); }, "no type Zor::Tracker"},
      {[](auto&) { GenericIf::create(smType->name, 1); },
       "Zor::ChildProcessTrackerSm: expected (), got 1 value"},
      {[](auto&) { GenericIf::parse(*childType, "517"); }, "not a text for Zor::ChildProcess"},
      {[](auto&) { GenericIf::parse(Vel::_velType_void, ""); }, "not a text for void"},
   };
   for (const auto& refusal : refusals) {
      EXPECT_THAT([&] { refusal.act(sm); },
                  testing::ThrowsMessage<Vel::RangeException>(refusal.expected));
   }
   EXPECT_THAT(
      [] { GenericIf::create("Zor::ChildProcess", 1, "x", 2); },
      testing::ThrowsMessage<Vel::OpNotSupportedException>("Zor::ChildProcess: can't be created"));
   EXPECT_TRUE(GenericIf::create(smType->name)->entity()->hasNotificationActive());
}

TEST_F(GenericAccess, PassesOnWhatTheOperationThrowsAndLeaksNothing) {
   const int fd = readEnd();
   const auto tallied = liveHandles();
   EXPECT_THROW(sm->write("process", 41, "another", fd), Vel::NameInUseException);
   EXPECT_THROW(sm->write("process", 42, "unwatchable", -1), Vel::SystemException);
   EXPECT_THROW(sm->write("childProcess", nullptr), Vel::RangeException);
   tracker->hook = [](const Child&) { throw 7; };
   EXPECT_THROW(sm->call("forkedChildExitCallback", childIf), int);
   EXPECT_EQ(childIf->read("siginfo")->entity(), child->siginfo());
   tracker->calls = nullptr;                              // whose notes would take memory
   for (int memory = 0; tracker->left() == 1; ++memory) { // each allocation fails once
      newsLeft = memory;
      try {
         sm->write("process", "42", "a longer description of it", fd);
      } catch (const std::bad_alloc&) {
      }
      newsLeft = INT_MAX;
      EXPECT_EQ(liveHandles(), tallied);
   }
}

TEST_F(GenericAccess, IteratesFromTheStartOrAKeyWhileElementsGo) {
   std::set<int> left;
   for (int pid = 100; pid < 140; ++pid) {
      record(pid);
      left.insert(pid);
   }
   tracker->processDel(41);
   for (const char* const collection : {"process", "childProcess"}) {
      EXPECT_EQ((*sm->iterate(collection, 101).begin()).first->intValue(), 101);
      EXPECT_TRUE(sm->iterate(collection, 99).begin() == GenericIf::Elements::End());
   }
   for (const auto& [pid, watched] : sm->iterate("childProcess")) {
      EXPECT_EQ(watched->read("pid")->intValue(), pid->intValue());
      EXPECT_TRUE(watched->isConst());
      sm->del("childProcess", pid);
   }
   for (const auto& [pid, tracked] : sm->iterate("process")) {
      EXPECT_FALSE(tracked->isConst());
      const int neighbour = pid->intValue() ^ 1; // gone before its turn
      EXPECT_EQ(left.erase(pid->intValue()) + left.erase(neighbour), 2U);
      sm->del("process", pid);
      sm->del("process", neighbour);
   }
   EXPECT_TRUE(left.empty());
   EXPECT_EQ(sm->members("process") + sm->members("childProcess"), 0U);
   for (const auto& [fd, keep] : contextIf->iterate("skipFd", 7)) {
      EXPECT_TRUE(fd->intValue() == 7 && keep->boolValue());
      contextIf = nullptr;
      context = nullptr; // the iteration keeps it
   }
}

TEST_F(GenericAccess, WatchesWeaklyUntilEitherSideGoes) {
   int changes = 0;
   const auto count = [&changes] { ++changes; };
   auto watch = childIf->watch("siginfo", count);
   auto outliving = childIf->watch("siginfo", count);
   auto within = watch;
   auto held = std::make_shared<int>();
   const std::weak_ptr<int> function = held;
   within = childIf->watch("siginfo", [&within, &function, own = std::move(held)] {
      within = nullptr;
      EXPECT_FALSE(function.expired()) << "a function is gone while it runs";
   });
   childIf->write("siginfo", "end", 41);
   EXPECT_EQ(changes, 2);
   EXPECT_EQ(within, nullptr);
   EXPECT_TRUE(function.expired());
   watch = nullptr;
   childIf->del("siginfo");
   EXPECT_EQ(changes, 3);

   const auto live = Zor::ChildProcess::velAllocTrackTypeInfo_->liveCount();
   sm->del("process", 41);
   childIf = nullptr;
   child = nullptr;
   EXPECT_EQ(Zor::ChildProcess::velAllocTrackTypeInfo_->liveCount(), live - 1);
   EXPECT_EQ(changes, 3);
}

TEST_F(GenericAccess, ReadsWithOneAllocation) {
   const std::function<Handle()> reads[] = {[this] { return sm->read("errorTerminationCount"); },
                                            [this] { return sm->read("process", 41); },
                                            [this] { return childIf->read("description"); },
                                            [this] { return childIf->read("siginfo"); }};
   for (const auto& read : reads) {
      newsLeft = 1;
      const Handle value = read();
      newsLeft = INT_MAX;
      EXPECT_NE(value, nullptr);
   }
}

TEST(GenericText, OfEveryValueParsesBack) {
   std::vector<Handle> values{plain(true),       plain(false),   plain(INT_MIN),
                              plain(UINT_MAX),   plain(INT_MAX), plain(Vel::String8()),
                              plain(Vel::Name())};
   for (int byte = 0; byte < 256; ++byte) {
      const std::string text{static_cast<char>(byte), 'a', static_cast<char>(255 - byte)};
      values.push_back(plain(static_cast<unsigned char>(byte)));
      values.push_back(plain(Vel::String8(text)));
      values.push_back(plain(Vel::Name(text)));
   }
   for (const unsigned error : {0U, 1U, 2U, 3U, UINT_MAX}) {
      values.push_back(Sm::_velType_terminationError.genericIf(&error, false));
   }
   for (const Handle& value : values) {
      const VelType& type = value->type();
      const Vel::String8 text = value->strRep();
      const Handle parsed = GenericIf::parse(type, text);
      ASSERT_TRUE(&parsed->type() == &type && parsed->strRep() == text) << text;
      ASSERT_TRUE(text.charPtr()[0] == '"'
                     ? parsed->stringValue() == value->stringValue()
                     : std::memcmp(parsed->object(), value->object(), type.size) == 0)
         << text;
      ASSERT_THROW(GenericIf::parse(type, std::string(text) + ' '), Vel::RangeException) << text;
   }
}

} // namespace
