// The command line of the tools beside Tavrix: options with or without a
// value, -h and --help, the files, and one way to refuse a wrong command
// line (the message, then the usage text, on standard error; status 2).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

struct ToolOption {
  const char* name;
  bool takes_value;
  // Takes the option (and its value, else nullptr); a message refuses it.
  std::function<std::optional<std::string>(const char* value)> take;
};

struct ToolCommandLine {
  const char* program;  // names the tool in its messages
  const char* usage;
  std::vector<ToolOption> options;
  // Options may follow the files (an unknown one there is a file); else the
  // first file ends the options.
  bool options_after_files = false;
  // "--" ends the options, for files whose names begin with '-'.
  bool double_dash = false;
};

// "<program>: <message>", an empty line and the usage text on standard
// error; returns the exit status of a wrong command line, 2.
int usage_error(const ToolCommandLine& line, const std::string& message);

// Reads argv[1..] into the options and files. Returns the status to exit
// with at once (0 after the usage text on standard output for -h or
// --help, 2 after usage_error), or nothing to go on.
std::optional<int> read_command_line(const ToolCommandLine& line, int argc, char** argv,
                                     std::vector<std::string>& files);
