// What the fuzzers share: taking an input apart, and what must be as it was at its end.
#pragma once

#include <Vel/PtrInterface.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// Reads zeros behind the end.
class Input {
 public:
   Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

   bool atEnd() const { return at_ == end_; }
   unsigned byte() { return atEnd() ? 0 : *at_++; }
   unsigned below(unsigned bound) { return byte() % bound; }
   bool flag() { return (byte() & 1) != 0; }
   std::string text() {
      const std::size_t wanted = below(24); // which moves on
      const std::size_t length = std::min(wanted, static_cast<std::size_t>(end_ - at_));
      std::string taken(at_, at_ + length);
      at_ += length;
      return taken;
   }

 private:
   const std::uint8_t* at_;
   const std::uint8_t* end_;
};

inline void require(bool holds, const char* what) {
   if (!holds) {
      std::fprintf(stderr, "violated: %s\n", what);
      std::abort();
   }
}

// How many objects of each of these classes there are.
template <class... T> std::vector<std::uint64_t> live() {
   const auto count = [](const Vel::AllocTrackTypeInfo* info) {
      return info != nullptr ? info->liveCount() : 0;
   };
   return {count(T::velAllocTrackTypeInfo_)...};
}
