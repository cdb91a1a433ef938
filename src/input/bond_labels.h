// The bond labels of SD and Mol2 bond types: the readers label a compound's
// bonds with them, and the structure file a run writes names its bonds by
// the same types, so reading one back finds the same labels.
#pragma once

#include <string_view>

// The label of an SD bond type (1 to 4), nullptr for any other.
inline const char* sd_bond_label(int type) {
  switch (type) {
    case 1: return "-";
    case 2: return "=";
    case 3: return "#";
    case 4: return "~";
    default: return nullptr;
  }
}

// The label of a Mol2 bond type; "" for a bond left out of the graph (nc, du,
// un), nullptr for a type that is none of these.
inline const char* mol2_bond_label(std::string_view type) {
  if (type == "1") return "-";
  if (type == "2") return "=";
  if (type == "3") return "#";
  if (type == "ar") return "~";
  if (type == "am") return "*";
  if (type == "nc" || type == "du" || type == "un") return "";
  return nullptr;
}
