// How many instructions a piece of code takes in user space, counted one by one.
#pragma once

#include <cstdint>
#include <functional>

namespace Bench {

// Runs both in a forked process: prepare freely, work step by step under a tracer, which is the
// caller. What this process does itself is counted, signal handlers included; what children of the
// work do is not, and they run freely. A repeated string instruction counts once.
//
// The same work gives the same number as long as it takes the same way: prepare lets it run a few
// times (lazy binding, caches of freed memory), and waits for what may come early or late.
// std::system_error where tracing isn't allowed, std::runtime_error when the work doesn't return.
std::uint64_t instructions(const std::function<void()>& prepare, const std::function<void()>& work);

} // namespace Bench
