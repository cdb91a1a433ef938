// tavrix-matrix: writes the compound-by-descriptor count matrix of a Tavrix
// descriptor file (STEM.out) as STEM.mtx (Matrix Market) and STEM.rows.
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
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
  ToolCommandLine line{"tavrix-matrix", USAGE, {}, false, true};
  line.options = {
      {"-n", true,
       [&](const char* value) -> std::optional<std::string> {
         if (parse_columns(value, request.columns)) return std::nullopt;
         return "-n takes a number of columns from 0 to 2147483647, not \"" + std::string(value) + "\"";
       }},
      {"-o", true,
       [&](const char* value) -> std::optional<std::string> {
         request.stem = value;
         stem_given = true;
         return std::nullopt;
       }},
  };
  std::vector<std::string> files;
  if (const std::optional<int> status = read_command_line(line, argc, argv, files)) return *status;
  if (files.empty()) return usage_error(line, "no descriptor file given");
  if (files.size() > 1) return usage_error(line, "one descriptor file at a time");
  request.input = files[0];
  if (!stem_given) request.stem = default_stem(request.input);
  const std::string fault = export_matrix(request);
  if (!fault.empty()) {
    std::fprintf(stderr, "%s\n", fault.c_str());
    return 1;
  }
  return 0;
}
