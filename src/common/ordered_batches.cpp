// Helpers of ordered batches; see ordered_batches.h.
#include "common/ordered_batches.h"

#include <exception>

TaskQueue::TaskQueue(int helpers) {
  threads_.reserve(static_cast<std::size_t>(std::max(helpers, 0)));
  try {
    for (int i = 0; i < helpers; ++i) threads_.emplace_back([this, i] { serve(i); });
  } catch (const std::exception&) {
    // The system refused a thread (an address-space limit, a limit on
    // processes), or the memory for one: the work is shared by those there
    // are.
  } catch (...) {
    // No destructor runs for a queue that was never made.
    stop_all();
    throw;
  }
}

TaskQueue::~TaskQueue() { stop_all(); }

void TaskQueue::stop_all() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  work_.notify_all();
  for (std::thread& t : threads_) t.join();
  threads_.clear();
}

void TaskQueue::submit(BatchTask& task) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    task.done = false;
    queue_.push_back(&task);
  }
  work_.notify_one();
}

// Takes the next task, runs it as worker `self` without the lock, and marks
// it done; the lock is held on entry and on return.
void TaskQueue::run_next(std::unique_lock<std::mutex>& lock, int self) {
  BatchTask* task = queue_.front();
  queue_.pop_front();
  lock.unlock();
  task->run(self);
  lock.lock();
  task->done = true;
}

bool TaskQueue::help_or_wait(BatchTask& task, int self) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (task.done) return true;
  if (queue_.empty()) {
    finished_.wait(lock, [&task] { return task.done; });
    return true;
  }
  run_next(lock, self);
  return task.done;
}

void TaskQueue::serve(int worker) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    work_.wait(lock, [this] { return stop_ || !queue_.empty(); });
    if (stop_) return;
    run_next(lock, worker);
    // Only the caller waits for tasks to be done.
    finished_.notify_one();
  }
}
