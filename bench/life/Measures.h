// What is measured: each of these prints its rows and points.
#pragma once

#include <cstddef>

namespace Bench {

void measureLives();
void measureExits();
void measureCrowds();
void measureHoldings();
void measureInstructions();
void measureForking();
void measureClosing();

// As many tracked children as the limits of this machine allow, at most 9,900: each has two
// descriptors, and there are two contestants at a time.
std::size_t mostTracked();

// As many descriptors as this process may have open, but for a few of its own.
std::size_t mostDescriptors();

} // namespace Bench
