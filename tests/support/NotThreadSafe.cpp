/// Loaded before libpq, this function reports that the client library was built without threads.
// NOLINTNEXTLINE(readability-identifier-naming): the name is the client library's.
extern "C" int PQisthreadsafe() {
  return 0;
}
