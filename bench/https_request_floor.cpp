// The memory floor of the agent. Built twice:
//   https_request_floor URL CA_FILE           a bare process that links the same HTTPS stack
//                                             (libcurl over OpenSSL) and makes one verified request;
//   library_stack_floor URL CA_FILE DATABASE  the same request, plus what every agent does with the
//                                             other libraries it links: one setting written to and
//                                             read back from an SQLite database in WAL mode (like
//                                             the settings store), a line formatted with fmt and a
//                                             tiny XML document parsed with pugixml.
// Prints its resident memory in KiB. Nothing of Norvik's own code is linked.
#include <curl/curl.h>

#include <fstream>
#include <iostream>
#include <string>

#ifdef NORVIK_FLOOR_WITH_LIBRARY_STACK
#include <fmt/format.h>
#include <sqlite3.h>

#include <pugixml.hpp>
#endif

namespace {

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return -1;
}

#ifdef NORVIK_FLOOR_WITH_LIBRARY_STACK
bool useLibraryStack(const char* databasePath) {
  sqlite3* db = nullptr;
  bool ok = sqlite3_open(databasePath, &db) == SQLITE_OK &&
            sqlite3_exec(db,
                         "PRAGMA journal_mode=WAL;"
                         "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value BLOB);"
                         "INSERT OR REPLACE INTO settings VALUES('floor', x'01');"
                         "SELECT value FROM settings WHERE key = 'floor';",
                         nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  pugi::xml_document feed;
  ok = ok && feed.load_string("<rss><channel><item/></channel></rss>");
  return ok && !fmt::format("{} {}", "floor", 1).empty();
}
#endif

}  // namespace

int main(int argc, char** argv) {
#ifdef NORVIK_FLOOR_WITH_LIBRARY_STACK
  constexpr int kArguments = 4;
  constexpr const char* kUsage = "usage: library_stack_floor URL CA_FILE DATABASE\n";
#else
  constexpr int kArguments = 3;
  constexpr const char* kUsage = "usage: https_request_floor URL CA_FILE\n";
#endif
  if (argc != kArguments) {
    std::cerr << kUsage;
    return 2;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
  curl_easy_setopt(curl, CURLOPT_CAINFO, argv[2]);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &discard);
  const CURLcode code = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  if (code != CURLE_OK) {
    std::cerr << "floor: " << curl_easy_strerror(code) << "\n";
    return 1;
  }
#ifdef NORVIK_FLOOR_WITH_LIBRARY_STACK
  if (!useLibraryStack(argv[3])) {
    std::cerr << "floor: the settings database or the XML parser failed\n";
    return 1;
  }
#endif
  std::cout << residentKiB() << "\n";
  return 0;
}
