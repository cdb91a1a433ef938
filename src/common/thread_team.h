// Threads kept for a run of many short jobs.
//
// Formatting output goes a window at a time, each window a job of a few
// milliseconds split into chunks. Threads started for each window would
// start late (on a virtual machine an idle processor takes a while to wake),
// and the calling thread would do most of the work itself. So a team starts
// its threads once; between jobs they wait a little awake, then asleep.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "common/parallel.h"

class ThreadTeam {
 public:
  // A team of `threads` threads: the caller's and as many more as the
  // system lets this process start.
  explicit ThreadTeam(int threads);
  ~ThreadTeam();
  ThreadTeam(const ThreadTeam&) = delete;
  ThreadTeam& operator=(const ThreadTeam&) = delete;

  // Threads of the team, the caller's included.
  int size() const { return static_cast<int>(threads_.size()) + 1; }

  // Runs work(c, t) for every chunk c in 0 .. chunks - 1 on the team's
  // threads t (the caller's is 0; one chunk at a time on each, so that t may
  // name the thread's own scratch), each taking the next chunk not yet
  // taken: a thread that runs faster (its processor less busy, or quicker)
  // takes more, and none holds the others up with an even share it cannot
  // finish as soon. A failure is reported once every thread is done with
  // the job, the lowest chunk's first, as run_parts (parallel.h) reports
  // one.
  template <class Work>
  void run_chunks(int chunks, const Work& work) {
    if (threads_.empty() || chunks <= 1) {
      for (int c = 0; c < chunks; ++c) work(c, 0);
      return;
    }
    run(chunks, std::function<void(int, int)>(std::cref(work)));
  }

 private:
  void run(int chunks, const std::function<void(int, int)>& work);
  void serve(int thread);
  void take_chunks(int thread);

  std::mutex mutex_;
  std::condition_variable wake_, done_;
  std::atomic<std::uint64_t> job_{0};  // jobs started
  bool stop_ = false;
  int busy_ = 0;  // threads still on the current job
  const std::function<void(int, int)>* work_ = nullptr;
  int chunks_ = 0;
  std::atomic<int> next_{0};
  std::vector<PartOutcome> outcome_;
  std::vector<std::thread> threads_;
};
