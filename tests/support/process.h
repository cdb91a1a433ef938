// Test support: running the built Tavrix binary in a scratch folder and
// reading the files it leaves.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

// A death test on a message printed to standard output: the child sends its
// standard output to the standard error that the death test matches.
#define EXPECT_EXIT_WITH_OUTPUT(statement, status, regex)                       \
  EXPECT_EXIT(                                                                  \
      {                                                                         \
        std::fflush(stdout);                                                    \
        dup2(2, 1);                                                             \
        statement;                                                              \
      },                                                                        \
      ::testing::ExitedWithCode(status), regex)

namespace testsupport {

struct RunResult {
  int status = -1;   // exit status, or -1 when the process ended by a signal
  std::string out;   // standard output
  std::string err;   // standard error
};

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
}

inline bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

inline std::string make_temp_dir() {
  char pattern[] = "/tmp/tavrix-test-XXXXXX";
  const char* dir = mkdtemp(pattern);
  if (dir == nullptr) std::abort();
  return dir;
}

inline void remove_tree(const std::string& dir) {
  std::string cmd = "rm -rf '" + dir + "'";
  if (std::system(cmd.c_str()) != 0) std::abort();
}

// The contents of an xz-compressed file.
inline std::string unxz(const std::string& path) {
  std::string cmd = "xz -dc '" + path + "'";
  std::FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) std::abort();
  std::string data;
  char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) data.append(buf, n);
  if (pclose(p) != 0) std::abort();
  return data;
}

// Runs a program with the given arguments in folder cwd, capturing both
// streams; env holds "NAME=value" settings added to its environment.
inline RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                             const std::string& cwd, const std::vector<std::string>& env = {}) {
  const std::string out_path = cwd + "/.stdout.capture", err_path = cwd + "/.stderr.capture";
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(127);
    for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
    if (!std::freopen(out_path.c_str(), "w", stdout) || !std::freopen(err_path.c_str(), "w", stderr)) _exit(127);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  RunResult r;
  r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  r.out = read_file(out_path);
  r.err = read_file(err_path);
  std::remove(out_path.c_str());
  std::remove(err_path.c_str());
  return r;
}

#ifdef TAVRIX_BINARY
inline RunResult run_tavrix(const std::vector<std::string>& args, const std::string& cwd,
                            const std::vector<std::string>& env = {}) {
  return run_program(TAVRIX_BINARY, args, cwd, env);
}
#endif

}  // namespace testsupport
