// The single way out of the process on failure, and checked allocation.
#include "common/common.h"

#include <cstdarg>
#include <cstdlib>
#include <new>
#include <sys/stat.h>

void end_process(int status) {
#ifdef TAVRIX_FUZZ_EXITS
  std::fflush(stdout);
  throw ProcessExit{status};
#else
  std::exit(status);
#endif
}

void fatal_error(std::string_view message) {
  std::fwrite(message.data(), 1, message.size(), stdout);
  end_process(1);
}

std::string format_text(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(nullptr, 0, fmt, args);
  va_end(args);
  std::string text(n > 0 ? n : 0, '\0');
  if (n > 0) std::vsnprintf(text.data(), n + 1, fmt, again);
  va_end(again);
  return text;
}

void internal_error(const char* condition, const char* file, int line) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s:%d: internal check failed: %s\n", file, line, condition);
#ifdef TAVRIX_FUZZ_EXITS
  // A broken invariant is a bug whatever the input; the fuzzer must see it.
  std::abort();
#else
  std::exit(1);
#endif
}

namespace {
void out_of_memory() {
  // No allocation may happen here: print with the C stream and leave.
  std::fprintf(stderr, "%s:%d: not enough memory\n", __FILE_NAME__, __LINE__);
  std::exit(1);
}
}  // namespace

void install_memory_handler() { std::set_new_handler(out_of_memory); }

FilePtr open_file(const std::string& name, const char* mode) {
  std::FILE* f = std::fopen(name.c_str(), mode);
  if (f != nullptr && mode[0] == 'r') {
    // fopen succeeds on a directory under Linux, and reading it then fails
    // in ways that look like an empty file; refuse it here instead.
    struct stat st;
    if (fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
      std::fclose(f);
      f = nullptr;
    }
  }
  if (f == nullptr) fatal_error(format_text("can't open a file '%s'\n", name.c_str()));
  return FilePtr(f);
}
