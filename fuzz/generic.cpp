// Generic access with random records, kinds, keys, arguments and text, through the front and
// through the raw operations, on entities that it makes and finds itself.
#include "Children.h"
#include "Input.h"

#include <Vel/GenericIf.h>

#include <charconv>
#include <deque>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Vel::GenericIf;
using Vel::GenericValue;
using Vel::VelAttr;
using Vel::VelType;
using Handle = Vel::Ptr<GenericIf>;

constexpr int mostOperations = 200; // an input
constexpr int firstOwn = 100;       // descriptors from here on may be closed by what is called
constexpr int ownPipes = 4;

constexpr const VelType* types[] = {
   &Zor::ChildProcessTrackerSm::_velType,
   &Zor::ChildProcess::_velType,
   &Zor::ChildProcessTrackerCloseFdsContext::_velType,
   &Vel::ChildSiginfo::_velType,
   &Zor::ChildProcessTrackerSm::_velType_terminationError,
   &Vel::Builtin<bool>::_velType,
   &Vel::Builtin<int>::_velType,
   &Vel::Builtin<unsigned>::_velType,
   &Vel::Builtin<unsigned char>::_velType,
   &Vel::Builtin<Vel::String8>::_velType,
   &Vel::Builtin<Vel::Name>::_velType,
   &Vel::PtrInterface::_velType,
};

class Play {
 public:
   explicit Play(Input& input) : input_(input) {}

   void run() {
      keep(GenericIf::create(types[0]->name));
      for (int left = mostOperations; left > 0 && !input_.atEnd(); --left) {
         act();
         texts_.clear();
      }
   }

 private:
   void act() {
      try {
         const Handle on = some();
         const unsigned way = input_.below(12);
         if (way == 0) {
            keep(input_.flag() ? GenericIf::create(type().name, value(), value(), value())
                               : GenericIf::create(input_.flag() ? type().name : text()));
         } else if (way == 1) {
            keep(GenericIf::parse(type(), text()));
         } else if (way == 2) {
            const Vel::Ptr<Vel::PtrInterface const> entity = on->entity();
            keep(GenericIf::of(entity)); // const from here on
         } else if (way == 3) {
            manager()->runOnce(0);
         } else if (way < 6) {
            raw(*on, attribute(*on));
         } else {
            front(*on, attribute(*on));
         }
      } catch (const Vel::Exception&) {
      }
   }

   // ---- what it is done on and with ----

   const VelType& type() { return *types[input_.byte() % std::size(types)]; }
   const Handle& any() { return pool_[input_.byte() % std::size(pool_)]; }
   Handle some() {
      const Handle& handle = any();
      return handle ? handle : pool_[made_ % std::size(pool_)];
   }

   // Every plain value's text is the value's again.
   void keep(const Handle& made) {
      if (!made) {
         return;
      }
      if (!made->entity()) {
         const Vel::String8 shown = made->strRep();
         require(GenericIf::parse(made->type(), shown)->strRep() == shown, "what is shown parses");
      }
      pool_[++made_ % std::size(pool_)] = made;
   }

   // The handle's own, as a rule; another type's now and then, or one of a name.
   const VelAttr* attribute(const GenericIf& on) {
      const unsigned number = input_.byte();
      const VelType& owner = number < 200 ? on.type() : type();
      if (number % 16 == 15 || owner.attrCount == 0) {
         return on.attr(text());
      }
      return owner.attrs + number % owner.attrCount;
   }

   std::int64_t number() {
      static constexpr std::int64_t numbers[] = {
         -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(),
         std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::uint32_t>::max()};
      const unsigned at = input_.byte();
      return at < std::size(numbers) ? numbers[at] : firstOwn + at % 16;
   }

   // Never the number of a descriptor that is not this input's to close.
   std::string_view text() {
      std::string given = input_.text();
      int number = -1;
      std::from_chars(given.data(), given.data() + given.size(), number);
      return texts_.emplace_back(number >= 0 && number < firstOwn ? "100" + given : given);
   }

   GenericValue value() {
      const Handle& handle = any();
      switch (input_.below(8)) {
      case 0:
         return nullptr;
      case 1:
         return input_.flag();
      case 2:
         return number();
      case 3:
         return static_cast<std::uint64_t>(number());
      case 4:
         return text();
      case 5:
         return Vel::Text{text()};
      case 6:
         return handle;
      default:
         return handle ? handle->entity() : nullptr;
      }
   }

   // ---- operations ----

   void front(const GenericIf& on, const VelAttr* attr) {
      switch (input_.below(9)) {
      case 0:
         keep(input_.flag() ? on.read(attr) : on.read(attr, value()));
         break;
      case 1:
         keep(on.write(attr, value()));
         break;
      case 2:
         keep(on.write(attr, value(), value()));
         break;
      case 3:
         keep(on.write(attr, number(), value(), number()));
         break;
      case 4:
         keep(input_.flag() ? on.del(attr) : on.del(attr, value()));
         break;
      case 5:
         input_.flag() ? on.call(attr, value()) : on.call(attr);
         break;
      case 6:
         require(on.has(attr, value()) <= (on.members(attr) != 0), "who has a key has members");
         break;
      case 7:
         iterate(input_.flag() ? on.iterate(attr) : on.iterate(attr, value()));
         break;
      default:
         watch(on, attr);
      }
   }

   void iterate(GenericIf::Elements elements) {
      int left = 16;
      for (const auto& [key, element] : elements) {
         keep(key);
         keep(element);
         if (left-- == 0) {
            return;
         }
         nested();
      }
   }

   void watch(const GenericIf& on, const VelAttr* attr) {
      auto& watch = watches_[input_.byte() % std::size(watches_)];
      watch = on.watch(attr, [this, &watch] {
         if (input_.flag()) {
            watch = nullptr; // from within itself
         }
         nested();
      });
   }

   void nested() {
      if (depth_ < 3) {
         ++depth_;
         act();
         --depth_;
      }
   }

   // Keys and values are of the right type here, since nobody checks; arguments are anything.
   void raw(const GenericIf& on, const VelAttr* attr) {
      int key = static_cast<int>(number());
      Vel::GenericArgs args;
      for (unsigned left = input_.below(5); left > 0; --left) {
         args.push_back(any());
      }
      unsigned plain = input_.byte();
      const bool truth = input_.flag();
      void* native = &plain;
      if (attr->args != nullptr) {
         native = &args;
      } else if (attr->is(VelAttr::entityFlag)) {
         const Handle& handle = any();
         const bool fits = handle && handle->entity() && handle->type().isA(*attr->valueType);
         native = fits ? const_cast<Vel::PtrInterface*>(handle->entity().get()) : nullptr;
      } else if (attr->valueType == &Vel::Builtin<bool>::_velType) {
         native = const_cast<bool*>(&truth);
      }
      keep(on.attributeOp({attr, input_.below(12)}, &key, native));
   }

   Input& input_;
   Handle pool_[8];
   std::size_t made_ = std::size(pool_) - 1; // the last one made is at this, modulo
   int depth_ = 0;
   std::deque<std::string> texts_; // of one operation
   Vel::Ptr<GenericIf::Watch> watches_[3];
};

auto everything() { return std::pair(tallies(), live<GenericIf, GenericIf::Watch>()); }

void ownDescriptors() {
   for (int own = firstOwn; own < firstOwn + ownPipes; ++own) {
      int ends[2];
      require(::pipe(ends) == 0 && ::dup2(ends[0], own) == own, "pipes");
      ::close(ends[0]);
      own % 2 == 0 ? ::close(ends[1]) : ::dup2(ends[1], own + ownPipes);
      ::close(ends[1]);
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   manager()->pollFd(); // its poll set stays
   Zor::childProcessTrackerSmFactory()->handleTerminatedChildProcess(0);
   const auto tallied = everything();
   const auto open = openDescriptors(256);
   ownDescriptors();
   {
      Input input(data, size);
      Play(input).run();
   }
   ::close_range(firstOwn, firstOwn + 2 * ownPipes, 0);
   require(everything() == tallied, "every object ends");
   require(openDescriptors(256) == open, "every descriptor is closed");
   return 0;
}
