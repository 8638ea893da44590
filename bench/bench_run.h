// SPDX-License-Identifier: MIT
//
// What the programs over Google Benchmark share: checks before anything is
// timed, ways past the optimiser, and the command line.

#ifndef ZIRDB_BENCH_BENCH_RUN_H
#define ZIRDB_BENCH_BENCH_RUN_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench_run {

inline void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

/// Makes the compiler believe that what `pointer` leads to is read and written.
/// Not the benchmark library's DoNotOptimize: it may hold a value in a register
/// and in memory at once, of which g++ 12 under AddressSanitizer has seen to
/// only one.
inline void touch(const void* pointer) {
  asm volatile("" : : "r"(pointer) : "memory");
}

/// The same value, of which the compiler knows nothing.
template <class Pointer>
Pointer hidden(Pointer pointer) {
  asm volatile("" : "+r"(pointer));
  return pointer;
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle]
                                : (values[middle - 1] + values[middle]) / 2;
}

/// Registers `pass`, which does something `count` times. Of a `quick` run only
/// the answers matter.
template <class Pass>
void add_way(bool quick, const std::string& name, std::size_t count,
             Pass pass) {
  constexpr double kSeconds = 0.05;
  auto run = [count, pass](benchmark::State& state) mutable {
    while (
        state.KeepRunningBatch(static_cast<benchmark::IterationCount>(count))) {
      pass();
      benchmark::ClobberMemory();
    }
  };
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->MinTime(quick ? 1e-6 : kSeconds);
}

/// Passes the command line to the benchmark library, behind our own defaults.
/// `quick` tells whether --quick was given. False, after a message, for an
/// argument that nobody knows.
inline bool initialise(int argc, char** argv, bool* quick) {
  // Static: the library keeps a pointer to the program's name.
  static std::vector<std::string> arguments;
  arguments.assign(argv, argv + argc);
  const auto found = std::find(arguments.begin(), arguments.end(), "--quick");
  *quick = found != arguments.end();
  if (*quick) arguments.erase(found);
  arguments.insert(
      arguments.begin() + 1,
      {"--benchmark_enable_random_interleaving=true",
       std::string("--benchmark_repetitions=") + (*quick ? "1" : "9")});
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, pointers.data());
  return !benchmark::ReportUnrecognizedArguments(count, pointers.data());
}

}  // namespace bench_run

#endif  // ZIRDB_BENCH_BENCH_RUN_H
