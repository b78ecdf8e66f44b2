#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ctl/declared/definition.h"
#include "ctl/declared/mistakes.h"

class Session;
struct Source;

/// A task as a file declares it.
struct DeclaredTask {
  std::string key;
  Place place;
  Definition definition;
  Place placeOf(const std::string& setting) const;

  std::map<std::string, int> lines;  // of the settings
};

/// All tasks of one call.
struct Declaration {
  std::string set;  // "": the files name none
  std::vector<DeclaredTask> tasks;
};

/// True for what can be a key or the name of a set; kWordRule says what that is.
bool isOneWord(std::string_view text);
constexpr const char* kWordRule = "must be one word of at most 200 letters, digits and . _ : / @ -";

/// Reads the files together: a key may stand in one of them only. What is wrong is added to
/// `mistakes`, and left out.
Declaration readDeclaration(const std::vector<Source>& sources, Mistakes& mistakes);

/// Gives each definition the texts that definitionOf() gives a stored task: periods are read, and
/// plugins found, by the database. Mistakes as above.
void normalize(Declaration& declaration, Session& session, const std::string& guard,
               Mistakes& mistakes);
