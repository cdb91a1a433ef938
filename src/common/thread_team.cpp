// A team of threads for short jobs; see thread_team.h.
#include "common/thread_team.h"

#include <chrono>
#include <exception>

namespace {

// How long a thread waits awake for the next job before it sleeps: longer
// than the pause between windows, short enough that a team left without
// work soon stops taking a processor.
constexpr auto AWAKE = std::chrono::microseconds(300);

}  // namespace

ThreadTeam::ThreadTeam(int threads) {
  try {
    for (int t = 1; t < threads; ++t) threads_.emplace_back([this, t] { serve(t); });
  } catch (const std::exception&) {
    // Fewer threads: the system refused more (an address-space limit, for
    // one, may refuse their stacks).
  }
}

ThreadTeam::~ThreadTeam() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) t.join();
}

void ThreadTeam::take_chunks(int thread) {
  for (int c; (c = next_.fetch_add(1, std::memory_order_relaxed)) < chunks_;)
    run_guarded(outcome_[c], [&] { (*work_)(c, thread); });
}

void ThreadTeam::run(int chunks, const std::function<void(int, int)>& work) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    work_ = &work;
    chunks_ = chunks;
    next_.store(0, std::memory_order_relaxed);
    outcome_.assign(chunks, PartOutcome{});
    busy_ = static_cast<int>(threads_.size());
    job_.fetch_add(1, std::memory_order_release);
  }
  wake_.notify_all();
  take_chunks(0);
  {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return busy_ == 0; });
  }
  report_outcomes(outcome_);
}

void ThreadTeam::serve(int thread) {
  std::uint64_t seen = 0;
  for (;;) {
    const auto until = std::chrono::steady_clock::now() + AWAKE;
    // Awake, but giving way to any other thread ready to run.
    while (job_.load(std::memory_order_acquire) == seen && std::chrono::steady_clock::now() < until)
      std::this_thread::yield();
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [&] { return stop_ || job_.load(std::memory_order_relaxed) != seen; });
      if (stop_) return;
      seen = job_.load(std::memory_order_relaxed);
    }
    take_chunks(thread);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (--busy_ == 0) done_.notify_one();
    }
  }
}
