// The progress line: its pacing and drawing at given moments, and whole runs
// with standard error on a pseudo-terminal and redirected to a file.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>

#include <algorithm>
#include <chrono>

#include "common/progress.h"
#include "support/process.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

std::string blanked(std::size_t width) {
  std::string text(width + 2, ' ');
  text.front() = text.back() = '\r';
  return text;
}

// Everything written to a scratch stream so far.
std::string written(std::FILE* f) {
  std::fflush(f);
  const long size = std::ftell(f);
  std::string data(static_cast<std::size_t>(size), '\0');
  std::rewind(f);
  if (std::fread(data.data(), 1, data.size(), f) != data.size()) data.clear();
  std::fseek(f, 0, SEEK_END);
  return data;
}

// Runs Tavrix with standard error on a fresh pseudo-terminal and standard
// output in a file; err receives what reached the terminal.
RunResult run_on_terminal(const std::vector<std::string>& args, const std::string& cwd) {
  RunResult r;
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return r;
  const std::string slave_name = ptsname(master);
  const std::string out_path = cwd + "/.stdout.capture";
  const pid_t pid = fork();
  if (pid == 0) {
    setsid();
    const int slave = open(slave_name.c_str(), O_RDWR);
    if (slave < 0 || chdir(cwd.c_str()) != 0) _exit(127);
    termios raw{};
    tcgetattr(slave, &raw);
    cfmakeraw(&raw);  // the bytes as written, no "\n" to "\r\n"
    tcsetattr(slave, TCSANOW, &raw);
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int in = open("/dev/null", O_RDONLY);
    dup2(in, 0);
    dup2(out, 1);
    dup2(slave, 2);
    close(slave);
    close(master);
    std::vector<char*> argv{const_cast<char*>(TAVRIX_BINARY)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(TAVRIX_BINARY, argv.data());
    _exit(127);
  }
  // Read until the terminal's last holder, the child, has gone (EIO).
  char buf[4096];
  ssize_t n;
  while ((n = read(master, buf, sizeof buf)) > 0) r.err.append(buf, static_cast<std::size_t>(n));
  close(master);
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  r.out = read_file(out_path);
  std::remove(out_path.c_str());
  return r;
}

}  // namespace

TEST(progress_line, stays_quiet_for_the_first_second_then_rewrites_at_most_five_times_a_second) {
  std::FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  const auto t0 = ProgressClock::time_point{} + 1000s;
  Progress p;
  progress_start_on(p, f, 79, 1000, 1, 7, t0);
  progress_update_at(p, 100, 5000, t0 + 500ms);
  progress_update_at(p, 199, 9000, t0 + 999ms);
  EXPECT_EQ(written(f), "");

  progress_update_at(p, 250, 20000, t0 + 1000ms);
  const std::string first = "\rcounting lengths 1-7: 250/1000 compounds, 20.0k frag/s, done in ~3s";
  EXPECT_EQ(written(f), first);
  progress_update_at(p, 260, 21000, t0 + 1199ms);
  EXPECT_EQ(written(f), first);
  progress_update_at(p, 500, 40000, t0 + 1200ms);
  const std::string second = "\rcounting lengths 1-7: 500/1000 compounds, 33.3k frag/s, done in ~1s";
  EXPECT_EQ(written(f), first + second);

  // The last compound clears the line at once, whatever the pacing.
  progress_update_at(p, 1000, 80000, t0 + 1250ms);
  const std::string blank = blanked(first.size() - 1);
  EXPECT_EQ(written(f), first + second + blank);
  progress_finish(p);  // nothing left to clear
  progress_update_at(p, 20, 5000, t0 + 9s);
  EXPECT_EQ(written(f), first + second + blank);
  std::fclose(f);
}

TEST(progress_line, text_shows_rates_and_times_in_readable_units) {
  EXPECT_EQ(progress_text(1, 7, 0, 100, 0, -1), "counting lengths 1-7: 0/100 compounds, 0 frag/s, done in ~?");
  EXPECT_EQ(progress_text(1, 7, 1, 100, 999.4, 59.4), "counting lengths 1-7: 1/100 compounds, 999 frag/s, done in ~59s");
  EXPECT_EQ(progress_text(1, 7, 1, 100, 999.6, 59.6), "counting lengths 1-7: 1/100 compounds, 1.0k frag/s, done in ~1m00s");
  EXPECT_EQ(progress_text(1, 7, 1, 100, 999960, 3599.4), "counting lengths 1-7: 1/100 compounds, 1.0M frag/s, done in ~59m59s");
  EXPECT_EQ(progress_text(1, 7, 1, 100, 1e12, 3600 * 25 + 60 * 7),
            "counting lengths 1-7: 1/100 compounds, 1000000.0M frag/s, done in ~25h07m");
  EXPECT_EQ(progress_text(4, 4, 1, 100, 5, 1e9), "counting length 4: 1/100 compounds, 5 frag/s, done in ~>99h");
}

TEST(progress_run, terminal_shows_the_line_and_a_redirected_run_writes_the_same_files_and_nothing_else) {
  // Long enough to pass the quiet first second: the public NCI set repeated,
  // lengths 1 to 7. The number of copies grows with the measured time, so
  // a fast build runs a larger set and a sanitized one a small set.
  const std::string dir = make_temp_dir(), term = dir + "/term", file = dir + "/file";
  ASSERT_EQ(mkdir(term.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(file.c_str(), 0755), 0);
  const std::string one = unxz(std::string(TAVRIX_TEST_DATA) + "/input/nci200.sdf.xz");
  int copies = 5;
  double seconds = 0;
  RunResult t;
  std::string many;
  for (;;) {
    many.clear();
    for (int i = 0; i < copies; ++i) many += one;
    write_file(term + "/set.sdf", many);
    const auto begin = std::chrono::steady_clock::now();
    t = run_on_terminal({"-lmax", "7", "set.sdf"}, term);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (seconds >= 2 || copies >= 400) break;
    copies = std::min(400, copies * std::max(2, static_cast<int>(3 / std::max(seconds, 0.01))));
  }
  write_file(file + "/set.sdf", many);
  many.clear();
  const RunResult f = run_tavrix({"-lmax", "7", "set.sdf"}, file);

  EXPECT_EQ(f.status, 1);
  EXPECT_EQ(t.status, 1);
  EXPECT_EQ(f.err, "");
  EXPECT_EQ(t.out, f.out);
  EXPECT_EQ(read_file(term + "/set.out"), read_file(file + "/set.out"));
  EXPECT_EQ(read_file(term + "/set_frag.sdf"), read_file(file + "/set_frag.sdf"));
  EXPECT_FALSE(file_exists(term + "/set.sdf.dict"));

  // On the terminal: rewrites of one line only, never a line feed, and the
  // line blanked at the end.
  EXPECT_EQ(t.err.find('\n'), std::string::npos);
  if (!t.err.empty()) {
    ASSERT_GE(t.err.size(), 3u);
    EXPECT_EQ(t.err[0], '\r');
    const std::size_t start = t.err.rfind('\r', t.err.size() - 2);
    const std::size_t width = t.err.size() - start - 2;
    EXPECT_EQ(t.err.substr(start), blanked(width));
    // The blanks cover the last text drawn.
    const std::size_t before = start > 0 ? t.err.rfind('\r', start - 1) : 0;
    EXPECT_GE(width, start - before - 1);
    EXPECT_GT(width, 0u);
  }
  remove_tree(dir);
  if (seconds < 2) GTEST_SKIP() << "the run took " << seconds << " s: too short to expect the line";
  EXPECT_NE(t.err.find("\rcounting lengths 1-7: "), std::string::npos) << t.err;
  const std::string done = std::string(1, '/').append(std::to_string(200 * copies)).append(" compounds, ");
  EXPECT_NE(t.err.find(done), std::string::npos) << t.err;
}
