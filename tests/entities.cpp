// Entities: the reference word, handles, how an object is made and how it ends; shared strings.
#include <Vel/ChildSiginfo.h>
#include <Vel/HashMap.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <iomanip>
#include <sstream>
#include <thread>
#include <vector>

namespace {

using Vel::PtrInterface;
using Vel::String8;
using Vel::VFPtrInterface;

// An entity whose making and ending run what the test wants.
class Probe : public PtrInterface {
 public:
   using Deed = std::function<void(Probe&)>;
   explicit Probe(const Deed& making = [](Probe&) {}) { making(*this); }
   unsigned velAuditErrors(unsigned level) const override { return level | 1; }
   void zeroReferencesIs(bool zero) override {
      zeroCalls += zero ? 1 : 100;
      ending(*this);
   }
   ~Probe() override { ending(*this); }
   using PtrInterface::bitsIs;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

   Vel::Ptr<Probe> child;
   Deed ending = [](Probe&) {};
   static inline std::atomic<int> zeroCalls = 0;
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
};
struct Derived : Probe {};
using Handle = Vel::Ptr<Probe>;

// Each test leaves nothing behind: no object, no block of a string, the switch off.
class Entities : public testing::Test {
 protected:
   void SetUp() override { Probe::zeroCalls = 0; }
   void TearDown() override {
      VFPtrInterface::enableThreadSafePointers = false;
      const auto* const strings = String8::Data::velAllocTrackTypeInfo_;
      EXPECT_EQ(live() + (strings != nullptr ? strings->liveCount() : 0), 0U);
   }
   static std::uint64_t live() {
      const auto* const tally = Probe::velAllocTrackTypeInfo_;
      return tally != nullptr ? tally->liveCount() : 0;
   }
};
using Strings = Entities;

TEST_F(Entities, TheLastReleaseEndsAnObjectUnlessBit30IsSet) {
   for (const bool atomic : {false, true}) {
      VFPtrInterface::enableThreadSafePointers = atomic;
      for (const std::uint32_t bits : {0U, 0x20000000U, 0x80000000U, 0x40000000U, 0xe0000000U}) {
         auto handle = Vel::newEntity<Probe>();
         Probe* const object = handle.get();
         object->bitsIs(bits, true);
         handle = nullptr;
         ASSERT_EQ(live(), (bits & 0x40000000) != 0 ? 1U : 0U) << std::hex << bits;
         if (live() != 0) {
            EXPECT_EQ(object->references(), bits);
            object->bitsIs(bits, false);
            handle = object;
         }
      }
   }
}

TEST_F(Entities, AssignmentKeepsWhatOnlyTheOldObjectHeldAndTheSameObject) {
   void (*const ways[])(Handle&) = {
      [](Handle& handle) { handle = handle->child; },
      [](Handle& handle) { handle = handle->child.get(); },
      [](Handle& handle) { handle = std::move(handle->child); },
   };
   for (const auto assign : ways) {
      auto handle = Vel::newEntity<Probe>();
      const Probe* const child = (handle->child = Vel::newEntity<Probe>()).get();
      assign(handle);
      ASSERT_TRUE(handle.get() == child && live() == 1);
      Handle& same = handle;
      handle = same;
      handle = same.get();
      handle = std::move(same);
      ASSERT_TRUE(handle.get() == child && live() == 1);
      EXPECT_EQ(child->references(), 1U);
   }
}

// Turned on while handles exist: a change that remembered the switch would show as a lost count,
// and as a race for the thread sanitizer. Beside the counts the object's own thread changes a flag.
TEST_F(Entities, HandlesAreCopiedAndDroppedOnSeveralThreadsOnceTheSwitchIsOn) {
   const auto shared = Vel::newEntity<Probe>();
   const String8 text("shared");
   std::vector<Handle> plain(10, shared);
   VFPtrInterface::enableThreadSafePointers = true;
   std::vector<std::thread> threads;
   for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&] {
         for (int round = 0; round < 5000; ++round) {
            const Handle copies[] = {shared, shared, Vel::newEntity<Probe>()};
            EXPECT_EQ(String8(text).length(), 6U);
         }
      });
   }
   for (int round = 0; round < 5000; ++round) {
      shared->hasNotificationActiveIs(round % 2 == 0);
   }
   for (auto& thread : threads) {
      thread.join();
   }
   VFPtrInterface::enableThreadSafePointers = false;
   plain.clear();
   EXPECT_EQ(shared->references(), 1U);
   EXPECT_EQ(Probe::zeroCalls, 20000);
}

TEST_F(Entities, AConstructorThatThrowsIsTalliedAndNothingIsFinished) {
   const auto made = Vel::newEntity<Probe>([](Probe& self) { const Handle temporary(&self); });
   EXPECT_EQ(made->references(), 1U); // the creation reference carried it over the temporary one
   const auto total = Probe::velAllocTrackTypeInfo_->totalCount();
   EXPECT_THROW(Vel::newEntity<Probe>([](Probe&) { throw std::bad_function_call(); }),
                std::bad_function_call);
   EXPECT_EQ(Probe::velAllocTrackTypeInfo_->totalCount(), total + 1);
   EXPECT_EQ(live(), 1U);
   EXPECT_EQ(Probe::zeroCalls, 0);
}

TEST_F(Entities, AnObjectIsFinishedOnceAlthoughItsEndingTakesAndDropsHandles) {
   Vel::newEntity<Probe>()->ending = [](Probe& self) { const Handle first(&self), second(first); };
   EXPECT_EQ(Probe::zeroCalls, 1);
   EXPECT_EQ(live(), 0U);
}

TEST_F(Entities, AValidPtrOfNothingIsRefusedAndNarrowingYieldsOnlyTheClassAskedFor) {
   try {
      const Vel::ValidPtr<Probe> none(nullptr);
      ADD_FAILURE() << "a null ValidPtr";
   } catch (const Vel::RangeException& refused) {
      EXPECT_STREQ(refused.what(), "null ValidPtr");
   }
   const Vel::Ptr<PtrInterface const> plain(Vel::newEntity<Probe>());
   const Vel::Ptr<PtrInterface const> derived(Vel::newEntity<Derived>());
   EXPECT_EQ(Vel::Ptr<Derived const>::narrow(Vel::Ptr<PtrInterface>()), nullptr);
   EXPECT_EQ(Vel::Ptr<Derived const>::narrow(plain), nullptr);
   const auto narrowed = Vel::Ptr<Derived const>::narrow(derived);
   EXPECT_EQ(narrowed, derived);
   EXPECT_EQ(derived->references(), 2U);
}

TEST_F(Entities, ANegativeAuditLevelAuditsNothing) {
   const auto probe = Vel::newEntity<Probe>();
   EXPECT_EQ(probe->auditErrors(0), 1U);
   EXPECT_EQ(probe->auditErrors(0x7fffffff), 0x7fffffffU);
   EXPECT_EQ(probe->auditErrors(0x80000000), 0U);
}

// A pointer to a virtual operation holds its offset in the virtual table (or one more).
template <class... Operations> std::vector<std::ptrdiff_t> slotsOf(Operations... operations) {
   const auto slot = [](auto operation) {
      std::ptrdiff_t offset = 0;
      std::memcpy(&offset, &operation, sizeof offset);
      return offset / std::ptrdiff_t{sizeof(void*)};
   };
   return {slot(operations)...};
}

TEST_F(Entities, VirtualOperationsStandInTheirSlots) {
   using N = PtrInterface::NotifieeConst;
   using S = Vel::ChildSiginfo::NotifieeConst;
   using T = Vel::HashMapVTableGeneric;
   EXPECT_EQ(slotsOf(&N::notifieeList, &N::hasNotificationActiveIs, &N::velAuditErrors,
                     &N::auditErrors, &N::zeroReferencesIs, &N::fwkType),
             (std::vector<std::ptrdiff_t>{0, 1, 2, 3, 4, 5})); // then two for the destructor
   EXPECT_EQ(slotsOf(&N::velReactor, &N::isRegisteredNotifieeIs, &N::notifierIs,
                     &N::handleNotification, &N::onNotificationException, &N::onZeroReferences,
                     &N::velFwkActivity, &N::actsm, &S::onExitSignal, &S::onExitStatus),
             (std::vector<std::ptrdiff_t>{8, 9, 10, 11, 12, 13, 14, 15, 16, 17}));
   EXPECT_EQ(slotsOf(&T::hash, &T::keyEquals, &T::keyLessThan, &T::setNext),
             (std::vector<std::ptrdiff_t>{0, 1, 2, 3}));
}

TEST_F(Strings, HoldWriteJoinAndShareAnyBytes) {
   const std::string bytes("a\0\xff\n%d", 6);
   const String8 text(bytes);
   const char* const null = nullptr;
   std::ostringstream out;
   out << std::setw(20) << text << String8() << (String8() + "end");
   EXPECT_EQ(out.str(), bytes + "end");
   EXPECT_EQ(text + text, String8(bytes + bytes));
   EXPECT_EQ((text + text).charPtr()[12], '\0');
   EXPECT_FALSE(text == String8("a"));
   EXPECT_TRUE((String8(null) + null).empty());
   String8 copy = text + null;
   EXPECT_EQ(copy.charPtr(), text.charPtr()) << "a copy shares its characters";
   const String8& same = copy;
   copy = same;
   EXPECT_EQ(copy, text);
   String8 filled;
   filled.init(nullptr, 0, 0);
   EXPECT_STREQ(filled.charPtr(), "");
   filled.init("unlinked", 2, 4);
   EXPECT_STREQ(filled.charPtr(), "link");
}

// The iterator is left behind what was used.
String8 parsed(String8::IteratorConst& it, const String8& text) {
   it = text.begin();
   return Vel::sequenceToValue(it, text.end(), static_cast<String8*>(nullptr));
}

TEST_F(Strings, RepresentationsReadBackWhateverTheBytes) {
   std::string all;
   String8::IteratorConst it = nullptr;
   for (int byte = 0; byte < 256; ++byte) {
      all += static_cast<char>(byte);
      const String8 one(all.substr(all.size() - 1));
      EXPECT_EQ(parsed(it, valueToStrep(one)), one) << byte;
   }
   EXPECT_EQ(parsed(it, Vel::valueToStrep(all)), String8(all));
   EXPECT_EQ(Vel::valueToStrep("a\"\\\n\t~\x80"), String8(R"("a\"\\\n\x09~\x80")"));
   struct {
      const char* text;
      const char* value; // null: refused
      std::ptrdiff_t used;
   } const rows[] = {{R"("a\"\\\n\xFf" b)", "a\"\\\n\xff", 13},
                     {R"("")", "", 2},
                     {"", "", 0},
                     {R"(bare "x" \n)", R"(bare "x" \n)", 11},
                     {R"(")", nullptr, 0},
                     {R"("open)", nullptr, 0},
                     {R"("\)", nullptr, 0},
                     {R"("\q")", nullptr, 0},
                     {R"("\x1")", nullptr, 0},
                     {R"("\x1g")", nullptr, 0},
                     {R"("\")", nullptr, 0}};
   for (const auto& row : rows) {
      const String8 text(row.text);
      if (row.value != nullptr) {
         EXPECT_EQ(parsed(it, text), String8(row.value));
      } else {
         EXPECT_THROW(parsed(it, text), Vel::RangeException);
      }
      EXPECT_EQ(it - text.begin(), row.used) << row.text;
   }
}

TEST_F(Strings, FormattingIsNotBoundToAnySize) {
   for (const std::size_t size : {0U, 126U, 127U, 128U, 5000U}) {
      const std::string text(size, 'x');
      EXPECT_EQ(Vel::format("%s%c", text.c_str(), 'y'), String8(text + 'y')) << size;
   }
   EXPECT_THROW(Vel::format("%lc", static_cast<wint_t>(0x20ac)), Vel::RangeException);
}

} // namespace
