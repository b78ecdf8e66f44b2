#pragma once

#include <map>
#include <string>

class Session;

/// A role that kodu_web_allow was called for, as it is now.
struct Person {
  bool isAllowed = false;  // may log in, read, and has no more rights than it should
  bool mayChange = false;
};

/// All of them, by the role's name. Throws as Session::query; kRefused when sql/console.sql is not
/// loaded.
std::map<std::string, Person> readPeople(Session& session);
