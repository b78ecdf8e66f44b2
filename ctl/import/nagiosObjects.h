#pragma once

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ctl/declared/mistakes.h"

class Import;
struct Source;

/// A directive of a definition.
struct Directive {
  std::string value;
  Place place;
};

/// "define TYPE { ... }".
struct NagiosObject {
  std::string type;
  Place place;
  std::map<std::string, Directive> directives;
};

/// The value of a directive; "" when it is missing.
std::string valueOf(const NagiosObject& object, const std::string& name);

/// The parts of a list between commas, without blanks around them and empty ones.
std::vector<std::string> listIn(const std::string& text);

/// What object files define. Owned by one thread.
class NagiosObjects {
 public:
  explicit NagiosObjects(Import& collected) : import(collected) {}

  /// Reads a file of objects or of macros ($USER1$=/usr/lib/nagios/plugins). May be called for
  /// several files; what is wrong is reported.
  void read(const Source& source);

  /// The objects of a type with what they inherit from templates, in the order of the files.
  /// Without those that are only templates (register 0). Templates that are missing or use
  /// themselves are reported. Throws Failure (kRefused) when objects inherit more than one
  /// million directives.
  std::vector<NagiosObject> registered(const std::string& type);

  /// Reports the definitions of types that registered() is of no use for: those that change what is
  /// run as left out, the others by their number.
  void reportOthers();

  /// The values of $USER1$ and so on, by their names without "$".
  const std::map<std::string, std::string>& macros() const { return macroValues; }

 private:
  struct Inherited {
    enum class State { kNew, kInWork, kDone } state = State::kNew;
    std::map<std::string, Directive> directives;
  };

  void readLine(const Place& place, std::string_view line);
  void readOutside(const Place& place, std::string_view line);
  void readDirective(const Place& place, std::string_view line);
  const std::map<std::string, Directive>& inheritedBy(std::size_t index, int depth);
  std::map<std::string, Directive> resolved(const NagiosObject& object, int depth);
  void inheritFrom(const std::string& name, const NagiosObject& object, int depth,
                   std::map<std::string, Directive>& directives);
  void append(const std::string& inheritedValue, Directive& own);
  void requireFewInherited() const;

  Import& import;
  std::vector<NagiosObject> objects;
  std::unordered_map<std::string, std::size_t> templates;  // "TYPE NAME" to the index of an object
  std::unordered_map<std::size_t, Inherited> inherited;    // of templates, by their indexes
  std::map<std::string, std::string> macroValues;
  long inheritedCount = 0;
  std::optional<NagiosObject> open;  // the definition that is being read
  std::string continued;             // lines that ended in a backslash
};
