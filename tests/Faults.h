// Cases by table: what the world does to a program, each one in a process of its own, and each one
// twice, with pidfds and with pidfds refused by the kernel.
#pragma once

#include "TrackerFixture.h"

#include <tuple>

struct Fault {
   const char* name;
   void (*happens)(World& world);
};

inline bool pidfdsRefused = false; // in this case

class Faults : public testing::TestWithParam<std::tuple<Fault, bool>> {
 public:
   static std::string name(const testing::TestParamInfo<ParamType>& info) {
      return std::get<Fault>(info.param).name +
             std::string(std::get<bool>(info.param) ? "_pidfdsRefused" : "");
   }
};

TEST_P(Faults, AreSurvived) {
   const auto& [fault, refused] = GetParam();
   const auto happens = fault.happens;
   pidfdsRefused = refused;
   const int outcome = apart([happens] {
      if (pidfdsRefused) {
         refuse(SYS_pidfd_open, ENOSYS);
      }
      World world;
      happens(world);
   });
   if (outcome == cannot) {
      GTEST_SKIP() << *unavailableReason();
   }
   EXPECT_EQ(outcome, 0);
}

// A table's row, and its rows as the cases of both ways.
#define FAULT(name)                                                                                \
   Fault { #name, name }

inline auto bothWays(const std::vector<Fault>& faults) {
   return testing::Combine(testing::ValuesIn(faults), testing::Bool());
}

// What a part of a case came to that ran in a process of its own.
inline void expectHeld(int outcome) {
   if (outcome == cannot) {
      ::_exit(cannot);
   }
   EXPECT_EQ(outcome, 0);
}
