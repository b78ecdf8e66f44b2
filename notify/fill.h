#pragma once

#include <string>
#include <vector>

#include "notify/event.h"

// Templates: "{name}" stands for the event's field of that name. Other braces stand for themselves.

/// The names of the fields that a template may have.
const std::vector<std::string>& placeholders();

/// The first "{word}" of a template that is no such name; "" when there is none.
std::string unknownPlaceholder(const std::string& text);

/// The template with the event's fields.
std::string filled(const std::string& text, const Event& event);

/// The same for a template of JSON: the fields' texts are escaped for a place between two quotes.
std::string filledAsJson(const std::string& text, const Event& event);
