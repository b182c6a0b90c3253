// A pipe that is watched, and a watcher that does as it is told.
#pragma once

#include <Vel/Activity.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/timerfd.h>
#include <unistd.h>
#include <vector>

class Watcher : public Vel::FileDescriptor::NotifieeConst {
 public:
   std::function<void()> heard = [] {}; // of anything
   std::vector<std::string> calls;

   void onReadable() override { called("readable"); }
   void onWritable() override { called("writable"); }
   void onException() override { called("exception"); }

 private:
   void called(const char* what) {
      calls.emplace_back(what);
      const auto act = heard; // which may drop this watcher
      act();
   }
};

// The read end is watched; the write end is raw.
struct Watched {
   explicit Watched(int readEnd) : fd(Vel::newEntity<Vel::FileDescriptor>("watched")) {
      fd->descriptorIs(readEnd);
      fd->notifyOnReadableIs(true);
      watcher = Vel::newEntity<Watcher>();
      watcher->notifierIs(fd);
      watcher->isRegisteredNotifieeIs(true);
   }
   Watched() : Watched(Pipe()) {}
   Watched(const Watched&) = delete;
   Watched& operator=(const Watched&) = delete;
   ~Watched() {
      if (watcher) {
         drop();
      }
      if (writeEnd >= 0) {
         ::close(writeEnd);
      }
   }
   void write() const { EXPECT_EQ(::write(writeEnd, "x", 1), 1); }
   void read() const {
      char byte = 0;
      EXPECT_EQ(::read(fd->descriptor(), &byte, 1), 1);
   }
   void drop() {
      watcher->notifierIs(nullptr);
      watcher = nullptr;
      fd = nullptr;
   }

   Vel::Ptr<Vel::FileDescriptor> fd;
   Vel::Ptr<Watcher> watcher;
   int writeEnd = -1;

 private:
   struct Pipe {
      Pipe() { EXPECT_EQ(::pipe2(ends, O_NONBLOCK), 0); }
      int ends[2] = {-1, -1};
   };
   explicit Watched(const Pipe& pipe) : Watched(pipe.ends[0]) { writeEnd = pipe.ends[1]; }
};

inline bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; }

inline bool readableNow(int descriptor) {
   pollfd event{descriptor, POLLIN, 0};
   return ::poll(&event, 1, 0) == 1;
}

// A descriptor of that number that is never readable and never writable.
inline int quietAs(int number) {
   const int quiet = ::timerfd_create(CLOCK_MONOTONIC, 0);
   if (quiet != number) {
      ::dup2(quiet, number);
      ::close(quiet);
   }
   return number;
}
