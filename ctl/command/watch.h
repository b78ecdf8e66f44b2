#pragma once

#include <optional>

class Session;
struct Options;

/// Shows the selected tasks again and again until Ctrl-C, which ends the process with status 0. On
/// a terminal it draws over what it has drawn. A lost session is replaced when the server is back.
///
/// The tasks that are shown are read each second. To find which ones are to be shown, and to count
/// all, takes the server longer with more tasks; so each of the two pauses for a multiple of the
/// time that it took, and a watch takes a small part of one of the server's cores.
[[noreturn]] void watchTasks(std::optional<Session>& session, const Options& options);
