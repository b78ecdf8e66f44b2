#pragma once

#include <string>

struct DaemonConfig;

enum class PasswordCheck {
  kRight,
  kWrong,       // the role or the password, or the role may not log in
  kNotAsked,    // the server lets this role in without a password
  kNoDatabase,  // the server does not answer
};

/// Connects once as the role with this password, to the database that the configuration or the
/// environment names, and closes the connection. Takes some five seconds at most. `reason` gets
/// the server's text.
PasswordCheck checkPassword(const DaemonConfig& config, const std::string& role,
                            const std::string& password, std::string& reason);
