// Starting again with huge pages; see huge_pages.h.
#include "common/huge_pages.h"

#include <gnu/libc-version.h>
#include <malloc.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

constexpr const char* TUNABLE = "glibc.malloc.hugetlb";
// Set for the program started again, so that it never starts again itself,
// whatever became of the tunable on the way.
constexpr const char* STARTED_AGAIN = "TAVRIX_STARTED_WITH_HUGE_PAGES";

// Transparent huge pages go only to memory a program asks them for.
bool huge_pages_on_request() {
  std::ifstream mode("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string text;
  return std::getline(mode, text) && text.find("[madvise]") != std::string::npos;
}

// glibc knows the tunable from 2.35 on.
bool malloc_knows_the_tunable() {
  int major = 0, minor = 0;
  return std::sscanf(gnu_get_libc_version(), "%d.%d", &major, &minor) == 2 && (major > 2 || (major == 2 && minor >= 35));
}

// /proc/self/exe is this program as the kernel started it: not when the
// loader was run by name with the program as its argument (the kernel then
// started the loader, and no interpreter, AT_BASE 0), nor in secure
// execution (setuid, capabilities), where glibc drops the tunable anyway.
bool started_as_itself() { return getauxval(AT_BASE) != 0 && getauxval(AT_SECURE) == 0; }

}  // namespace

void prefer_huge_pages(char** argv) {
  mallopt(M_ARENA_MAX, 1);
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables != nullptr && std::strstr(tunables, TUNABLE) != nullptr) return;
  if (std::getenv(STARTED_AGAIN) != nullptr || !started_as_itself() || !malloc_knows_the_tunable() ||
      !huge_pages_on_request())
    return;
  const std::string before = tunables != nullptr ? tunables : "";
  const std::string value = (before.empty() ? "" : before + ":") + TUNABLE + "=1";
  if (setenv("GLIBC_TUNABLES", value.c_str(), 1) != 0 || setenv(STARTED_AGAIN, "1", 1) != 0) return;
  execv("/proc/self/exe", argv);
  // Still here: go on as started, with the environment as it was.
  if (tunables != nullptr)
    setenv("GLIBC_TUNABLES", before.c_str(), 1);
  else
    unsetenv("GLIBC_TUNABLES");
  unsetenv(STARTED_AGAIN);
}
