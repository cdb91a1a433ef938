// Writing one window of formatted output while the next is formatted.
//
// Large outputs are formatted a window at a time on every thread and written
// in order. Writing (copying into the page cache) takes a good part of the
// time, so it is handed to a thread of its own: the caller formats window
// k + 1 while window k is written. Bytes still reach the file in the order
// handed over, so the file is the same as written in one thread.
#pragma once

#include <cstdio>
#include <string_view>
#include <thread>
#include <vector>

class WriteBehind {
 public:
  // Without `behind`, each write is made at once on the calling thread: a
  // run asked to use one thread uses one.
  WriteBehind(std::FILE* file, bool behind) : file_(file), behind_(behind) {}
  // Waits for the writes handed over.
  ~WriteBehind() { wait(); }
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;

  // Writes the pieces, in order, once what was handed over before is
  // written. They must stay as they are until wait() returns.
  void write(std::vector<std::string_view> pieces);
  // Waits until everything handed over is written. After a failed write,
  // errno holds its reason, as after writing on this thread.
  void wait();

 private:
  void write_now();

  std::FILE* file_;
  bool behind_;
  std::vector<std::string_view> pieces_;
  std::thread thread_;
  int error_ = 0;
};
