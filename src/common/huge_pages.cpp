// Starting again with huge pages; see huge_pages.h.
#include "common/huge_pages.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

constexpr const char* TUNABLE = "glibc.malloc.hugetlb";

// Transparent huge pages go only to memory a program asks them for.
bool huge_pages_on_request() {
  std::ifstream mode("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string text;
  return std::getline(mode, text) && text.find("[madvise]") != std::string::npos;
}

}  // namespace

void prefer_huge_pages(char** argv) {
  mallopt(M_ARENA_MAX, 1);
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables != nullptr && std::strstr(tunables, TUNABLE) != nullptr) return;
  if (!huge_pages_on_request()) return;
  const std::string before = tunables != nullptr ? tunables : "";
  const std::string value = (before.empty() ? "" : before + ":") + TUNABLE + "=1";
  if (setenv("GLIBC_TUNABLES", value.c_str(), 1) != 0) return;
  execv("/proc/self/exe", argv);
  // Still here: go on as started, with the environment as it was.
  if (tunables != nullptr)
    setenv("GLIBC_TUNABLES", before.c_str(), 1);
  else
    unsetenv("GLIBC_TUNABLES");
}
