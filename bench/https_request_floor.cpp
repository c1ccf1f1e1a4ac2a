// The memory floor of the agent: a process that links the same HTTPS stack (libcurl over OpenSSL)
// and makes one verified request, nothing else. Prints its resident memory in KiB.
//   https_request_floor URL CA_FILE
#include <curl/curl.h>
#include <fstream>
#include <iostream>
#include <string>

namespace {

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: https_request_floor URL CA_FILE\n";
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
    std::cerr << "https_request_floor: " << curl_easy_strerror(code) << "\n";
    return 1;
  }
  std::cout << residentKiB() << "\n";
  return 0;
}
