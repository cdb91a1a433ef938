// tavrix-matrix: writes the compound-by-descriptor count matrix of a Tavrix
// descriptor file (STEM.out) as STEM.mtx (Matrix Market) and STEM.rows.
#include <cstdio>
#include <cstring>
#include <string>

#include "common/common.h"
#include "matrix_export.h"

namespace {

const char USAGE[] =
    "usage: tavrix-matrix [-n COLUMNS] [-o STEM] DESCRIPTOR_FILE\n"
    "\n"
    "Reads a Tavrix descriptor file (STEM.out) and writes\n"
    "  STEM.mtx   the compound-by-descriptor count matrix, Matrix Market\n"
    "             coordinate format, integer, general; row i is the i-th\n"
    "             compound of the file, column j is descriptor j\n"
    "  STEM.rows  the compound names, one per line, in row order\n"
    "where STEM is DESCRIPTOR_FILE without its final \".out\".\n"
    "\n"
    "  -n COLUMNS  number of columns (the number of descriptors of the run);\n"
    "              default: the largest descriptor number in the file\n"
    "  -o STEM     write STEM.mtx and STEM.rows instead\n"
    "  -h, --help  print this text\n"
    "\n"
    "Exit status: 0 on success, 1 for a malformed or unreadable descriptor\n"
    "file or an output that cannot be written, 2 for a wrong command line.\n";

int usage_error(const std::string& message) {
  std::fprintf(stderr, "tavrix-matrix: %s\n\n%s", message.c_str(), USAGE);
  return 2;
}

// A column count: unsigned decimal digits only, at most 2147483647.
bool parse_columns(const char* text, long long& value) {
  value = 0;
  if (*text == '\0') return false;
  for (const char* p = text; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + (*p - '0');
    if (value > 2147483647) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  open_standard_descriptors();
  ExportRequest request;
  bool stem_given = false;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      std::fputs(USAGE, stdout);
      return 0;
    }
    if (arg == "-n" || arg == "-o") {
      if (i + 1 >= argc) return usage_error(arg + " needs a value");
      const char* value = argv[++i];
      if (arg == "-o") {
        request.stem = value;
        stem_given = true;
      } else if (!parse_columns(value, request.columns)) {
        return usage_error("-n takes a number of columns from 0 to 2147483647, not \"" + std::string(value) + "\"");
      }
      continue;
    }
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg.size() > 1 && arg[0] == '-') return usage_error("unknown option " + arg);
    break;
  }
  if (i >= argc) return usage_error("no descriptor file given");
  if (i + 1 < argc) return usage_error("one descriptor file at a time");
  request.input = argv[i];
  if (!stem_given) request.stem = default_stem(request.input);
  const std::string fault = export_matrix(request);
  if (!fault.empty()) {
    std::fprintf(stderr, "%s\n", fault.c_str());
    return 1;
  }
  return 0;
}
