// The progress line: while a long run works on a terminal, one line on
// standard error that rewrites itself with the phase (counting, numbering and
// writing the structure file, writing the descriptor file), the lengths asked
// for, the compounds (or fragments) done, the fragments counted per second
// and the time left. Every length of a compound is counted in one go, so the
// counting line follows compounds.
// Off (and silent) whenever standard error is not a terminal, so pipes, files
// and CI logs see exactly the bytes of a run without it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

using ProgressClock = std::chrono::steady_clock;

struct Progress {
  bool enabled = false;
  std::FILE* stream = nullptr;  // where the line goes (standard error)
  std::size_t width = 79;       // characters the line may take without wrapping
  int n = 0, lmin = 0, lmax = 0;
  ProgressClock::time_point start;         // of the run; nothing shows for its first second
  ProgressClock::time_point next_print;    // earliest moment of the next rewrite
  ProgressClock::time_point last_check;    // last reading of the clock
  int stride = 1, countdown = 1;    // compounds between readings of the clock
  bool writing = false;             // the descriptor file is being written
  bool numbering = false;           // lengths are being numbered, n counts fragments
  std::size_t shown = 0;            // characters of the line now on screen, 0 for none
};

// Enables the line when standard error is a terminal; otherwise p stays off
// and every other call returns at once.
void progress_start(Progress& p, int n_compounds, int lmin, int lmax);

// The same for the phase that writes the descriptor file.
void progress_start_writing(Progress& p, int n_compounds);
// The same for the phase that numbers n_fragments fragments and writes the
// structure file; updates then count fragments.
void progress_start_numbering(Progress& p, int n_fragments);

// The same with the stream, its width and the start given, for tests.
void progress_start_on(Progress& p, std::FILE* stream, std::size_t width, int n_compounds, int lmin, int lmax,
                       ProgressClock::time_point now);

// After each compound: compounds_done so far, fragments_so_far found in
// them. Reads the clock only every few compounds and rewrites the line at
// most five times a second, after the first second; clears the line after
// the last compound, so the driver's lines on standard output start on a
// clean line when both streams share a terminal.
void progress_update(Progress& p, int compounds_done, long long fragments_so_far);

// The same at a given moment, always looking at the clock: for tests.
void progress_update_at(Progress& p, int compounds_done, long long fragments_so_far, ProgressClock::time_point now);

// Clears the line if one is showing, before a line on standard output; the
// next update draws it again.
void progress_clear(Progress& p);

// Clears the line if one is showing, for good.
void progress_finish(Progress& p);

// The text of the line, without "\r" or padding.
std::string progress_text(int lmin, int lmax, int done, int n, double fragments_per_second, double seconds_left);
