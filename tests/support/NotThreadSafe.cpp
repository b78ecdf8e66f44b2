/// Loaded before libpq, this makes the client library say that it was built without threads.
extern "C" int PQisthreadsafe() {
  return 0;
}
