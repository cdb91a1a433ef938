// The tools' command line; see command_line.h.
#include "command_line.h"

#include <cstdio>
#include <cstring>

int usage_error(const ToolCommandLine& line, const std::string& message) {
  std::fprintf(stderr, "%s: %s\n\n%s", line.program, message.c_str(), line.usage);
  return 2;
}

std::optional<int> read_command_line(const ToolCommandLine& line, int argc, char** argv,
                                     std::vector<std::string>& files) {
  bool options_over = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_over) {
      files.push_back(arg);
      continue;
    }
    if (arg == "-h" || arg == "--help") {
      std::fputs(line.usage, stdout);
      return 0;
    }
    const ToolOption* option = nullptr;
    for (const ToolOption& o : line.options)
      if (arg == o.name) option = &o;
    if (option != nullptr) {
      const char* value = nullptr;
      if (option->takes_value) {
        if (i + 1 >= argc) return usage_error(line, arg + " needs a value");
        value = argv[++i];
      }
      if (const std::optional<std::string> refused = option->take(value)) return usage_error(line, *refused);
      continue;
    }
    if (line.double_dash && arg == "--") {
      options_over = true;
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-' && files.empty()) return usage_error(line, "unknown option " + arg);
    files.push_back(arg);
    if (!line.options_after_files) options_over = true;
  }
  return std::nullopt;
}
