#include "Worker.h"

#include <csignal>
#include <iostream>
#include <sched.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

template <class T> bool writeWhole(int descriptor, const T& value) noexcept {
   return ::write(descriptor, &value, sizeof value) == sizeof value;
}

template <class T> bool readWhole(int descriptor, T& value) noexcept {
   return ::read(descriptor, &value, sizeof value) == sizeof value;
}

// Nobody is told of these ends.
void endWaiting(const Stage& stage) noexcept {
   for (const pid_t pid : stage.waiting) {
      ::kill(pid, SIGKILL);
   }
   for (const pid_t pid : stage.waiting) {
      ::waitpid(pid, nullptr, 0);
   }
}

} // namespace

Worker::Worker(const Entry& entry) : name_(entry.name) {
   checked(::pipe(requests_), "pipe");
   checked(::pipe(results_), "pipe");
   pid_ = checked(::fork(), "fork");
   if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::close(requests_[1]);
      ::close(results_[0]);
      serve(entry, requests_[0], results_[1]);
   }
   ::close(requests_[0]);
   ::close(results_[1]);
}

Worker::~Worker() {
   writeWhole(requests_[1], Request{nullptr, 0});
   ::close(requests_[1]);
   ::close(results_[0]);
   ::waitpid(pid_, nullptr, 0);
}

void Worker::serve(const Entry& entry, int requests, int results) noexcept {
   try {
      Stage stage{entry.make(), {}};
      for (Request request{}; readWhole(requests, request) && request.task != nullptr;) {
         writeWhole(results, request.task(stage, request.size));
      }
      endWaiting(stage); // all are gone before another worker's come
      ::_exit(0);
   } catch (const std::exception& exception) {
      std::cerr << entry.name << ": " << exception.what() << '\n';
   }
   ::_exit(1);
}

double Worker::run(Task task, std::size_t size) {
   double result = 0;
   if (!writeWhole(requests_[1], Request{task, size}) || !readWhole(results_[0], result)) {
      throw std::runtime_error(name_ + " gave up");
   }
   return result;
}

Workers allWorkers() {
   Workers workers;
   for (const Entry& entry : contestants) {
      if (entry.make != nullptr) {
         workers.push_back(std::make_unique<Worker>(entry));
      }
   }
   return workers;
}

std::vector<std::vector<double>> alternate(const Workers& workers, Task task, std::size_t size,
                                           int rounds) {
   std::vector<std::vector<double>> figures(workers.size());
   for (const auto& worker : workers) {
      worker->run(task, size); // warm
   }
   for (int round = 0; round < rounds; ++round) {
      for (std::size_t turn = 0; turn < workers.size(); ++turn) {
         // Nobody always follows the same one.
         const std::size_t at = round % 2 == 0 ? turn : workers.size() - 1 - turn;
         figures[at].push_back(workers[at]->run(task, size));
      }
   }
   return figures;
}

void pinToOneCore() {
   cpu_set_t allowed;
   checked(::sched_getaffinity(0, sizeof allowed, &allowed), "sched_getaffinity");
   std::size_t last = CPU_SETSIZE - 1;
   while (!CPU_ISSET(last, &allowed)) {
      --last;
   }
   cpu_set_t one;
   CPU_ZERO(&one);
   CPU_SET(last, &one);
   checked(::sched_setaffinity(0, sizeof one, &one), "sched_setaffinity");
}

} // namespace Bench
