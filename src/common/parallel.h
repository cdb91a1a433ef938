// Work split into parts run at once: part 0 on the calling thread, the others
// on threads of their own, all joined before returning.
#pragma once

#include <exception>
#include <new>
#include <thread>
#include <vector>

#include "common/common.h"

// Runs work(p) for every part p in 0 .. parts - 1. A failure in a part is
// reported once every part has ended, the lowest part's first, as the
// calling thread reports failures (ending the process, or raising for a
// host); an exhausted heap is thrown as std::bad_alloc.
template <class Work>
void run_parts(int parts, const Work& work) {
  if (parts <= 1) {
    work(0);
    return;
  }
  struct Outcome {
    bool failed = false;
    Failure failure;
    bool out_of_memory = false;
  };
  std::vector<Outcome> outcome(parts);
  auto guarded = [&](int p) {
    try {
      RaiseFailures raise;
      work(p);
    } catch (const Failure& f) {
      outcome[p].failed = true;
      outcome[p].failure = f;
    } catch (const std::exception&) {
      outcome[p].out_of_memory = true;
    }
  };
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
  for (const Outcome& o : outcome) {
    if (o.failed) {
      if (o.failure.on_stderr) fatal_error_on_stderr(o.failure.message);
      fatal_error(o.failure.message);
    }
    if (o.out_of_memory) throw std::bad_alloc();
  }
}
