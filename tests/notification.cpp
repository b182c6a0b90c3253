// Notification: registration, re-targeting, weak notifiees, and handlers that do their worst.
#include <Vel/Notifiee.h>

#include <gtest/gtest.h>

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
      attach(Ptr<Station const>::narrow(notifier));
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

TEST_F(Notification, SwitchingOffAndOnRestoresTheRegistrationThereWas) {
   const auto a = listener('a', station);
   for (const bool registered : {true, false}) {
      a->isRegisteredNotifieeIs(registered);
      a->isRegisteredNotifieeIs(registered); // once is enough
      for (const bool active : {true, false, false, true}) {
         a->hasNotificationActiveIs(active);
         EXPECT_EQ(announced(station), registered && active ? "a" : "");
         EXPECT_EQ(a->isRegisteredNotifiee(), registered && active);
      }
   }
}

TEST_F(Notification, RetargetingMovesTheRegistrationAndUnlessWeakTheReference) {
   for (const bool weak : {false, true}) {
      const auto counts = [&](unsigned watchers, unsigned others) {
         EXPECT_EQ(station->references(), 1 + (weak ? 0 : watchers));
         EXPECT_EQ(other->references(), 1 + (weak ? 0 : others));
      };
      const auto a = listener('a', station, weak);
      const auto b = listener('b', station, weak);
      a->notifierIs(station); // nothing: it does not even lose its turn
      EXPECT_EQ(announced(station), "ab");
      counts(2, 0);
      a->notifierIs(other);
      EXPECT_EQ(announced(station) + '|' + announced(other), "b|a");
      counts(1, 1);
      for (int time = 0; time < 2; ++time) {
         a->notifierIs(b); // of another class: that is none
         EXPECT_TRUE(announced(other).empty() && a->notifier() == nullptr);
         counts(1, 0);
      }
      a->notifierIs(other); // the registration was remembered
      b->isRegisteredNotifieeIs(false);
      b->notifierIs(other);
      EXPECT_EQ(announced(station) + '|' + announced(other), "|a");
      counts(0, 2);
      a->weakNotifierIs(!weak);
      EXPECT_EQ(other->references(), 2U);
      a->weakNotifierIs(weak);
   }
}

TEST_F(Notification, AWeakNotifieeThatOutlivesItsNotifierIsLeftWithoutOne) {
   for (const std::size_t many : {1U, 2U, 5U}) {
      std::vector<Handle> listeners;
      for (std::size_t made = 0; made < many; ++made) {
         listeners.push_back(listener('a', other, true));
      }
      heard.clear();
      other = nullptr;
      EXPECT_EQ(heard, std::string(many, '!')); // each took and dropped a handle on the ending one
      EXPECT_EQ(stations(), 1U);
      other = Vel::newEntity<Station>();
      for (const auto& left : listeners) {
         EXPECT_TRUE(left->notifier() == nullptr && !left->isRegisteredNotifiee());
         left->notifierIs(other);
         left->isRegisteredNotifieeIs(true);
      }
      EXPECT_EQ(announced(other), std::string(many, 'a'));
   }
}

// A station with listeners a, b and c. The deed is done when one of them hears for the first time.
struct Scene {
   Ptr<Station> station = Vel::newEntity<Station>();
   Ptr<Station> other = Vel::newEntity<Station>();
   Handle a = listener('a', station, true);
   Handle b = listener('b', station, true);
   Handle c = listener('c', station, true);
   std::vector<Handle> more;

   void join(char first, char last) {
      for (char letter = first; letter <= last; ++letter) {
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
      {&Scene::a, [](Scene& s) { s.a->isRegisteredNotifieeIs(false); }, "abc", "bc"},
      {&Scene::b, [](Scene& s) { s.b = nullptr; }, "abc", "ac"},
      {&Scene::a, [](Scene& s) { s.b->isRegisteredNotifieeIs(false); }, "ac", "ac"},
      {&Scene::a, [](Scene& s) { s.b->hasNotificationActiveIs(false); }, "ac", "ac"},
      {&Scene::b, [](Scene& s) { s.a = s.c = nullptr; }, "ab", "b"},
      {&Scene::b, [](Scene& s) { s.a = s.b = s.c = nullptr; }, "ab", ""},
      {&Scene::c, [](Scene& s) { s.join('d', 'd'); }, "abc", "abcd"},
      {&Scene::a, [](Scene& s) { s.join('d', 'm'); }, "abc", "abcdefghijklm"},
      {&Scene::a, [](Scene& s) { s.a = s.b = nullptr, s.join('d', 'e'); }, "ac", "cde"},
      {&Scene::a, [](Scene& s) { s.b->notifierIs(s.other); }, "ac", "ac"},
      {&Scene::a, [](Scene& s) { s.b->notifierIs(s.other), s.b->notifierIs(s.station); }, "ac",
       "acb"},
      {&Scene::b, [](Scene& s) { s.station->announce(); }, "ababcc", "abc"},
      {&Scene::a,
       [](Scene& s) {
          s.b->onceOnTime = [&s] { s.b = nullptr, s.join('d', 'd'); };
          s.station->announce();
       },
       "aabcc", "acd"},
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
         EXPECT_EQ(scene.station->notifieeList()->empty(), *row.after == '\0');
         EXPECT_EQ(announced(scene.station), row.after);
         EXPECT_EQ(scene.station->notifieeList()->members(), std::string(row.after).size());
      }
   }
}

TEST_F(Notification, TheOnlyListenerMayEndItselfOrItsNotifier) {
   auto only = listener('a', station, true);
   only->onceOnTime = [&] { only = nullptr; };
   EXPECT_EQ(announced(station) + announced(station), "a");
   only = listener('b', station, true);
   only->onceOnTime = [&] { station = nullptr; };
   station.get()->announce();
   EXPECT_TRUE(stations() == 1 && only->notifier() == nullptr);
}

TEST_F(Notification, WhenHandlersThrowTheOthersHaveTheirTurnAndTheFirstExceptionArrives) {
   Scene scene;
   scene.a->onceOnTime = [] { throw std::runtime_error("first"); };
   scene.b->onceOnTime = [] { throw std::runtime_error("second"); };
   try {
      announced(scene.station);
      ADD_FAILURE() << "the exception was lost";
   } catch (const std::runtime_error& thrown) {
      EXPECT_STREQ(thrown.what(), "first");
   }
   EXPECT_EQ(heard, "abc");
   scene.a = scene.b = scene.c = nullptr;
   EXPECT_TRUE(scene.station->notifieeList()->empty()) << "the visit is over for the list, too";
}

TEST_F(Notification, ADestroyedNotifieeLeavesNoEntryHoweverItWasMarked) {
   for (unsigned way = 0; way < 8; ++way) {
      const bool weak = (way & 1) != 0;
      const bool alone = (way & 2) != 0;
      auto going = listener('a', station, weak);
      const auto left = alone ? nullptr : listener('b', station, weak);
      going->velMarkedForDeletionIs((way & 4) != 0);
      going = nullptr;
      EXPECT_EQ(announced(station), alone ? "" : "b");
      EXPECT_EQ(station->references(), alone || weak ? 1U : 2U);
   }
}

TEST_F(Notification, AThousandHearInTheOrderOfJoining) {
   std::vector<Handle> listeners;
   for (int made = 0; made < 1000; ++made) {
      listeners.push_back(listener(made % 2 == 0 ? 'a' : 'b', station));
   }
   for (std::size_t at = 0; at < 1000; at += 2) {
      listeners[at]->isRegisteredNotifieeIs(false);
      listeners[at]->isRegisteredNotifieeIs(true);
   }
   EXPECT_EQ(announced(station), std::string(500, 'b') + std::string(500, 'a'));
}

} // namespace
