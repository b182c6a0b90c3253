// Announcing a change to nobody, to few and to many.
#include "Micro.h"
#include "Plain.h"
#include "Rows.h"

#include <Vel/Notifiee.h>

#include <benchmark/benchmark.h>
#include <memory>
#include <vector>

namespace Bench {

namespace {

class Subject : public Vel::PtrInterface {
 public:
   class NotifieeConst;

   void valueIs(unsigned value);
   void valueIsUnannounced(unsigned value) noexcept;
   Vel::NotifieeList* notifieeList() const override { return &notifieeList_; }

   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   unsigned value_ = 0;
   mutable Vel::NotifieeList notifieeList_;
};

class Subject::NotifieeConst : public Vel::PtrInterface::NotifieeConst {
 public:
   ~NotifieeConst() override { detach(); }
   virtual void onValue() {}
};

[[gnu::noinline]] void Subject::valueIs(unsigned value) {
   value_ = value;
   Vel::announceTo<&NotifieeConst::onValue, NotifieeConst>(this, notifieeList_);
}
[[gnu::noinline]] void Subject::valueIsUnannounced(unsigned value) noexcept { value_ = value; }

// The hand-written counterpart, which holds itself across the handlers just so.
class PlainSubject : public PlainCounted {
 public:
   class Watcher {
    public:
      Watcher() = default;
      Watcher(const Watcher&) = delete;
      Watcher& operator=(const Watcher&) = delete;
      virtual ~Watcher() = default;
      virtual void onValue() {}
   };

   [[gnu::noinline]] void valueIs(unsigned value) {
      value_ = value;
      if (!watchers.empty()) {
         const PlainHandle<PlainSubject> self(this);
         watchers.visit([](Watcher& watcher) { watcher.onValue(); });
      }
   }

   PlainList<Watcher> watchers;

 private:
   unsigned value_ = 0;
};

// Both kinds of watchers hear in one of two ways, so that a compiler can't tell which.
template <class Watcher, int step> class Hearing final : public Watcher {
 public:
   void onValue() override { benchmark::DoNotOptimize(heard_ += step); }

 private:
   int heard_ = 0;
};

template <class Base> using Odd = Hearing<Base, 1>;
template <class Base> using Even = Hearing<Base, 2>;

struct Watched {
   using Watcher = Subject::NotifieeConst;

   explicit Watched(unsigned count) {
      for (unsigned i = 0; i < count; ++i) {
         Vel::Ptr<Watcher> watcher = Vel::newEntity<Even<Watcher>>();
         if (i % 2 != 0) {
            watcher = Vel::newEntity<Odd<Watcher>>();
         }
         watcher->notifierIs(subject);
         watcher->isRegisteredNotifieeIs(true);
         watchers.push_back(watcher);
      }
   }
   void leaveAndJoin() const {
      watchers.front()->isRegisteredNotifieeIs(false);
      watchers.front()->isRegisteredNotifieeIs(true);
   }

   Vel::Ptr<Subject> subject = Vel::newEntity<Subject>();
   std::vector<Vel::Ptr<Watcher>> watchers;
};

struct PlainWatched {
   using Watcher = PlainSubject::Watcher;

   explicit PlainWatched(unsigned count) {
      for (unsigned i = 0; i < count; ++i) {
         std::unique_ptr<Watcher> watcher = std::make_unique<Even<Watcher>>();
         if (i % 2 != 0) {
            watcher = std::make_unique<Odd<Watcher>>();
         }
         subject.get()->watchers.join(watcher.get());
         watchers.push_back(std::move(watcher));
      }
   }
   void leaveAndJoin() const {
      subject.get()->watchers.leave(watchers.front().get());
      subject.get()->watchers.join(watchers.front().get());
   }

   PlainHandle<PlainSubject> subject{new PlainSubject};
   std::vector<std::unique_ptr<Watcher>> watchers;
};

template <class Subjects> Turns announcing(unsigned watchers) {
   const auto watched = std::make_shared<Subjects>(watchers);
   return [watched](unsigned count) {
      for (auto* const subject = watched->subject.get(); count != 0; --count) {
         subject->valueIs(count);
      }
   };
}

void addFor(unsigned watchers) {
   const std::string name = "announcement/" + std::to_string(watchers);
   timed(name + "/ours", announcing<Watched>(watchers));
   timed(name + "/by hand", announcing<PlainWatched>(watchers));
}

template <class Subjects> Turns rejoining() {
   const auto watched = std::make_shared<Subjects>(8);
   return [watched](unsigned count) {
      while (count-- != 0) {
         watched->leaveAndJoin();
      }
   };
}

void add() {
   for (const unsigned watchers : {0U, 1U, 8U, 1000U}) {
      addFor(watchers);
   }
   timed("leaving and joining/ours", rejoining<Watched>());
   timed("leaving and joining/by hand", rejoining<PlainWatched>());
}

void unannounced(unsigned count) {
   static const Vel::Ptr<Subject> subject = Vel::newEntity<Subject>();
   for (; count != 0; --count) {
      subject->valueIsUnannounced(count);
   }
}

void report(const Times& times) {
   for (const unsigned watchers : {0U, 1U, 8U, 1000U}) {
      const std::string name = "announcement/" + std::to_string(watchers);
      times.ratioRow("announcement to " + std::to_string(watchers) + ", time / hand-written list",
                     name + "/ours", name + "/by hand", watchers < 8 ? "printed" : "<= 1.20");
   }
   row("announcement to 8, instructions", instructionsPerTurn(announcing<Watched>(8)), "<= 220",
       "handlers included");
   row("change that nobody watches, instructions more than a plain store",
       instructionsPerTurn(announcing<Watched>(0)) - instructionsPerTurn(unannounced), "<= 3",
       "one load, one test: no call fits into these");
   times.ratioRow("watcher leaves and joins again, time / hand-written list",
                  "leaving and joining/ours", "leaving and joining/by hand", "printed", "one of 8");
}

} // namespace

const Suite notification{add, report};

} // namespace Bench
