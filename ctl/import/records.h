#pragma once

#include <string>
#include <vector>

struct Source;

/// A row of a table in a file.
struct TableRow {
  int line = 0;                     // in which it begins, from 1
  std::vector<std::string> values;  // NULL is ""
  std::string mistake;              // "": the row could be read
};

/// The rows of CSV as PostgreSQL writes it: values with newlines, commas or quotes are in double
/// quotes, and a quote in them is doubled.
std::vector<TableRow> readCsv(const std::string& content);

/// The rows of PostgreSQL's text format of COPY: tabs separate values, \N is NULL, and backslashes
/// introduce control characters.
std::vector<TableRow> readCopyText(const std::string& content);
