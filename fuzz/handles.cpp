// Handles beside std::shared_ptr, strings beside std::string with their representation, and lists
// of notifiees beside a model, with handlers that do anything to each other.
#include "Input.h"

#include <Vel/Notifiee.h>
#include <Vel/String8.h>

#include <array>
#include <memory>
#include <optional>

namespace {

// ---- handles ----

class Thing : public Vel::PtrInterface {
 public:
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }
   Vel::Ptr<Thing> part;
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
};

struct Shadow {
   std::shared_ptr<Shadow> part;
   std::size_t made; // parts are older than what they are part of: no circles
};

struct Held {
   Vel::Ptr<Thing> handle;
   std::shared_ptr<Shadow> shadow;
};

void handles(Input& input) {
   std::array<Held, 6> held;
   std::size_t made = 0;
   while (!input.atEnd()) {
      Held& to = held[input.below(6)];
      Held& from = held[input.below(6)];
      switch (input.below(7)) {
      case 0:
         to = {Vel::newEntity<Thing>(), std::make_shared<Shadow>()};
         to.shadow->made = made++;
         break;
      case 1:
         to = from;
         break;
      case 2:
         to = std::move(from);
         break;
      case 3:
         to.handle = from.handle.get();
         to.shadow = from.shadow;
         break;
      case 4:
         to = {};
         break;
      case 5:
         if (to.shadow && from.shadow && from.shadow->made < to.shadow->made) {
            to.handle->part = from.handle;
            to.shadow->part = from.shadow;
         }
         break;
      default: // often the last handle, on what is assigned
         if (to.shadow) {
            to.handle = Vel::Ptr<Thing>(to.handle->part);
            to.shadow = std::shared_ptr<Shadow>(to.shadow->part);
         }
      }
      for (const Held& each : held) {
         require(static_cast<bool>(each.handle) == static_cast<bool>(each.shadow), "null or not");
         require(!each.handle || each.handle->references() ==
                                    static_cast<std::uint32_t>(each.shadow.use_count()),
                 "references are counted");
      }
   }
   held = {};
   require(live<Thing>()[0] == 0, "every entity ends");
}

// ---- strings ----

void parse(const std::string& text) {
   const char* it = text.data();
   const char* const end = it + text.size();
   try {
      const Vel::String8 parsed =
         Vel::sequenceToValue(it, end, static_cast<Vel::String8*>(nullptr));
      const Vel::String8 shown = Vel::valueToStrep(parsed);
      const char* again = shown.begin();
      require(Vel::sequenceToValue(again, shown.end(), static_cast<Vel::String8*>(nullptr)) ==
                    parsed &&
                 again == shown.end(),
              "what is represented parses back");
      require(text[0] == '"' || it == end, "bare text is used up");
   } catch (const Vel::RangeException&) {
      require(it == text.data() && text[0] == '"', "only quoted text is refused, and stays");
   }
}

void strings(Input& input) {
   {
      std::array<std::pair<Vel::String8, std::string>, 4> pairs;
      while (!input.atEnd()) {
         auto& [to, toModel] = pairs[input.below(4)];
         auto& [from, fromModel] = pairs[input.below(4)];
         const unsigned operation = input.below(6);
         const std::string text = operation < 3 ? input.text() : std::string();
         if (operation == 0) {
            to = text;
            toModel = text;
         } else if (operation == 1) {
            parse(text);
         } else if (operation == 2) {
            to = to + text.c_str();
            toModel += text.c_str();
         } else if (operation == 3) {
            to = from;
            toModel = fromModel;
         } else if (toModel.size() + fromModel.size() < 4096) {
            to = operation == 4 ? to + from : Vel::format("%s%s", to.charPtr(), from.charPtr());
            const auto used = [operation](const std::string& model) {
               return operation == 4 ? model : std::string(model.c_str());
            };
            toModel = used(toModel) + used(fromModel);
         }
         require(std::string_view(to) == toModel && to.charPtr()[to.length()] == '\0' &&
                    to.empty() == toModel.empty(),
                 "a string is its characters");
         parse(Vel::valueToStrep(to).charPtr());
      }
   }
   require(live<Vel::String8::Data>()[0] == 0, "every string ends");
}

// ---- notification ----

constexpr int watchers = 6;
constexpr int notifiers = 3;
constexpr int none = -1;

struct Rude {};

class Notifier : public Vel::PtrInterface {
 public:
   explicit Notifier(int number) : number_(number) {}
   ~Notifier() override;
   Vel::NotifieeList* notifieeList() const override { return &list_; }
   void announce() const;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;

 private:
   const int number_;
   mutable Vel::NotifieeList list_;
};

class Watcher : public Vel::PtrInterface::NotifieeConst {
 public:
   explicit Watcher(int number) : number_(number) {}
   ~Watcher() override { detach(); }
   void handle();
   const Vel::PtrInterface* watched() const { return rawNotifier(); }

 private:
   const int number_;
};

// What a watcher should be: in the list of its notifier while it is registered and has one.
struct Model {
   int notifier = none;
   bool registered = false;
   bool wasRegistered = false;
   bool weak = false;
   unsigned joined = 0; // numbered; 0 while it is in no list
};

class Play {
 public:
   explicit Play(Input& input) : input_(input) { play_ = this; }
   ~Play() {
      for (std::size_t at = 0; at < watchers; ++at) {
         dropWatcher(at);
      }
      notifiers_ = {};
      require(live<Notifier, Vel::PtrInterface::NotifieeConst>() ==
                 std::vector<std::uint64_t>{0, 0},
              "every notifier and watcher ends");
   }

   void run() {
      while (!input_.atEnd()) {
         try {
            act();
         } catch (const Rude&) {
         }
         check();
      }
   }

   void visited(int watcher) {
      Visit& visit = *visit_;
      while (visit.next < visit.expected.size() && !present(visit.expected[visit.next])) {
         ++visit.next; // it left before its turn
      }
      require(visit.next < visit.expected.size() && visit.expected[visit.next].first == watcher,
              "visited in the order of joining, once, and only members");
      ++visit.next;
      if (depth_ < 3) {
         ++depth_;
         Vel::FirstException deed;
         deed.run([this] { act(); });
         --depth_;
         deed.rethrow();
      }
   }

   void notifierEnds(int notifier) {
      for (Model& model : models_) {
         if (model.notifier == notifier) {
            require(model.weak, "a strong watcher keeps its notifier");
            model = {none, false, model.wasRegistered, true, 0};
         }
      }
   }

   static Play& now() { return *play_; }

 private:
   using Member = std::pair<int, unsigned>; // and when it joined
   struct Visit {
      std::vector<Member> expected;
      std::size_t next = 0;
   };

   bool present(const Member& member) const {
      return models_[static_cast<std::size_t>(member.first)].joined == member.second;
   }

   std::vector<Member> members(int notifier) const {
      std::vector<Member> found;
      for (int watcher = 0; watcher < watchers; ++watcher) {
         const Model& model = models_[static_cast<std::size_t>(watcher)];
         if (model.notifier == notifier && model.joined != 0) {
            found.emplace_back(watcher, model.joined);
         }
      }
      std::sort(found.begin(), found.end(),
                [](const Member& a, const Member& b) { return a.second < b.second; });
      return found;
   }

   void announce(int number) {
      const Vel::Ptr<Notifier> notifier(notifiers_[static_cast<std::size_t>(number)]);
      if (!notifier) {
         return;
      }
      Visit visit{members(number)};
      Visit* const outer = std::exchange(visit_, &visit);
      Vel::FirstException first;
      first.run([&] { notifier->announce(); });
      visit_ = outer;
      for (; visit.next < visit.expected.size(); ++visit.next) {
         require(!present(visit.expected[visit.next]), "nobody is left out");
      }
      first.rethrow();
   }

   void act() {
      const unsigned operation = input_.below(10);
      const std::size_t at = input_.below(watchers);
      const std::size_t to = input_.below(notifiers);
      const Vel::Ptr<Watcher> watcher(operation > 3 ? watchers_[at] : nullptr);
      Model& model = models_[at];
      if (operation < 2) {
         announce(static_cast<int>(to));
      } else if (operation == 2) {
         dropOrMakeNotifier(to);
      } else if (operation == 3) {
         if (watchers_[at]) {
            dropWatcher(at);
         } else {
            watchers_[at] = Vel::newEntity<Watcher>(static_cast<int>(at));
         }
      } else if (operation == 9 && depth_ != 0) {
         throw Rude();
      } else if (watcher) {
         change(*watcher, model, operation, to);
      }
   }

   void dropOrMakeNotifier(std::size_t at) {
      if (!notifiers_[at] && !alive_[at]) {
         notifiers_[at] = Vel::newEntity<Notifier>(static_cast<int>(at));
         alive_[at] = true;
      } else {
         notifiers_[at] = nullptr;
      }
   }

   // Also from within its handler; what it watches may end with it.
   void dropWatcher(std::size_t at) {
      models_[at] = {};
      watchers_[at] = nullptr;
   }

   void change(Watcher& watcher, Model& model, unsigned operation, std::size_t to) {
      const bool on = input_.flag();
      // A weak one that isn't registered would not be told of its notifier's end.
      const bool mayLeave = !model.weak || model.notifier == none;
      if (operation < 6 && (!model.weak || model.registered)) {
         const Vel::Ptr<Notifier> notifier(on ? notifiers_[to] : nullptr);
         const int number = notifier ? static_cast<int>(to) : none;
         if (number != model.notifier) {
            model.notifier = number;
            join(model);
         }
         watcher.notifierIs(notifier);
      } else if (operation == 6 && (on || mayLeave)) {
         registeredIs(model, on);
         watcher.isRegisteredNotifieeIs(on);
      } else if (operation == 7 && mayLeave && on != watcher.hasNotificationActive()) {
         model.wasRegistered = on ? model.wasRegistered : model.registered;
         registeredIs(model, on && (model.registered || model.wasRegistered));
         watcher.hasNotificationActiveIs(on);
      } else if (operation == 8 && (!on || model.registered || model.notifier == none)) {
         model.weak = on;
         watcher.weakNotifierIs(on);
      }
   }

   void registeredIs(Model& model, bool on) {
      if (on != model.registered) {
         model.registered = on;
         join(model);
      }
   }
   void join(Model& model) {
      model.joined = model.registered && model.notifier != none ? ++joins_ : 0;
   }

   void check() {
      for (std::size_t at = 0; at < watchers; ++at) {
         const Watcher* const watcher = watchers_[at].get();
         require(watcher == nullptr ||
                    (watcher->isRegisteredNotifiee() == models_[at].registered &&
                     (watcher->watched() != nullptr) == (models_[at].notifier != none)),
                 "a watcher is as the model");
      }
      for (std::size_t at = 0; at < notifiers; ++at) {
         require(!notifiers_[at] || notifiers_[at]->notifieeList()->members() ==
                                       members(static_cast<int>(at)).size(),
                 "members are counted");
      }
   }

   friend class Notifier;
   Input& input_;
   std::array<Model, watchers> models_;
   std::array<bool, notifiers> alive_{};
   unsigned joins_ = 0;
   int depth_ = 0;
   Visit* visit_ = nullptr; // the innermost
   std::array<Vel::Ptr<Watcher>, watchers> watchers_;
   std::array<Vel::Ptr<Notifier>, notifiers> notifiers_;
   static inline Play* play_ = nullptr;
};

Notifier::~Notifier() {
   Play::now().notifierEnds(number_);
   Play::now().alive_[static_cast<std::size_t>(number_)] = false;
}

void Notifier::announce() const { Vel::announceTo<&Watcher::handle, Watcher>(this, list_); }

void Watcher::handle() { Play::now().visited(number_); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   Input input(data, size);
   switch (input.below(3)) {
   case 0:
      handles(input);
      break;
   case 1:
      strings(input);
      break;
   default:
      Play(input).run();
   }
   return 0;
}
