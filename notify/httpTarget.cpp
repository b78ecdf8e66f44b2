// Posts events to an HTTP endpoint. Neither the URL, which may contain a token, nor the headers
// appear in a message.

#include <curl/curl.h>
#include <fmt/format.h>

#include <cstddef>
#include <fstream>
#include <tuple>

#include "notify/fill.h"
#include "notify/target.h"

namespace {

struct EasyCleaner {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListCleaner {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Headers = std::unique_ptr<curl_slist, ListCleaner>;

constexpr long kFirstSuccess = 200, kFirstOther = 300;

void add(Headers& headers, const std::string& header) {
  curl_slist* longer = curl_slist_append(headers.get(), header.c_str());
  if (longer != nullptr) {
    std::ignore = headers.release();
    headers.reset(longer);
  }
}

/// What the endpoint answers is not used.
std::size_t discard(const char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

class HttpTarget : public Target {
 public:
  explicit HttpTarget(const NotifyConfig& given) : config(given), curl(curl_easy_init()) {}

  std::string deliver(const std::vector<Event>& events) override {
    if (!curl) {
      return "libcurl cannot be initialised";
    }
    Headers headers;
    add(headers, "Content-Type: application/json");
    add(headers, "Expect:");  // no round trip before a body
    if (events.size() == 1) {
      add(headers, "Idempotency-Key: " + events[0].field("key"));
    }
    if (!addFile(headers)) {
      return config.headerFile + " cannot be read";
    }
    const std::string body = bodyOf(events);
    setOptions(headers, body);
    const CURLcode code = curl_easy_perform(curl.get());
    if (code != CURLE_OK) {
      return fmt::format("the endpoint does not answer: {}", curl_easy_strerror(code));
    }
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    return status >= kFirstSuccess && status < kFirstOther
               ? ""
               : fmt::format("the endpoint answers with HTTP status {}", status);
  }

 private:
  /// Read for each request: a token may be replaced while the program runs.
  bool addFile(Headers& headers) const {
    if (config.headerFile.empty()) {
      return true;
    }
    std::ifstream file(config.headerFile);
    for (std::string line; std::getline(file, line);) {
      if (!line.empty() && line.back() == '\r') {
        line.pop_back();
      }
      if (!line.empty() && line[0] != '#') {
        add(headers, line);
      }
    }
    return file.eof();
  }

  std::string bodyOf(const std::vector<Event>& events) const {
    if (!config.body.empty()) {
      return filledAsJson(config.body, events[0]);
    }
    std::string body = R"({"version":1,"events":[)";
    for (const Event& event : events) {
      body += (&event == &events[0] ? "" : ",") + event.text;
    }
    return body + "]}";
  }

  void setOptions(const Headers& headers, const std::string& body) {
    CURL* handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, config.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(config.timeout.count()));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "kodunotify/" KODU_VERSION);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discard);
  }

  const NotifyConfig& config;
  std::unique_ptr<CURL, EasyCleaner> curl;
};

}  // namespace

std::unique_ptr<Target> makeHttpTarget(const NotifyConfig& config) {
  return std::make_unique<HttpTarget>(config);
}
