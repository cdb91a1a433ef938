// Shared by the fuzz targets: a private scratch folder, the input written to a
// file there (the readers take a file name and write the dictionary beside
// it), and the checks a compound graph must pass whenever a reader accepts it.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "common/common.h"
#include "graph/graph.h"

namespace fuzzsupport {

// One folder per process, so two fuzzers (or -jobs) never share files;
// removed when the fuzzer ends normally (a crash leaves it for a look).
inline const std::string& scratch_dir() {
  // Never destroyed, so the exit handler still finds it after static destructors.
  static const std::string* dir = [] {
    char pattern[] = "/tmp/tavrix-fuzz-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(*dir, ignored);
    });
    return new std::string(pattern);
  }();
  return *dir;
}

inline std::string write_input(const std::string& name, const std::uint8_t* data, std::size_t size) {
  const std::string path = scratch_dir() + "/" + name;
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) std::abort();
  if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
  std::fclose(f);
  return path;
}

// Messages and progress lines would flood the fuzzer's own output.
inline void silence_stdout() {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
}

#define FUZZ_REQUIRE(cond)                                                   \
  do {                                                                       \
    if (!(cond)) {                                                           \
      std::fprintf(stderr, "%s:%d: accepted input broke: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                          \
    }                                                                        \
  } while (0)

// A compound graph as the readers promise it: at most 999 atoms and 499
// bonds, vid[k] = k, offsets that run from 0 to es, entries sorted by target
// with no self loop and no repeat, every bond present from both ends with
// the same label, and labels that index the dictionary's sets.
inline void check_compound(const Graph& g, const LabelDictionary& dict) {
  FUZZ_REQUIRE(g.vs >= 0 && g.vs <= 999);
  FUZZ_REQUIRE(g.es >= 0 && g.es % 2 == 0 && g.es <= 998);
  FUZZ_REQUIRE(g.v.size() == static_cast<std::size_t>(g.vs) + 1);
  FUZZ_REQUIRE(g.vid.size() >= static_cast<std::size_t>(g.vs) && g.vl.size() >= static_cast<std::size_t>(g.vs));
  FUZZ_REQUIRE(g.e.size() >= static_cast<std::size_t>(g.es) && g.el.size() >= static_cast<std::size_t>(g.es));
  FUZZ_REQUIRE(g.v[0] == 0 && g.v[g.vs] == g.es);
  for (int i = 0; i < g.vs; ++i) {
    FUZZ_REQUIRE(g.vid[i] == i);
    FUZZ_REQUIRE(g.vl[i] >= 0 && static_cast<std::uint32_t>(g.vl[i]) < dict.vertex_labels.count);
    FUZZ_REQUIRE(g.v[i] <= g.v[i + 1]);
    for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
      const int u = g.e[j];
      FUZZ_REQUIRE(u >= 0 && u < g.vs && u != i);
      FUZZ_REQUIRE(j == g.v[i] || g.e[j - 1] < u);
      FUZZ_REQUIRE(g.el[j] >= 0 && static_cast<std::uint32_t>(g.el[j]) < dict.edge_labels.count);
      bool back = false;
      for (int r = g.v[u]; r < g.v[u + 1]; ++r)
        if (g.e[r] == i) back = g.el[r] == g.el[j];
      FUZZ_REQUIRE(back);
    }
  }
}

}  // namespace fuzzsupport
