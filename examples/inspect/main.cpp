// Shows a tracker as JSON before and after its three children, of which one fails, have ended.
//
// Nothing that prints knows the tracker's types: it walks what their descriptors name.
#include "EntityJson.h"

#include <Zor/ChildProcessTracker.h>

#include <cstdlib>
#include <iostream>
#include <system_error>
#include <unistd.h>

namespace {

using Json = nlohmann::ordered_json;
using Vel::Ptr;
using Context = Zor::ChildProcessTrackerCloseFdsContext;

// Children started from here wait for its end, which they see when the parent closes it.
struct Gate {
   Gate() {
      if (::pipe(ends) != 0) {
         throw std::system_error(errno, std::generic_category(), "pipe");
      }
   }
   void wait() const {
      char none = 0;
      while (::read(ends[0], &none, 1) > 0) {
      }
   }
   void open() const { ::close(ends[1]); }

   int ends[2] = {-1, -1};
};

void start(Zor::ChildProcessTrackerSm& tracker, const char* name, int status, const Gate& gate,
           const Ptr<Context>& kept) {
   const int pid = tracker.forkChild(name, nullptr, nullptr, kept);
   if (pid == 0) {
      gate.wait();
      ::_exit(status);
   }
   if (pid < 0) {
      throw std::system_error(errno, std::generic_category(), "fork");
   }
}

void inspect() {
   const Gate gate;
   const auto kept = Vel::newEntity<Context>();
   for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, gate.ends[0]}) {
      kept->skipFdIs(descriptor, true);
   }
   const auto tracker = Zor::childProcessTrackerSmFactory();
   start(*tracker, "fetch", 0, gate, kept);
   start(*tracker, "verify", 3, gate, kept);
   start(*tracker, "store", 0, gate, kept);

   const auto handle = Vel::GenericIf::of(tracker);
   Json shown;
   shown["kept descriptors"] = entityJson(*Vel::GenericIf::of(kept));
   shown["while they run"] = entityJson(*handle);
   gate.open();
   while (handle->members("process") != 0) {
      Vel::ActivityImplFacility::activityManagerSm()->runOnce(-1);
   }
   shown["when they have ended"] = entityJson(*handle);
   std::cout << shown.dump(2) << '\n';
}

} // namespace

int main() {
   try {
      inspect();
   } catch (const std::exception& error) {
      std::cerr << "inspect: " << error.what() << '\n';
      return EXIT_FAILURE;
   }
   return std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
