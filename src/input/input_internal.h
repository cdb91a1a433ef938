// Pieces shared by the two passes of both readers: the line source, the
// tokeniser, the atom label list of the dictionary pass and the record
// references that every malformed-input message names.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/common.h"
#include "graph/graph.h"
#include "settings/settings.h"

// Every line is read into this many bytes, terminator included; a longer
// line arrives as several lines.
constexpr std::size_t LINE_BUFFER_SIZE = 500000;
// A line holds at most MAX_TOKENS - 1 tokens; an atom type (a token that
// becomes a label) holds at most MAX_TOKEN_LENGTH bytes. Other tokens are kept
// whole, so long data values in SD records are simply passed over.
constexpr int MAX_TOKENS = 1000;
constexpr std::size_t MAX_TOKEN_LENGTH = 999;
constexpr int MAX_ATOM_LABELS = 1000;
// Both atom count and adjacency entries (twice the bonds) are held below 1000.
constexpr int MAX_GRAPH_SIZE = 999;
// Mol2 bonds collected before the adjacency entries are made.
constexpr int MAX_MOL2_BONDS = 1000;
// The part of a Mol2 atom type before its '.' under -NoAtmLabels is an
// element symbol or a short SYBYL word ("Du", "Any", "Hal"); 15 bytes leave
// ample room for both while still catching a field that is clearly not a type.
constexpr std::size_t MAX_BASIC_TYPE_LENGTH = 15;

// How much of the file a line source reads at a time. Large enough that a
// line rarely straddles two reads, small enough that memory stays flat
// whatever the size of the file.
constexpr std::size_t INPUT_CHUNK_SIZE = 1 << 20;

// Reads one pass's lines. A carriage return right before the line feed (or at
// the end of the file) is dropped, so CRLF files read exactly like LF files,
// line length limit included. A line is seen up to its first NUL byte, as a
// C string would be, so binary data never reaches past what the passes agree on.
//
// The file is read in chunks; a line that lies within the chunk is handed out
// where it lies, one that straddles a refill is gathered in the line buffer.
// Each pass owns its source and nothing else reads its stream, so the bytes
// read ahead are wanted by no one else. The sizes are parameters so that tests
// can make lines straddle refills and reach the length limit while short.
class InputLines {
 public:
  explicit InputLines(std::FILE* stream, std::size_t chunk_size = INPUT_CHUNK_SIZE,
                      std::size_t line_buffer_size = LINE_BUFFER_SIZE);

  std::string_view line;  // the current line, its line feed included when it has one

 private:
  friend bool next_line(InputLines& in);
  bool refill();
  int get();
  bool gather_line();

  std::FILE* stream_;
  std::size_t chunk_size_;
  std::size_t line_limit_;  // bytes a line holds at most
  std::unique_ptr<char[]> chunk_;
  std::size_t pos_ = 0, end_ = 0;  // the unread part of the chunk
  bool at_eof_ = false;
  std::unique_ptr<char[]> gathered_;  // the line buffer, made for the first straddling line
};

// False at end of file (line then empty).
bool next_line(InputLines& in);

// Which record a message is about: the 1-based number and the name as the
// reader forms it.
struct RecordRef {
  int number = 0;
  std::string name;
};

// "compound <number> (<name>): <what>" on standard output, status 1.
[[noreturn]] void refuse_record(const RecordRef& record, const std::string& what);

// The token array of one pass: MAX_TOKENS slots, each a piece of the line
// last split, so they hold only until the next line is read. Slots from
// `count` on are left from earlier lines; nobody reads them.
struct TokenArray {
  std::vector<std::string_view> slot = std::vector<std::string_view>(MAX_TOKENS);
  int count = 0;
};

// Splits the line at spaces (tabs stay inside tokens). A line shorter than
// two bytes or without a token gives count 0 and "nil" in slot 0. A line of
// MAX_TOKENS or more tokens ends the run with the tokeniser's message pair.
void tokenize_line(std::string_view line, TokenArray& tokens);

// For a line whose tokens a pass does not need: ends the run as
// tokenize_line would when the line holds too many tokens, and otherwise
// leaves the token array alone.
void check_token_limit(std::string_view line, TokenArray& tokens);

// A line the run holds to the tokeniser's limit only after the dictionary
// pass: the first one over the limit is kept in refusal (when it holds no
// message yet), to be reported once the dictionary pass is done and has
// said what it says.
void check_token_limit_later(std::string_view line, TokenArray& tokens, Failure& refusal);

// The first space-separated token of the line is "$$$$"; the same test the
// tokeniser makes, without its limits, for lines a pass does not tokenise.
bool first_token_is_record_end(std::string_view line);

// The line without its trailing line feed.
std::string_view without_line_feed(std::string_view line);

// Value of the leading decimal digits of text, 0 when there are none. Large
// values saturate far above any limit, so they are refused, never wrapped.
int leading_number(std::string_view text);

// 1 when label is among the first `known` entries of the list, 0 after
// storing it in slot `known` as a new label, -1 when it is new but every slot
// is taken (the caller decides what that means).
int note_atom_label(std::string_view label, int known, std::vector<std::string>& atom_label_list);

// The input of one run as every pass opens it: a file, checked to be the same
// unchanged file at every opening, or bytes in memory.
struct InputFile {
  std::string name;
  const std::string* text = nullptr;  // when set, read from memory
  bool watched = false;               // `first` holds the file's state
  struct FileState {
    unsigned long long dev = 0, ino = 0;
    long long size = 0, mtime_sec = 0, mtime_nsec = 0;
    bool operator==(const FileState&) const = default;
  } first;
};

// Opens the input for one pass. The first opening refuses anything but a
// regular file and records its state; later ones refuse a file whose state
// has changed since.
FilePtr open_pass(InputFile& input);
bool input_has_changed(const InputFile& input);
[[noreturn]] void refuse_changed_input(const InputFile& input);

// Creates the dictionary file (never through a symbolic link) and writes its
// head: the comment line and the bond labels.
FilePtr create_dictionary_file(const std::string& dict_name, bool mol2);

// Closes the dictionary file, making sure every line reached the disk.
void finish_dictionary_file(FilePtr dict, const std::string& dict_name);

// Reads a label dictionary file back into sets sorted in byte order.
LabelDictionary load_label_dictionary(const std::string& file_name);

// The dictionary load_label_dictionary would read back from the file that
// create_dictionary_file and finish_dictionary_file write with these labels,
// with the same refusals.
LabelDictionary dictionary_of_labels(bool mol2, const std::vector<std::string>& labels);

// What the dictionary pass hands on to the graph pass.
struct DictionaryScan {
  int compounds = 0;
  // 0-based record at which the 1001st distinct atom label was met, or -1.
  // The graph pass refuses that record when it reaches it, so that messages
  // of earlier records keep their turn.
  int label_overflow_record = -1;
  std::vector<std::string> labels;  // distinct atom labels, in order of first appearance
  int v3000_records = 0;            // SD records whose counts line says V3000
  // The refusal of a line over the tokeniser's limit among those held to it
  // only after this pass (SD atom lines, Mol2 bond lines); no message when
  // there is none.
  Failure later_refusal;
};

// The atom label list of the dictionary pass and the file it feeds, if any.
struct LabelCollector {
  std::FILE* dict = nullptr;
  std::vector<std::string> atom_label_list = std::vector<std::string>(MAX_ATOM_LABELS);
  int known = 0;
  int overflow_record = -1;
};

// Notes one atom label of record `record` (0-based): a new one is written as
// "V <label>" as soon as it is met, so a run that stops leaves the labels
// found so far; once the list is full, the record is remembered and nothing
// more is noted.
void collect_atom_label(LabelCollector& labels, std::string_view label, int record);

// The scan's result from the collector.
DictionaryScan finish_scan(LabelCollector& labels, int compounds);

// The message of a record whose labels overflowed the list.
[[noreturn]] void refuse_label_overflow(const RecordRef& record);

// Says on standard error when the input starts with the gzip signature: such
// a file reads as no compound or as garbage, and nothing else would tell why.
// Reads the first bytes without moving the stream.
void warn_if_compressed(std::FILE* file, const std::string& name);

struct SdGraphPass;    // the graph pass's state, one per reader
struct Mol2GraphPass;

// ---- SD reader ----

DictionaryScan scan_sd_labels(const RunSettings& settings, InputFile& input, std::FILE* dict);
SdGraphPass* start_sd_graph_pass(FilePtr stream);
void end_sd_graph_pass(SdGraphPass* pass);
// The next record into g and name; false after the last.
bool read_sd_graph(const RunSettings& settings, const InputFile& input, SdGraphPass& pass, const LabelDictionary& dict,
                   const DictionaryScan& scan, Graph& g, std::string& name);

// ---- Mol2 reader ----

DictionaryScan scan_mol2_labels(const RunSettings& settings, InputFile& input, std::FILE* dict);
Mol2GraphPass* start_mol2_graph_pass(FilePtr stream);
void end_mol2_graph_pass(Mol2GraphPass* pass);
bool read_mol2_graph(const RunSettings& settings, const InputFile& input, Mol2GraphPass& pass,
                     const LabelDictionary& dict, const DictionaryScan& scan, Graph& g, std::string& name);
