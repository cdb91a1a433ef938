// An input cut into batches, worked on by several threads, finished in input
// order: how every program of the project counts or matches compounds.
//
// The calling thread reads the input into batches and hands them over; it
// finishes them (merges a run's counts, writes a program's rows) strictly in
// input order. While the oldest batch is still being worked on, it works on
// batches itself rather than wait, reading more after each: with n threads
// asked for, n - 1 helpers and the caller share the work, so n processors
// are busy and none is left switching between a reader and n workers.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "common/common.h"

// Work handed to helper threads. A task keeps its own failures: run() must
// not throw.
struct BatchTask {
  virtual ~BatchTask() = default;
  // `worker` names the thread's own scratch: 0 .. threads - 1.
  virtual void run(int worker) = 0;
  bool done = false;
};

// Helper threads taking tasks in the order they are handed over; stopped and
// joined however the caller ends (tasks not yet taken are dropped).
class TaskQueue {
 public:
  // As many of `helpers` threads as the system lets this process start (an
  // address-space limit, for one, may refuse their stacks).
  explicit TaskQueue(int helpers);
  ~TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  int helpers() const { return static_cast<int>(threads_.size()); }
  void submit(BatchTask& task);
  // Unless task is done: runs one task not yet taken, as worker `self`, or
  // when there is none waits for task. Whether task is done.
  bool help_or_wait(BatchTask& task, int self);
  // Returns once task is done; meanwhile the caller runs tasks not yet
  // taken, as worker `self`.
  void finish(BatchTask& task, int self) {
    while (!help_or_wait(task, self)) {
    }
  }

 private:
  void serve(int worker);
  void run_next(std::unique_lock<std::mutex>& lock, int self);
  void stop_all();

  std::mutex mutex_;
  std::condition_variable work_, finished_;
  std::deque<BatchTask*> queue_;
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

// Batches of type B (a BatchTask) in input order on `threads` threads, the
// caller's included; at most 4 per thread in flight.
template <class B>
class OrderedBatches {
 public:
  explicit OrderedBatches(int threads) {
    if (threads > 1) {
      queue_ = std::make_unique<TaskQueue>(threads - 1);
      if (queue_->helpers() == 0) queue_.reset();
    }
    threads_ = queue_ ? queue_->helpers() + 1 : 1;
  }

  // Threads sharing the work: the helpers started and the caller, who works
  // as the last of them.
  int threads() const { return threads_; }

  // Until the input ends: may_read(idle) says whether another batch may be
  // read now (idle: no batch is in flight, and then it must say yes; no
  // waits for the oldest to be finished first); read(b) fills b with the
  // next batch and says whether
  // the input goes on after it (B::empty() tells a batch that got nothing);
  // finish(b) takes each batch worked on, in input order. A Failure thrown
  // by read ends the reading: what was read before it, in that batch too, is
  // worked on and finished, then it is thrown again. Anything else read
  // throws, and whatever finish throws, leaves at once; the destructor then waits for the helpers, so whatever
  // the batches refer to must be made before this object.
  void run(const std::function<bool(bool idle)>& may_read, const std::function<bool(B&)>& read,
           const std::function<void(B&)>& finish) {
    // One thread finishes each batch as soon as it is read.
    const std::size_t limit = threads_ > 1 ? 4 * static_cast<std::size_t>(threads_) : 1;
    bool input_done = false, input_failed = false;
    Failure input_failure;
    while (true) {
      while (!input_done && in_flight_.size() < limit && may_read(in_flight_.empty())) {
        std::unique_ptr<B> b;
        if (!spare_.empty()) {
          b = std::move(spare_.front());
          spare_.pop_front();
        } else {
          b = std::make_unique<B>();
        }
        b->done = false;
        try {
          input_done = !read(*b);
        } catch (const Failure& f) {
          // The compounds read before it come first in input order: they
          // are worked on and finished before it is reported.
          input_done = input_failed = true;
          input_failure = f;
        }
        if (b->empty()) {
          input_done = true;
          spare_.push_back(std::move(b));
          break;
        }
        // Held in flight before a helper may take it: a failed push_back
        // must not free a batch being worked on.
        in_flight_.push_back(std::move(b));
        B& added = *in_flight_.back();
        if (queue_) {
          queue_->submit(added);
        } else {
          added.run(0);
          added.done = true;
        }
      }
      if (in_flight_.empty()) break;
      B& front = *in_flight_.front();
      // After each batch the caller works on, more are read, so that the
      // helpers keep finding batches while the oldest is still worked on.
      if (queue_ && !queue_->help_or_wait(front, threads_ - 1)) continue;
      finish(front);
      spare_.push_back(std::move(in_flight_.front()));
      in_flight_.pop_front();
    }
    if (input_failed) throw input_failure;
  }

 private:
  int threads_ = 1;
  // Declared before the helpers, so that however a run ends the helpers have
  // stopped before the batches they may be working on go away.
  std::deque<std::unique_ptr<B>> in_flight_, spare_;
  std::unique_ptr<TaskQueue> queue_;
};
