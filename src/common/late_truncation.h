// Output files whose old content goes while the run does other work.
//
// Opening a file for writing cuts away what it held before, and for the
// tens of megabytes an earlier run left the kernel takes about ten
// milliseconds to free their pages: time a run with a spare thread need not
// wait. Such a run opens the file without cutting it and has a thread of its
// own cut it; nothing is written before wait(). Whatever way the run ends,
// the process does not end before the cut (an exit waits for it), so the
// file is left as an open that cut it at once would have left it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/common.h"

class LateTruncation {
 public:
  LateTruncation() = default;
  ~LateTruncation();
  LateTruncation(const LateTruncation&) = delete;
  LateTruncation& operator=(const LateTruncation&) = delete;

  // Opens name for writing, as open_file(name, "w") does and with its
  // message when it cannot. The old content is cut on another thread when
  // `behind` and the file is a regular file that none of `read` is (a file
  // this run will still read must be cut before it does), else here.
  FilePtr open(const std::string& name, bool behind, const std::vector<std::string>& read = {});
  // Returns once the old content is gone; a cut that failed ends the run as
  // a failed write of the file.
  void wait();

 private:
  struct Cut;  // shared with the thread that cuts, which nobody joins
  std::shared_ptr<Cut> cut_;
  std::string name_;
  int error_ = 0;  // errno of a failed cut
};
