// What the tests of generic access share: a small world with handles on it.
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
