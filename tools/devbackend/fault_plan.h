#pragma once

#include <array>
#include <chrono>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace norvik::devbackend {

// The faults a developer or a test asks for, per endpoint (an API endpoint name, or "appcast" for
// the update feed). Each kind holds at most one fault per endpoint; a new one replaces it.
//
//   status     ENDPOINT:STATUS[:COUNT]  answer STATUS (100-599) instead of serving
//   delay      ENDPOINT:MS[:COUNT]      hold the answer back MS milliseconds (at most 600000)
//   malformed  ENDPOINT[:COUNT]         answer 200 with a body the client cannot read
//
// COUNT is the number of attempts the fault applies to; without it the fault stays until cleared.
// Not thread-safe: its owner serialises access.
class FaultPlan {
 public:
  enum class Kind { status, delay, malformed };

  // Parses one fault in the syntax above; the error quotes the text.
  [[nodiscard]] std::expected<void, std::string> add(Kind kind, std::string_view text);

  struct BeforeServing {
    std::chrono::milliseconds delay{0};
    std::optional<int> status;
  };
  // The delay and status of one attempt at `endpoint`; every fault that applies uses up one of
  // its attempts.
  [[nodiscard]] BeforeServing takeBeforeServing(std::string_view endpoint);
  // Whether this successful answer is to be spoilt; uses up one attempt of the fault if so.
  [[nodiscard]] bool takeMalformed(std::string_view endpoint);

  void clear();
  [[nodiscard]] bool empty() const;
  // {"status": {"main": {"value": 503, "remaining": 10}}, "delay": {…}, "malformed": {…}};
  // "remaining" is null for a fault without a count.
  [[nodiscard]] nlohmann::json describe() const;

 private:
  struct Fault {
    int value = 0;                 // the status, or the delay in ms; unused for malformed
    std::optional<int> remaining;  // attempts left; none: until cleared
  };
  // Uses up one attempt of the fault of `kind` at `endpoint`; nothing when there is none.
  std::optional<int> take(Kind kind, std::string_view endpoint);

  std::array<std::map<std::string, Fault, std::less<>>, 3> faults_;  // by Kind
};

[[nodiscard]] std::string_view toString(FaultPlan::Kind kind);

// True for the endpoint names faults can be set on.
[[nodiscard]] bool isFaultableEndpoint(std::string_view name);

}  // namespace norvik::devbackend
