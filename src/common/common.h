// Shared services every module rests on: the one way out of the process,
// checked allocation, file opening, the sorted label sets that turn label
// strings into small integers, the growing line reader and two small helpers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// ---- Failures ------------------------------------------------------------

// Prints the message unchanged on standard output and ends the process with
// status 1. Open C streams are flushed by std::exit, so everything already
// written to an output file survives. Under RaiseFailures it throws Failure
// instead (see below).
[[noreturn]] void fatal_error(std::string_view message);

// The same for the few messages that belong on standard error.
[[noreturn]] void fatal_error_on_stderr(std::string_view message);

// Every orderly end of the process goes through here: fatal_error, the
// line reader's argument checks and the command line's usage exits.
// Normally it is std::exit(status). A build with TAVRIX_FUZZ_EXITS defined
// (the fuzz targets) throws ProcessExit instead, after flushing standard
// output, so that one harness process can run many inputs and tell an orderly
// refusal from a crash. ProcessExit derives from nothing, so no catch of
// std::exception can swallow it.
[[noreturn]] void end_process(int status);
struct ProcessExit {
  int status;
};

// A failure that a host process must survive (the Python module): the
// message the program would have printed, and the stream it belongs on.
// Derives from nothing, like ProcessExit, so that no catch of std::exception
// in between can swallow it.
struct Failure {
  std::string message;
  bool on_stderr = false;
};

// While one of these lives, failures on this thread throw Failure (with
// nothing printed) instead of ending the process. Nestable.
class RaiseFailures {
 public:
  RaiseFailures();
  ~RaiseFailures();
  RaiseFailures(const RaiseFailures&) = delete;
  RaiseFailures& operator=(const RaiseFailures&) = delete;

 private:
  bool previous_;
};

// A hook consulted just before a failure is reported on this thread: when it
// returns a message, that message is reported instead. The input uses it to
// report a file that changed under it rather than whatever the change made
// the readers stumble over.
using FailureOverride = std::string (*)(const void* context);
struct FailureOverrideScope {
  FailureOverrideScope(FailureOverride hook, const void* context);
  ~FailureOverrideScope();
  FailureOverride previous_hook;
  const void* previous_context;
};

// printf-style formatting into a std::string (for messages with values).
std::string format_text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// A condition that only a bug can break: prints its text on standard error
// and ends with status 1 (never a signal), in every build type; under
// RaiseFailures it throws Failure.
[[noreturn]] void internal_error(const char* condition, const char* file, int line);
#define TAVRIX_CHECK(cond) \
  do { if (!(cond)) internal_error(#cond, __FILE_NAME__, __LINE__); } while (0)

// ---- Files ----------------------------------------------------------------

struct FileCloser {
  void operator()(std::FILE* f) const { if (f) std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Ends the run with "can't open a file '<name>'", the one message for a file
// that cannot be opened (or, opened, made ready), whatever the reason.
[[noreturn]] void refuse_open(const std::string& name);

// Opens the file or ends the run with "can't open a file '<name>'".
// A directory opened for reading counts as a file that cannot be opened.
FilePtr open_file(const std::string& name, const char* mode);

// Ends the run with "can't write a file '<name>': <reason>" when a write to
// f has failed; call it right after the writes it covers.
void check_written(std::FILE* f, const std::string& name);

// Flushes and closes f (left empty), ending the run as check_written does when
// anything written to it, at any time, was lost.
void close_written(FilePtr& f, const std::string& name);

// Opens /dev/null on each of descriptors 0, 1 and 2 that is closed, so that no
// file opened later takes one of them and receives what is meant for a
// standard stream. The first call of main.
void open_standard_descriptors();

// ---- Growable array and label sets ----------------------------------------

// A growable array whose capacity doubles when full (never shrinks), with the
// binary searches the label sets depend on. Items are held by value.
template <class T>
struct PtrArray {
  std::uint32_t capacity = 0;
  std::uint32_t count = 0;
  std::vector<T> items;  // exactly `count` items; `capacity` is bookkeeping
};

template <class T>
PtrArray<T> array_new(std::uint32_t capacity) {
  PtrArray<T> a;
  a.capacity = capacity;
  a.items.reserve(capacity);
  return a;
}

template <class T>
void array_grow_if_full(PtrArray<T>& a) {
  if (a.count == a.capacity) {
    a.capacity = a.capacity == 0 ? 1 : a.capacity * 2;
    a.items.reserve(a.capacity);
  }
}

template <class T>
void array_append(T item, PtrArray<T>& a) {
  array_grow_if_full(a);
  a.items.push_back(std::move(item));
  ++a.count;
}

template <class T>
void array_insert_at(T item, PtrArray<T>& a, std::int64_t position) {
  if (position < 0 || position >= static_cast<std::int64_t>(a.count)) fatal_error("invalid insertion\n");
  array_grow_if_full(a);
  a.items.insert(a.items.begin() + position, std::move(item));
  ++a.count;
}

// compare(item, key) < 0, == 0, > 0 as item is smaller, equal, greater.
// Inserts after every item that compares less or equal.
template <class T, class K, class Compare>
void array_insert_sorted(T item, PtrArray<T>& a, const K& key, Compare compare) {
  std::int64_t lo = -1, hi = a.count;
  while (lo + 1 != hi) {
    std::int64_t mid = (lo + hi) / 2;
    if (compare(a.items[mid], key) > 0) hi = mid; else lo = mid;
  }
  if (hi == static_cast<std::int64_t>(a.count)) array_append(std::move(item), a);
  else array_insert_at(std::move(item), a, hi);
}

// Position of the first item equal to key in a sorted array, or -1.
template <class T, class K, class Compare>
std::int64_t array_find(const K& key, const PtrArray<T>& a, Compare compare) {
  std::int64_t lo = -1, hi = a.count;
  while (lo + 1 != hi) {
    std::int64_t mid = (lo + hi) / 2;
    if (compare(a.items[mid], key) >= 0) hi = mid; else lo = mid;
  }
  if (hi < static_cast<std::int64_t>(a.count) && compare(a.items[hi], key) == 0) return hi;
  return -1;
}

// Linear scan from slot 0: first position whose item equals key, or -1.
template <class T, class K, class Compare>
std::int64_t array_index_of(const K& key, const PtrArray<T>& a, Compare compare) {
  for (std::uint32_t i = 0; i < a.count; ++i)
    if (compare(a.items[i], key) == 0) return i;
  return -1;
}

template <class T>
const T& array_item(const PtrArray<T>& a, std::int64_t position) {
  // Compared as unsigned, so a negative position fails too.
  if (static_cast<std::uint64_t>(position) >= a.count) fatal_error("index out of bound\n");
  return a.items[position];
}

// Byte-wise order with bytes as unsigned values, shorter first on a common prefix.
int compare_labels(const std::string& item, std::string_view key);

// Sorted label strings; a label's index is its position in byte order.
using LabelSet = PtrArray<std::string>;

struct LabelDictionary {
  LabelSet edge_labels;
  LabelSet vertex_labels;
};

LabelDictionary new_label_dictionary();
void add_edge_label(std::string_view label, LabelDictionary& dict);
void add_vertex_label(std::string_view label, LabelDictionary& dict);
// Index of the label, or the run ends with the message of the missing label.
int edge_label_index(std::string_view label, const LabelDictionary& dict);
int vertex_label_index(std::string_view label, const LabelDictionary& dict);

// ---- Line reading and helpers ---------------------------------------------

// Reads the next whole line (newline included when present) into buffer,
// growing it by 5, 10, 20, ... bytes as needed; size follows the buffer.
// Returns false at end of file. A final partial line that exactly fills the
// buffer before end of file is lost, as the growth rule implies.
bool read_line(std::vector<char>& buffer, std::size_t& size, std::FILE* stream);
