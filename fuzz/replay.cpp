// Runs a fuzzer where there is no libFuzzer: the files and folders named, then random inputs for so
// many seconds. The seed, given or chosen, is printed, and with it the number of a failing input.
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t largest = 512;

std::uint32_t seed = std::random_device()();
std::uint32_t number = 0;

void replay(const std::filesystem::path& path) {
   if (std::filesystem::is_directory(path)) {
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
         replay(entry.path());
      }
      return;
   }
   std::ifstream file(path, std::ios::binary);
   const Bytes bytes{std::istreambuf_iterator<char>(file), {}};
   LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

Bytes input() {
   std::mt19937 random(seed + number);
   Bytes bytes(random() % largest);
   for (auto& byte : bytes) {
      byte = static_cast<std::uint8_t>(random());
   }
   return bytes;
}

} // namespace

// replay SECONDS [--seed=N] [FILE | FOLDER]...
int main(int argc, char** argv) {
   using Clock = std::chrono::steady_clock;
   const auto seconds = std::chrono::seconds(argc > 1 ? std::atoi(argv[1]) : 1);
   for (int at = 2; at < argc; ++at) {
      if (std::sscanf(argv[at], "--seed=%u", &seed) != 1) {
         replay(argv[at]);
      }
   }
   std::signal(SIGABRT, [](int) { std::fprintf(stderr, "seed %u, input %u\n", seed, number); });
   for (const auto end = Clock::now() + seconds; Clock::now() < end; ++number) {
      const Bytes bytes = input();
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
   }
   std::printf("%u random inputs, seed %u\n", number, seed);
}
