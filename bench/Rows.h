// What the benchmark programs tell scripts/bench, a line at a time on standard output, its fields
// separated by tabs.
#pragma once

#include <iostream>
#include <string_view>

namespace Bench {

// A figure and what it has to keep to: "<= 1.03", "= 2", or "printed" for nothing.
inline void row(std::string_view what, double figure, std::string_view bound,
                std::string_view note) {
   std::cout << "row\t" << what << '\t' << figure << '\t' << bound << '\t' << note << std::endl;
}

// One point of a series in a plot.
inline void point(std::string_view plot, std::string_view series, double x, double y) {
   std::cout << "point\t" << plot << '\t' << series << '\t' << x << '\t' << y << std::endl;
}

// Someone who was left out of a comparison.
inline void absent(std::string_view name) { std::cout << "absent\t" << name << std::endl; }

} // namespace Bench
