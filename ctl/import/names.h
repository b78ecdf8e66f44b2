#pragma once

#include <string>
#include <string_view>

// Keys and names of imported tasks. They depend on nothing but the texts, so that a second import
// finds the same tasks again.

/// The text as a part of a key: letters, digits and . _ : @ - only, "-" for each run of others, at
/// most 60 characters. "" when nothing remains.
std::string keyPart(std::string_view text);

/// The same, followed by a digest of the text when keyPart() has changed it, so that different
/// texts have different keys.
std::string distinctKeyPart(std::string_view text);

/// Eight hexadecimal digits that depend on all bytes of the text.
std::string digest(std::string_view text);

/// The text in one line of at most 60 columns, as a name or a quotation. UTF-8 whatever the text
/// is.
std::string excerpt(std::string_view text);
