#pragma once

#include <optional>
#include <string>
#include <vector>

class Mistakes;

/// A value in a YAML file. All scalars are texts: "no", "0755" and "1e3" are what they look like.
struct Value {
  struct Entry;
  enum class Kind { kNothing, kText, kList, kMap };

  Kind kind = Kind::kNothing;
  int line = 0;  // from 1; of an entry's value that of its key
  std::string text;
  std::vector<Value> items;    // of a list
  std::vector<Entry> entries;  // of a map, in the order of the file
};

struct Value::Entry {
  std::string key;
  Value value;
};

/// The one document of a YAML file, which may be JSON, too. Adds to `mistakes` and returns nothing
/// for what is no such document. Anchors, aliases and tags are refused: they let a small file stand
/// for a huge one. So are bytes that are not UTF-8, control characters and keys that stand twice in
/// one map.
std::optional<Value> readDocument(const std::string& file, const std::string& content,
                                  Mistakes& mistakes);
