// The single way out of the process on failure, and checked allocation.
#include "common/common.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
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

namespace {
thread_local bool raise_failures = false;
thread_local FailureOverride override_hook = nullptr;
thread_local const void* override_context = nullptr;

[[noreturn]] void fail(std::string_view message, bool on_stderr) {
  std::string replaced;
  if (override_hook != nullptr) {
    // The hook may fail itself; it must not see its own failure again.
    const FailureOverride hook = override_hook;
    override_hook = nullptr;
    replaced = hook(override_context);
    override_hook = hook;
    if (!replaced.empty()) {
      message = replaced;
      on_stderr = false;
    }
  }
  if (raise_failures) throw Failure{std::string(message), on_stderr};
  if (on_stderr) std::fflush(stdout);
  std::fwrite(message.data(), 1, message.size(), on_stderr ? stderr : stdout);
  end_process(1);
}
}  // namespace

RaiseFailures::RaiseFailures() : previous_(raise_failures) { raise_failures = true; }
RaiseFailures::~RaiseFailures() { raise_failures = previous_; }

FailureOverrideScope::FailureOverrideScope(FailureOverride hook, const void* context)
    : previous_hook(override_hook), previous_context(override_context) {
  override_hook = hook;
  override_context = context;
}
FailureOverrideScope::~FailureOverrideScope() {
  override_hook = previous_hook;
  override_context = previous_context;
}

void fatal_error(std::string_view message) { fail(message, false); }
void fatal_error_on_stderr(std::string_view message) { fail(message, true); }

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
  if (raise_failures) throw Failure{format_text("%s:%d: internal check failed: %s\n", file, line, condition), true};
  std::fflush(stdout);
  std::fprintf(stderr, "%s:%d: internal check failed: %s\n", file, line, condition);
#ifdef TAVRIX_FUZZ_EXITS
  // A broken invariant is a bug whatever the input; the fuzzer must see it.
  std::abort();
#else
  std::exit(1);
#endif
}

void refuse_open(const std::string& name) { fatal_error(format_text("can't open a file '%s'\n", name.c_str())); }

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
  if (f == nullptr) refuse_open(name);
  return FilePtr(f);
}
