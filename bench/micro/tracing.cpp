// A place that would trace, while its level is off.
#include "Micro.h"
#include "Rows.h"

#include <Vel/Trace.h>

#include <benchmark/benchmark.h>
#include <cstddef>

namespace Bench {

namespace {

constexpr Vel::TraceFacility::FacilityLevel level = 8;

Vel::TraceHandle& handle() {
   static Vel::TraceHandle made("bench", false);
   return made;
}

Vel::TraceHelper* nothing(Vel::TraceHandle&, Vel::TraceFacility::FacilityLevel, void*) {
   return nullptr;
}

// The storage is not touched before a helper is made in it.
using HelperIn = decltype(Vel::TraceHelper::createIfEnabled);
[[gnu::noinline]] void place(HelperIn* helperIn, Vel::TraceHandle& traced, unsigned number) {
   alignas(Vel::TraceHelper) std::byte storage[sizeof(Vel::TraceHelper)];
   if (auto* const helper = helperIn(traced, level, storage)) {
      const Vel::EnsureTraceHelperIsDestroyed guard(helper);
      helper->stream() << "number " << number;
      helper->trace("bench", __LINE__, __func__);
   }
}

template <HelperIn* helperIn> void places(unsigned count) {
   for (Vel::TraceHandle& traced = handle(); count != 0; --count) {
      place(helperIn, traced, count);
   }
}

constexpr auto off = places<Vel::TraceHelper::createIfEnabled>;
constexpr auto call = places<nothing>;

void add() {
   timed("trace/off", off);
   timed("trace/empty call", call);
}

void report(const Times& times) {
   row("place that traces, switched off, instructions more than one empty call",
       instructionsPerTurn(off) - instructionsPerTurn(call), "<= 8", "the level's test");
   times.ratioRow("place that traces, switched off, time / one empty call", "trace/off",
                  "trace/empty call", "printed");
}

} // namespace

const Suite tracing{add, report};

} // namespace Bench
