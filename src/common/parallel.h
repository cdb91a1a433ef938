// Work split into parts run at once: part 0 on the calling thread, the others
// on threads of their own, all joined before returning.
#pragma once

#include <exception>
#include <new>
#include <thread>
#include <vector>

#include "common/common.h"

// What became of work run where failures raise: a Failure, or an exhausted
// heap.
struct PartOutcome {
  bool failed = false;
  Failure failure;
  bool out_of_memory = false;
};

// Runs work(), keeping what became of it in outcome.
template <class Work>
void run_guarded(PartOutcome& outcome, const Work& work) {
  try {
    RaiseFailures raise;
    work();
  } catch (const Failure& f) {
    outcome.failed = true;
    outcome.failure = f;
  } catch (const std::exception&) {
    outcome.out_of_memory = true;
  }
}

// Reports the first failure of outcomes as the calling thread reports
// failures (ending the process, or raising for a host); an exhausted heap is
// thrown as std::bad_alloc.
inline void report_outcomes(const std::vector<PartOutcome>& outcomes) {
  for (const PartOutcome& o : outcomes) {
    if (o.failed) {
      if (o.failure.on_stderr) fatal_error_on_stderr(o.failure.message);
      fatal_error(o.failure.message);
    }
    if (o.out_of_memory) throw std::bad_alloc();
  }
}

// Runs work(p) for every part p in 0 .. parts - 1. A failure in a part is
// reported once every part has ended, the lowest part's first.
template <class Work>
void run_parts(int parts, const Work& work) {
  if (parts <= 1) {
    work(0);
    return;
  }
  std::vector<PartOutcome> outcome(parts);
  auto guarded = [&](int p) { run_guarded(outcome[p], [&] { work(p); }); };
  std::vector<std::thread> threads;
  threads.reserve(parts - 1);
  // Parts whose thread the system refuses (an address-space limit, for one,
  // may refuse its stack) run on the calling thread.
  int started = 1;
  try {
    for (; started < parts; ++started) threads.emplace_back(guarded, started);
  } catch (const std::exception&) {
    // std::system_error, or no memory for the thread's own record.
  }
  guarded(0);
  for (int p = started; p < parts; ++p) guarded(p);
  for (std::thread& t : threads) t.join();
  report_outcomes(outcome);
}
