// Cutting the old content of an output file on another thread; see
// late_truncation.h.
#include "common/late_truncation.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <exception>
#include <thread>
#include <unistd.h>

namespace {

// Cuts under way. Trivially destructible, so that it is still there when
// the exit handler reads it, whatever else the exit has destroyed by then.
std::atomic<int> cuts_under_way{0};

void wait_for_cuts() {
  while (cuts_under_way.load(std::memory_order_acquire) != 0) std::this_thread::yield();
}

bool same_file(const struct stat& a, const std::string& other) {
  struct stat b;
  return stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

// The thread is detached, not joined: a run that ends by exit() never joins
// it, and the exit handler above waits for the cut instead.
struct LateTruncation::Cut {
  std::atomic<bool> done{false};
  int error = 0;
};

LateTruncation::~LateTruncation() {
  if (cut_ != nullptr) cut_->done.wait(false, std::memory_order_acquire);
}

FilePtr LateTruncation::open(const std::string& name, bool behind, const std::vector<std::string>& read) {
  name_ = name;
  if (!behind) return open_file(name, "w");
  // As fopen(name, "w") opens, but for the cut.
  const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT, 0666);
  std::FILE* f = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (f == nullptr) {
    if (fd >= 0) close(fd);
    refuse_open(name);
  }
  FilePtr file(f);
  // An open cuts only a regular file; other kinds ignore it.
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return file;
  for (const std::string& other : read) behind = behind && !same_file(st, other);
  // An empty file costs nothing to cut. The thread cuts through a descriptor
  // of its own: the file may be closed before the cut is done (a run ending
  // early), and its number reused.
  static const bool handler = std::atexit(wait_for_cuts) == 0;
  if (behind && st.st_size > 0 && handler) {
    auto cut = std::make_shared<Cut>();
    const int cut_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (cut_fd >= 0) {
      cuts_under_way.fetch_add(1, std::memory_order_acq_rel);
      try {
        std::thread([cut, cut_fd] {
          if (ftruncate(cut_fd, 0) != 0) cut->error = errno;
          close(cut_fd);
          cut->done.store(true, std::memory_order_release);
          cut->done.notify_all();
          cuts_under_way.fetch_sub(1, std::memory_order_acq_rel);
        }).detach();
        cut_ = std::move(cut);
        return file;
      } catch (const std::exception&) {
        // No thread to spare after all (or no memory for one): cut it here.
        close(cut_fd);
        cuts_under_way.fetch_sub(1, std::memory_order_acq_rel);
      }
    }
  }
  if (ftruncate(fd, 0) != 0) refuse_open(name);
  return file;
}

void LateTruncation::wait() {
  if (cut_ != nullptr) {
    cut_->done.wait(false, std::memory_order_acquire);
    error_ = cut_->error;
    cut_.reset();
  }
  if (error_ != 0) fatal_error(format_text("can't write a file '%s': %s\n", name_.c_str(), std::strerror(error_)));
}
