#pragma once

#include <pthread.h>

#include <list>

/// The daemon does not use this class: it is part of the library's interface, for other programs
/// that link it.
///
/// A list of task ids in the order of their insertion; an id can occur more than once. Any thread
/// may call any member; each holds the list's lock for its whole duration.
class DeleteList {
 public:
  DeleteList();
  virtual ~DeleteList();
  DeleteList(const DeleteList&) = delete;
  DeleteList& operator=(const DeleteList&) = delete;

  /// Appends `id`.
  void push(unsigned long long id);
  /// True when `id` is in the list. Linear in its length.
  bool find(unsigned long long id);
  /// Removes the first `id`; false when there is none.
  bool erase(unsigned long long id);
  bool empty();
  /// The number of ids.
  int size();
  /// Writes the ids to standard output, each after a blank, then a newline, and flushes.
  void show();

 private:
  std::list<unsigned long long> ids;  // guarded by mutex
  pthread_mutex_t mutex{};
};
