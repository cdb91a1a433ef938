// The growing line reader used for the label dictionary file.
#include "common/common.h"

#include <cstdlib>
#include <cstring>

namespace {
// Reads at most want characters into dst, stopping after a newline; returns
// the number read (0 at end of file). Unlike fgets it counts embedded NULs.
// The stream is read by one thread at a time, so the lock getc takes for
// every character buys nothing.
std::size_t read_some(char* dst, std::size_t want, std::FILE* stream) {
  std::size_t n = 0;
  while (n < want) {
    int c = getc_unlocked(stream);
    if (c == EOF) break;
    dst[n++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  dst[n] = '\0';
  return n;
}
}  // namespace

bool read_line(std::vector<char>& buffer, std::size_t& size, std::FILE* stream) {
  if (size < 2) {
    fatal_error_on_stderr(format_text("%s:%d: input buffer size must be greater than 1\n", __FILE_NAME__, __LINE__));
  }
  if (buffer.size() < size) buffer.resize(size);
  std::size_t got = read_some(buffer.data(), size - 1, stream);
  if (got == 0) return false;
  if (got < size - 1 || buffer[got - 1] == '\n') return true;
  std::size_t held = got;
  for (std::size_t increment = 5;; increment *= 2) {
    size += increment;
    buffer.resize(size);
    got = read_some(buffer.data() + held, increment, stream);
    if (got == 0) return false;
    held += got;
    if (got < increment || buffer[held - 1] == '\n') return true;
  }
}

