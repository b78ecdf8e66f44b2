#include "admin/DeleteList.h"

#include <algorithm>
#include <iostream>

#include "core/posixLock.h"

DeleteList::DeleteList() {
  pthread_mutex_init(&mutex, nullptr);
}

DeleteList::~DeleteList() {
  pthread_mutex_destroy(&mutex);
}

void DeleteList::push(unsigned long long id) {
  const PosixLock lock(mutex);
  ids.push_back(id);
}

bool DeleteList::find(unsigned long long id) {
  const PosixLock lock(mutex);
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

bool DeleteList::erase(unsigned long long id) {
  const PosixLock lock(mutex);
  const auto found = std::find(ids.begin(), ids.end(), id);
  if (found == ids.end()) {
    return false;
  }
  ids.erase(found);
  return true;
}

bool DeleteList::empty() {
  const PosixLock lock(mutex);
  return ids.empty();
}

int DeleteList::size() {
  const PosixLock lock(mutex);
  return static_cast<int>(ids.size());
}

void DeleteList::show() {
  const PosixLock lock(mutex);
  for (const unsigned long long id : ids) {
    std::cout << ' ' << id;
  }
  std::cout << std::endl;
}
