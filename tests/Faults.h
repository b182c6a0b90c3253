// What the world does to a program: cases that run in a process of their own each, and twice, with
// pidfds and with pidfds refused by the kernel.
#pragma once

#include "TrackerFixture.h"

#include <tuple>

struct Fault {
   const char* name;
   void (*happens)(World& world);
};

inline std::vector<Fault> faults;
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

INSTANTIATE_TEST_SUITE_P(All, Faults, testing::Combine(testing::ValuesIn(faults), testing::Bool()),
                         Faults::name);

// Defines a case, a function of a World&, and adds it to those of the program.
#define FAULT(name, ...)                                                                           \
   void name(__VA_ARGS__);                                                                         \
   const bool name##Added = (faults.push_back({#name, name}), true);                               \
   void name(__VA_ARGS__)

// What a part of a case came to that ran in a process of its own.
inline void expectHeld(int outcome) {
   if (outcome == cannot) {
      ::_exit(cannot);
   }
   EXPECT_EQ(outcome, 0);
}
