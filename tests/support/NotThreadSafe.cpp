/// Loaded before libpq, this makes the client library say that it was built without threads.
// NOLINTNEXTLINE(readability-identifier-naming): the name is the client library's.
extern "C" int PQisthreadsafe() {
  return 0;
}
