// Fuzz target: the label dictionary loader on an arbitrary file. It either
// refuses a line through the orderly exit or returns two sets that are sorted
// in byte order, free of repeats and of empty or whitespace-holding labels.
#include <cstdint>

#include "fuzz_support.h"
#include "input/input_internal.h"

namespace {
void check_set(const LabelSet& set) {
  FUZZ_REQUIRE(set.items.size() == set.count && set.count <= set.capacity);
  for (std::uint32_t i = 0; i < set.count; ++i) {
    const std::string& label = set.items[i];
    FUZZ_REQUIRE(!label.empty());
    for (char c : label) FUZZ_REQUIRE(c != ' ' && (c < '\t' || c > '\r') && c != '\0');
    FUZZ_REQUIRE(i == 0 || compare_labels(set.items[i - 1], label) < 0);
    FUZZ_REQUIRE(array_find(std::string_view(label), set, compare_labels) == i);
  }
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silence_stdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = fuzzsupport::write_input("labels.dict", data, size);
  try {
    LabelDictionary dict = load_label_dictionary(path);
    check_set(dict.edge_labels);
    check_set(dict.vertex_labels);
  } catch (const ProcessExit& e) {
    FUZZ_REQUIRE(e.status == 1);
  }
  return 0;
}
