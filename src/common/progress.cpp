// The progress line on a terminal: counting, pacing and drawing.
#include "common/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace {

using std::chrono::duration;
using std::chrono::milliseconds;

constexpr auto QUIET_START = std::chrono::seconds(1);  // short runs never show a line
constexpr auto PRINT_GAP = milliseconds(200);          // at most five rewrites a second
// The clock is read about every CHECK_GAP: the stride of compounds between
// readings doubles while readings come faster than that and halves when they
// come much slower (large compounds at long lengths take milliseconds each).
constexpr auto CHECK_GAP = milliseconds(20);
constexpr int MAX_STRIDE = 4096;

std::string rate_text(double per_second) {
  char buf[32];
  if (per_second < 999.5) std::snprintf(buf, sizeof buf, "%.0f", per_second);
  else if (per_second < 999950) std::snprintf(buf, sizeof buf, "%.1fk", per_second / 1e3);
  else std::snprintf(buf, sizeof buf, "%.1fM", per_second / 1e6);
  return buf;
}

std::string time_text(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) return "?";
  if (seconds < 0.5) return "<1s";
  if (seconds > 99.0 * 3600) return ">99h";
  const long long s = std::llround(seconds);
  char buf[32];
  if (s < 60) std::snprintf(buf, sizeof buf, "%llds", s);
  else if (s < 3600) std::snprintf(buf, sizeof buf, "%lldm%02llds", s / 60, s % 60);
  else std::snprintf(buf, sizeof buf, "%lldh%02lldm", s / 3600, s / 60 % 60);
  return buf;
}

void draw(Progress& p, const std::string& text) {
  std::string line(1, '\r');
  line.append(text, 0, p.width);
  const std::size_t length = line.size() - 1;
  // Blanks over the rest of a longer previous line; the cursor then stays
  // at the end, where nothing else is written until the line is cleared.
  if (length < p.shown) line.append(p.shown - length, ' ');
  std::fwrite(line.data(), 1, line.size(), p.stream);
  std::fflush(p.stream);
  p.shown = std::max(length, p.shown);
}

void clear(Progress& p) {
  if (p.shown == 0) return;
  // Blanks rather than an erase sequence: right on every terminal.
  std::string blank(p.shown + 2, ' ');
  blank.front() = blank.back() = '\r';
  std::fwrite(blank.data(), 1, blank.size(), p.stream);
  std::fflush(p.stream);
  p.shown = 0;
}

}  // namespace

void progress_start_on(Progress& p, std::FILE* stream, std::size_t width, int n_compounds, int lmin, int lmax,
                       ProgressClock::time_point now) {
  p = Progress{};
  p.enabled = true;
  p.stream = stream;
  p.width = std::max<std::size_t>(width, 1);
  p.n = n_compounds;
  p.lmin = lmin;
  p.lmax = lmax;
  p.start = p.last_check = now;
  p.next_print = now + QUIET_START;
}

void progress_start(Progress& p, int n_compounds, int lmin, int lmax) {
  p = Progress{};
  if (!isatty(STDERR_FILENO)) return;
  winsize size{};
  std::size_t width = 79;
  // The last column is left free: writing there wraps the line on some terminals.
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1) width = size.ws_col - 1;
  progress_start_on(p, stderr, width, n_compounds, lmin, lmax, ProgressClock::now());
}

void progress_start_writing(Progress& p, int n_compounds) {
  progress_start(p, n_compounds, 0, 0);
  p.writing = true;
}

void progress_start_numbering(Progress& p, int n_fragments) {
  progress_start(p, n_fragments, 0, 0);
  p.numbering = true;
}

std::string progress_text(int lmin, int lmax, int done, int n, double fragments_per_second, double seconds_left) {
  const std::string lengths =
      lmin == lmax ? "length " + std::to_string(lmin) : "lengths " + std::to_string(lmin) + "-" + std::to_string(lmax);
  return "counting " + lengths + ": " + std::to_string(done) + "/" + std::to_string(n) + " compounds, " +
         rate_text(fragments_per_second) + " frag/s, done in ~" + time_text(seconds_left);
}

void progress_update_at(Progress& p, int compounds_done, long long fragments_so_far, ProgressClock::time_point now) {
  if (!p.enabled) return;
  if (compounds_done >= p.n) {
    clear(p);
    return;
  }
  if (now < p.next_print) return;
  p.next_print = now + PRINT_GAP;
  const double elapsed = duration<double>(now - p.start).count();
  const double rate = elapsed > 0 ? static_cast<double>(fragments_so_far) / elapsed : 0;
  const double left = compounds_done > 0 ? elapsed * (p.n - compounds_done) / compounds_done : -1;
  if (p.numbering)
    draw(p, "numbering and writing the structure file: " + std::to_string(compounds_done) + "/" + std::to_string(p.n) +
                " fragments, done in ~" + time_text(left));
  else if (p.writing)
    draw(p, "writing the descriptor file: " + std::to_string(compounds_done) + "/" + std::to_string(p.n) +
                " compounds, done in ~" + time_text(left));
  else
    draw(p, progress_text(p.lmin, p.lmax, compounds_done, p.n, rate, left));
}

void progress_update(Progress& p, int compounds_done, long long fragments_so_far) {
  if (!p.enabled) return;
  // The last compound always counts: it clears the line.
  if (--p.countdown > 0 && compounds_done < p.n) return;
  const ProgressClock::time_point now = ProgressClock::now();
  if (now - p.last_check < CHECK_GAP / 2) p.stride = std::min(p.stride * 2, MAX_STRIDE);
  else if (now - p.last_check > CHECK_GAP * 4) p.stride = std::max(p.stride / 2, 1);
  p.countdown = p.stride;
  p.last_check = now;
  progress_update_at(p, compounds_done, fragments_so_far, now);
}

void progress_clear(Progress& p) {
  if (p.enabled && p.shown > 0) clear(p);
}

void progress_finish(Progress& p) {
  if (!p.enabled) return;
  clear(p);
  p.enabled = false;
}
