// Notification: registration, re-targeting, weak notifiees, and handlers that do their worst.
#include <Vel/Notifiee.h>

#include <gmock/gmock.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Vel::Ptr;
using Vel::PtrInterface;

// A notifier with one attribute.
class Station : public PtrInterface {
 public:
   void announce() const;
   void zeroReferencesIs(bool) override {
      using N = PtrInterface::NotifieeConst;
      Vel::announceTo<&N::onZeroReferences, N>(this, list_);
   }
   Vel::NotifieeList* notifieeList() const override { return &list_; }
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;

 private:
   mutable Vel::NotifieeList list_;
};

std::string heard; // the letters of those who heard, in order

class Listener : public PtrInterface::NotifieeConst {
 public:
   explicit Listener(char letter) : letter_(letter) {}
   void notifierIs(const Ptr<PtrInterface const>& notifier) override {
      attach(narrowedTo<Station const>(notifier.get()));
   }
   ~Listener() override { detach(); }
   Ptr<PtrInterface const> notifier() const { return rawNotifier(); }
   void onTime() {
      heard += letter_;
      if (const auto deed = std::exchange(onceOnTime, {})) {
         deed();
      }
   }
   void onZeroReferences() override {
      heard += '!';
      const auto temporary = notifier();
   }
   std::function<void()> onceOnTime;

 private:
   char letter_;
};

void Station::announce() const { Vel::announceTo<&Listener::onTime, Listener>(this, list_); }

using Handle = Ptr<Listener>;

Handle listener(char letter, const Ptr<Station>& station, bool weak = false) {
   auto made = Vel::newEntity<Listener>(letter);
   made->weakNotifierIs(weak);
   made->notifierIs(station);
   made->isRegisteredNotifieeIs(true);
   return made;
}

std::string announced(const Ptr<Station>& station) {
   heard.clear();
   station->announce();
   return heard;
}

class Notification : public testing::Test {
 protected:
   void TearDown() override {
      station = other = nullptr;
      EXPECT_EQ(stations() + Listener::velAllocTrackTypeInfo_->liveCount(), 0U);
   }
   static std::uint64_t stations() { return Station::velAllocTrackTypeInfo_->liveCount(); }
   Ptr<Station> station = Vel::newEntity<Station>();
   Ptr<Station> other = Vel::newEntity<Station>();
};

TEST_F(Notification, RetargetingMovesTheRegistrationAndUnlessWeakTheReference) {
   for (const bool weak : {false, true}) {
      const auto a = listener('a', station, weak);
      const auto b = listener('b', station, weak);
      a->notifierIs(station); // nothing: it does not even lose its turn
      EXPECT_EQ(announced(station), "ab");
      EXPECT_EQ(station->references(), weak ? 1U : 3U);
      a->notifierIs(b); // of another class: that is none
      EXPECT_TRUE(announced(station) == "b" && a->notifier() == nullptr);
      a->notifierIs(other); // the registration was remembered
      b->isRegisteredNotifieeIs(false);
      b->notifierIs(other);
      EXPECT_EQ(announced(station) + '|' + announced(other), "|a");
      EXPECT_EQ(station->references(), 1U);
      EXPECT_EQ(other->references(), weak ? 1U : 3U);
      a->weakNotifierIs(!weak);
      EXPECT_EQ(other->references(), 2U);
      a->weakNotifierIs(weak);
   }
}

TEST_F(Notification, AWeakNotifieeThatOutlivesItsNotifierIsLeftWithoutOne) {
   const auto a = listener('a', other, true);
   const auto b = listener('b', other, true);
   heard.clear();
   other = nullptr;
   EXPECT_EQ(heard, "!!"); // each took and dropped a handle on the ending one
   EXPECT_TRUE(stations() == 1 && a->notifier() == nullptr && !a->isRegisteredNotifiee());
   b->notifierIs(station);
   b->isRegisteredNotifieeIs(true);
   EXPECT_EQ(announced(station), "b");
}

// A station with listeners a, b and c. The deed is done when one of them hears for the first time.
struct Scene {
   Ptr<Station> station = Vel::newEntity<Station>();
   Ptr<Station> other = Vel::newEntity<Station>();
   Handle a = listener('a', station, true);
   Handle b = listener('b', station, true);
   Handle c = listener('c', station, true);
   std::vector<Handle> more;

   void join(char letter, char last) {
      for (; letter <= last; ++letter) {
         more.push_back(listener(letter, station, true));
      }
   }
};

TEST_F(Notification, HandlersMayDoAnythingDuringAVisit) {
   struct {
      Handle Scene::*actor;
      void (*deed)(Scene&);
      const char* during;
      const char* after; // null: the station has ended
   } const rows[] = {
      {&Scene::b, [](Scene& s) { s.b = nullptr; }, "abc", "ac"},
      {&Scene::b, [](Scene& s) { s.b->velMarkedForDeletionIs(true), s.b = nullptr; }, "abc", "ac"},
      {&Scene::a, [](Scene& s) { s.b->isRegisteredNotifieeIs(false); }, "ac", "ac"},
      {&Scene::b, [](Scene& s) { s.a = s.b = s.c = nullptr; }, "ab", ""},
      {&Scene::a, [](Scene& s) { s.join('d', 'z'); }, "abc", "abcdefghijklmnopqrstuvwxyz"},
      {&Scene::a, [](Scene& s) { s.a = s.b = nullptr, s.join('d', 'e'); }, "ac", "cde"},
      {&Scene::a, [](Scene& s) { s.b->notifierIs(s.other), s.b->notifierIs(s.station); }, "ac",
       "acb"},
      {&Scene::b, [](Scene& s) { s.station->announce(); }, "ababcc", "abc"},
      {&Scene::b, [](Scene& s) { s.station->notifieeList()->deleteAll(); }, "ab", ""},
      {&Scene::b, [](Scene& s) { s.station = nullptr; }, "abc!!!", nullptr},
      {&Scene::c, [](Scene& s) { s.a = s.b = nullptr, s.station = nullptr; }, "abc!", nullptr},
   };
   for (const auto& row : rows) {
      SCOPED_TRACE(&row - rows);
      Scene scene;
      (scene.*row.actor)->onceOnTime = [&] { row.deed(scene); };
      heard.clear();
      scene.station.get()->announce(); // nobody but the deed's victims holds the station
      EXPECT_EQ(heard, row.during);
      EXPECT_EQ(stations(), row.after != nullptr ? 4U : 3U);
      if (row.after != nullptr) {
         EXPECT_EQ(announced(scene.station), row.after);
         EXPECT_EQ(scene.station->notifieeList()->members(), std::string(row.after).size());
         for (int again = 0; again < 3; ++again) { // in the places of those who went
            scene.more.clear();
            scene.join('d', 'z');
         }
         scene.more.clear();
         scene.a = scene.b = scene.c = nullptr;
         EXPECT_TRUE(scene.station->notifieeList()->empty());
      }
   }
}

TEST_F(Notification, WhenHandlersThrowTheOthersHaveTheirTurnAndTheFirstExceptionArrives) {
   Scene scene;
   scene.a->onceOnTime = [] { throw std::runtime_error("first"); };
   scene.b->onceOnTime = [&scene] {
      scene.join('d', 'm');
      throw std::runtime_error("second");
   };
   EXPECT_THAT([&] { announced(scene.station); },
               testing::ThrowsMessage<std::runtime_error>("first"));
   EXPECT_EQ(heard, "abc");
   scene.more.clear();
   scene.a = scene.b = scene.c = nullptr;
   EXPECT_TRUE(scene.station->notifieeList()->empty()) << "the visit is over for the list, too";
}

} // namespace
