// What the tests of generic access share: a small world with handles on it, and the front's
// operations by a letter.
#pragma once

#include "TrackerFixture.h"

#include <Vel/GenericIf.h>

#include <cstdint>
#include <string_view>
#include <tuple>
#include <vector>

using Vel::AttributeOp;
using Vel::GenericArgs;
using Vel::GenericIf;
using Vel::GenericValue;
using Vel::VelAttr;
using Vel::VelType;
using Handle = Vel::Ptr<GenericIf>;
using Values = std::vector<GenericValue>;

inline constexpr const VelType* smType = &Sm::_velType;
inline constexpr const VelType* childType = &Zor::ChildProcess::_velType;
inline constexpr const VelType* contextType = &Context::_velType;

template <class T> Handle plain(T value) {
   return Vel::Builtin<T>::_velType.genericIf(&value, true);
}

// A tracker with one child, a child beside it, and a context.
class GenericAccess : public TrackerTest {
 protected:
   void SetUp() override {
      TrackerTest::SetUp();
      worldIs();
   }
   void worldIs() {
      worldDel();
      tracker = newWorldTracker();
      tracker->calls = &calls;
      child = record(41);
      other = Vel::newEntity<Zor::ChildProcess>(43, "other", readEnd());
      context = Vel::newEntity<Context>();
      context->skipFdIs(7, true);
      sm = GenericIf::of(tracker);
      childIf = GenericIf::of(child);
      contextIf = GenericIf::of(context);
      calls.clear();
   }
   void TearDown() override {
      worldDel();
      EXPECT_EQ(liveHandles(), 0U);
      TrackerTest::TearDown();
   }

   virtual Vel::Ptr<RudeTracker> newWorldTracker() const { return Zor::newTracker<RudeTracker>(); }
   void worldDel() {
      sm = childIf = contextIf = nullptr;
      child = other = nullptr;
      context = nullptr;
      tracker = nullptr;
   }
   static std::uint64_t liveHandles() {
      const auto* const info = GenericIf::velAllocTrackTypeInfo_;
      return info != nullptr ? info->liveCount() : 0;
   }
   // Whatever changes when an operation does anything.
   auto state() const {
      return std::tuple(
         calls.size(), tracker->process().changeStamp(), tracker->childProcess().changeStamp(),
         context->skipFd().changeStamp(), tracker->successfulTerminationCount(),
         tracker->errorTerminationCount(), tracker->lastFailedProcessTerminationError(),
         tracker->lastFailedProcess().get(), child->siginfo().get(), other->siginfo().get());
   }

   Calls calls;
   Vel::Ptr<Zor::ChildProcess> child, other;
   Vel::Ptr<Context> context;
   Handle sm, childIf, contextIf;
};

// An operation by the letter of its name, n for the number of members; on a name or a record.
template <class Attr> Handle operate(const Handle& on, char op, const Attr& attr, const Values& v) {
   const auto with = [&v](const auto& use) {
      return v.empty()       ? use()
             : v.size() == 1 ? use(v[0])
             : v.size() == 2 ? use(v[0], v[1])
                             : use(v[0], v[1], v[2]);
   };
   const GenericValue key = v.empty() ? GenericValue(0) : v[0];
   switch (op) {
   case 'r':
      return v.empty() ? on->read(attr) : on->read(attr, key);
   case 'w':
      return with([&](const auto&... each) { return on->write(attr, each...); });
   case 'd':
      return v.empty() ? on->del(attr) : on->del(attr, key);
   case 'c':
      with([&](const auto&... each) { return on->call(attr, each...), Handle(); });
      return nullptr;
   case 'h':
      return plain(on->has(attr, key));
   case 'i':
      for (const auto& [at, value] : v.empty() ? on->iterate(attr) : on->iterate(attr, key)) {
         EXPECT_NE(at, nullptr);
      }
      return nullptr;
   case 'o':
      on->watch(attr, [] {});
      return nullptr;
   default:
      return plain(on->members(attr));
   }
}
