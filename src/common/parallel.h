// Work split into parts run at once: part 0 on the calling thread, the others
// on threads of their own, all joined before returning.
#pragma once

#include <algorithm>
#include <atomic>
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

// Runs work(c, t) for every chunk c in 0 .. chunks - 1 on up to `threads`
// threads t (0 .. threads - 1, one chunk at a time on each, so that t may
// name the thread's own scratch), each taking the next chunk not yet taken:
// a thread that runs
// faster (its core less busy, or quicker) takes more, and none holds the
// others up with an even share it cannot finish as soon. A failure is
// reported once every thread has ended, the lowest chunk's first.
template <class Work>
void run_chunks(int threads, int chunks, const Work& work) {
  if (threads <= 1 || chunks <= 1) {
    for (int c = 0; c < chunks; ++c) work(c, 0);
    return;
  }
  std::vector<PartOutcome> outcome(chunks);
  std::atomic<int> next{0};
  run_parts(std::min(threads, chunks), [&](int t) {
    for (int c; (c = next.fetch_add(1, std::memory_order_relaxed)) < chunks;)
      run_guarded(outcome[c], [&] { work(c, t); });
  });
  report_outcomes(outcome);
}
