// A process of its own for a contestant: signal handlers, default loops and waiting for whichever
// child can't be shared. All are forks of one process, and take turns on one core.
#pragma once

#include "Contestant.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Bench {

// What a worker has: the contestant, and the waiting children that it was made to start.
struct Stage {
   std::unique_ptr<Contestant> contestant;
   std::vector<pid_t> waiting;
};

// What a worker can be asked for. A fork has it at the same address.
using Task = double (*)(Stage& stage, std::size_t size);

class Worker {
 public:
   explicit Worker(const Entry& entry);
   Worker(const Worker&) = delete;
   Worker& operator=(const Worker&) = delete;
   ~Worker();

   const std::string& name() const noexcept { return name_; }
   // std::runtime_error when the worker has failed; it has said why.
   double run(Task task, std::size_t size);

 private:
   struct Request {
      Task task; // none: the end
      std::size_t size;
   };
   [[noreturn]] static void serve(const Entry& entry, int requests, int results) noexcept;

   std::string name_;
   int requests_[2];
   int results_[2];
   pid_t pid_;
};

// Workers for all contestants that are there, the floor first.
using Workers = std::vector<std::unique_ptr<Worker>>;
Workers allWorkers();

// Rounds in which each worker has its turn: one row of figures for each worker.
std::vector<std::vector<double>> alternate(const Workers& workers, Task task, std::size_t size,
                                           int rounds);

// One core for this process and its forks.
void pinToOneCore();

} // namespace Bench
