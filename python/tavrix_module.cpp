// tavrix._core: the core library's reading, counting and descriptor spaces
// for the Python package. The package decides what the input is; this side
// only turns settings, a file name or SD text into count matrices, exactly as
// a run of the program over the same compounds would count them.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "common/common.h"
#include "count/count.h"
#include "input/input.h"
#include "settings/settings.h"
#include "space/space.h"

namespace py = pybind11;

namespace {

// The settings a command line would give; the package has checked them.
RunSettings make_settings(const std::string& ds, int lmin, int lmax, int fmin, bool atom_labels, bool bond_labels,
                          bool mol2) {
  RunSettings s;
  s.option = ds;
  s.opt = ds == "QZ" ? 1 : ds == "TF" ? 2 : 3;
  s.lmin = lmin;
  s.lmax = lmax;
  s.fmin = fmin;
  s.NoAtmLabels = !atom_labels;
  s.NoBndLabels = !bond_labels;
  s.mol2input = mol2;
  return s;
}

// A compound-by-descriptor count matrix in compressed rows, columns ascending
// within a row (column j is descriptor j + 1).
struct Rows {
  std::vector<long long> indptr{0};
  std::vector<int> indices;
  std::vector<int> data;
};

void add_row(std::vector<std::pair<int, int>>& pairs, Rows& rows) {
  std::sort(pairs.begin(), pairs.end());
  for (const auto& [column, count] : pairs) {
    rows.indices.push_back(column);
    rows.data.push_back(count);
  }
  rows.indptr.push_back(static_cast<long long>(rows.indices.size()));
}

py::tuple to_python(const Rows& rows, long long columns) {
  auto copy = [](const auto& v) {
    using T = typename std::decay_t<decltype(v)>::value_type;
    py::array_t<T> a(static_cast<py::ssize_t>(v.size()));
    std::copy(v.begin(), v.end(), a.mutable_data());
    return a;
  };
  return py::make_tuple(copy(rows.indptr), copy(rows.indices), copy(rows.data),
                        static_cast<long long>(rows.indptr.size()) - 1, columns);
}

// The compounds of a file (text absent) or of SD or Mol2 text.
CompoundInput read_input(const RunSettings& settings, const std::string& name, const std::optional<std::string>& text) {
  return read_compounds_in_memory(settings, InputSource{name, text ? &*text : nullptr});
}

// Everything a run writes, in memory: the structure records through a
// memstream, so that they are the very bytes of the structure file.
struct FitResult {
  std::string structures;
  Rows rows;
  int descriptors = 0;
};

class MemoryStream {
 public:
  MemoryStream() : stream_(open_memstream(&buffer_, &size_)) {
    if (stream_ == nullptr) throw std::bad_alloc();
  }
  ~MemoryStream() {
    if (stream_ != nullptr) std::fclose(stream_);
    std::free(buffer_);
  }
  MemoryStream(const MemoryStream&) = delete;
  MemoryStream& operator=(const MemoryStream&) = delete;
  std::FILE* get() const { return stream_; }
  std::string take() {
    std::fclose(stream_);
    stream_ = nullptr;
    return std::string(buffer_, size_);
  }

 private:
  char* buffer_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* stream_;
};

// Counting, numbering and rows as the program's run has them: the compounds
// read one at a time, counted on `threads` workers, their entries past the
// program's bound in memory spilled to an unlinked file in spill_directory.
FitResult fit(const RunSettings& settings, const std::string& name, const std::optional<std::string>& text,
              int threads, const std::string& spill_directory) {
  RaiseFailures raise;
  CompoundStream input;
  open_compounds_in_memory(settings, InputSource{name, text ? &*text : nullptr}, input);
  CountOptions options = count_options(settings);
  options.threads = threads;
  options.spill_directory = spill_directory;
  CountedRun counted;
  count_compounds(input, options, counted);
  MemoryStream structure;
  Numbering numbering;
  number_forms(counted, settings, input.dictionary, false, structure.get(), "the structure records", numbering, threads);
  FitResult result;
  result.structures = structure.take();
  result.descriptors = numbering.descriptors;
  RowReader reader;
  start_rows(counted, reader);
  std::string compound;
  DescriptorPairs pairs;
  while (next_row(reader, numbering, compound, pairs)) {
    for (auto& pair : pairs) --pair.first;
    add_row(pairs, result.rows);
  }
  return result;
}

// A fitted descriptor space: read once from the fit's structure records,
// then only read, so several threads may apply it at once.
struct Space {
  DescriptorSpace space;
};

Space read_fitted_space(const std::string& structures) {
  RaiseFailures raise;
  return Space{read_space("fitted descriptor space", structures, true)};
}

Rows apply(const Space& s, const RunSettings& settings, const std::string& name, const std::optional<std::string>& text,
           int threads) {
  RaiseFailures raise;
  const CompoundInput input = read_input(settings, name, text);
  Rows rows;
  std::vector<std::pair<int, int>> pairs;
  ApplySummary summary;
  apply_space(s.space, input, threads, [&](int, const DescriptorPairs& row) {
    pairs.clear();
    for (const auto& [number, count] : row) pairs.emplace_back(number - 1, count);
    add_row(pairs, rows);
  }, summary);
  return rows;
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Tavrix core: reading, fragment counting and descriptor spaces (use the tavrix package)";

  // A refused input becomes a ValueError carrying the program's message
  // without its line end; the process and its state go on.
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Failure& f) {
      std::string message = f.message;
      while (!message.empty() && message.back() == '\n') message.pop_back();
      PyErr_SetString(PyExc_ValueError, message.c_str());
    }
  });

  m.def(
      "fit",
      [](const std::string& name, std::optional<std::string> text, bool mol2, const std::string& ds, int lmin,
         int lmax, int fmin, bool atom_labels, bool bond_labels, int threads, const std::string& spill_directory) {
        const RunSettings settings = make_settings(ds, lmin, lmax, fmin, atom_labels, bond_labels, mol2);
        FitResult result;
        {
          py::gil_scoped_release release;
          result = fit(settings, name, text, threads, spill_directory);
        }
        return py::make_tuple(py::bytes(result.structures), to_python(result.rows, result.descriptors));
      },
      py::arg("name"), py::arg("text"), py::arg("mol2"), py::arg("ds"), py::arg("lmin"), py::arg("lmax"),
      py::arg("fmin"), py::arg("atom_labels"), py::arg("bond_labels"), py::arg("threads"),
      py::arg("spill_directory"),
      "Counts the compounds of the file name (or of text) on threads threads as a run would: returns the "
      "structure records and (indptr, indices, data, rows, columns) of the count matrix.");

  m.def("processors_available", &processors_available,
        "The processors this process may run on (CPU affinity and cgroup quota).");

  py::class_<Space>(m, "Space")
      .def(py::init([](const py::bytes& structures) {
             std::string text = structures;
             py::gil_scoped_release release;
             return read_fitted_space(text);
           }),
           py::arg("structures"))
      .def_property_readonly("mol2", [](const Space& s) { return s.space.mol2; })
      .def_property_readonly("records",
                             [](const Space& s) {
                               // Bytes: labels are whatever bytes the input held.
                               py::list out;
                               for (int d = 1; d <= s.space.size(); ++d) {
                                 const std::string_view r = record_text(s.space, d);
                                 out.append(py::bytes(r.data(), r.size()));
                               }
                               return out;
                             })
      .def_property_readonly("fragments",
                             [](const Space& s) {
                               // Per descriptor: atom labels and (atom, atom, bond label) of each bond.
                               py::list out;
                               for (int d = 1; d <= s.space.size(); ++d) {
                                 const SpaceFragment f = s.space.fragment(d);
                                 py::list bonds;
                                 for (int k = 0; k < f.bonds; ++k)
                                   bonds.append(py::make_tuple(f.bond[3 * k], f.bond[3 * k + 1],
                                                               s.space.bond_labels[f.bond[3 * k + 2]]));
                                 py::list atoms;
                                 for (int i = 0; i < f.vs; ++i) atoms.append(py::bytes(s.space.atom_labels[f.vl[i]]));
                                 out.append(py::make_tuple(atoms, bonds));
                               }
                               return out;
                             })
      .def(
          "apply",
          [](const Space& s, const std::string& name, std::optional<std::string> text, bool mol2,
             const std::string& ds, int lmin, int lmax, int fmin, bool atom_labels, bool bond_labels, int threads) {
            const RunSettings settings = make_settings(ds, lmin, lmax, fmin, atom_labels, bond_labels, mol2);
            Rows rows;
            {
              py::gil_scoped_release release;
              rows = apply(s, settings, name, text, threads);
            }
            return to_python(rows, static_cast<long long>(s.space.size()));
          },
          py::arg("name"), py::arg("text"), py::arg("mol2"), py::arg("ds"), py::arg("lmin"), py::arg("lmax"),
          py::arg("fmin"), py::arg("atom_labels"), py::arg("bond_labels"), py::arg("threads"),
          "Counts the space's descriptors in the compounds of the file name (or of text) on threads threads.");
}
