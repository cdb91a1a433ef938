// Output files that never lose data in silence: a write, flush or close that
// fails ends the run with the file's name and the system's reason, so that a
// full disk or a size limit never passes for a complete run.
#include "common/common.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

[[noreturn]] void refuse_write(const std::string& name, int error) {
  // A stream error without an errno (none recorded) is still a loss.
  fatal_error(format_text("can't write a file '%s': %s\n", name.c_str(), std::strerror(error != 0 ? error : EIO)));
}

}  // namespace

void check_written(std::FILE* f, const std::string& name) {
  // Called right after the writes, so errno still holds the failing call's reason.
  if (std::ferror(f)) refuse_write(name, errno);
}

void close_written(FilePtr& f, const std::string& name) {
  std::FILE* raw = f.release();
  const int earlier = errno;
  int error = std::fflush(raw) == 0 ? 0 : errno;
  const bool lost = error != 0 || std::ferror(raw);
  if (std::fclose(raw) != 0 && error == 0) error = errno;
  if (lost && error == 0) error = earlier;
  if (lost || error != 0) refuse_write(name, error);
}

void open_standard_descriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // open takes the lowest free descriptor: this one, as those below are open.
    if (open("/dev/null", O_RDWR) != fd) std::_Exit(1);
  }
}
