#pragma once

#include <chrono>
#include <span>
#include <string_view>

namespace norvik {

// One backend endpoint: its name (appended to the API base), the time-out of one attempt, the
// number of extra attempts after the first, and the wait before each of them.
struct Endpoint {
  std::string_view name;
  std::chrono::seconds timeout;
  int retries;
  std::chrono::seconds retryWait;
};

namespace endpoints {

using std::chrono::seconds;

inline constexpr Endpoint kMain{"main", seconds(10), 3, seconds(2)};
inline constexpr Endpoint kGetKey{"getkey", seconds(15), 3, seconds(2)};
// The server acts on a server change, so it is never repeated.
inline constexpr Endpoint kChangeServer{"change_server", seconds(15), 0, seconds(1)};
inline constexpr Endpoint kCheckAppVersion{"check_app_version", seconds(6), 3, seconds(3)};
inline constexpr Endpoint kGeoIP{"geoip", seconds(30), 3, seconds(2)};
inline constexpr Endpoint kServiceLists{"service_lists", seconds(30), 3, seconds(2)};
inline constexpr Endpoint kAddPush{"add_push", seconds(10), 3, seconds(2)};
inline constexpr Endpoint kStoreOpen{"st_open", seconds(10), 3, seconds(2)};
inline constexpr Endpoint kCancelSubscription{"cancel_sub_api", seconds(10), 3, seconds(2)};
inline constexpr Endpoint kRequestMoveCode{"request_move_code", seconds(15), 2, seconds(2)};
inline constexpr Endpoint kMoveSubscription{"move_sub", seconds(15), 2, seconds(2)};

inline constexpr Endpoint kAll[] = {
    kMain,    kGetKey,    kChangeServer,       kCheckAppVersion, kGeoIP,           kServiceLists,
    kAddPush, kStoreOpen, kCancelSubscription, kRequestMoveCode, kMoveSubscription};

// The extra body keys of the endpoints that take one.
inline constexpr std::string_view kPushTokenKey = "push_token";    // add_push
inline constexpr std::string_view kDeviceNameKey = "device_name";  // request_move_code, move_sub
inline constexpr std::string_view kMoveCodeKey = "code";           // move_sub

[[nodiscard]] const Endpoint* find(std::string_view name);

}  // namespace endpoints
}  // namespace norvik
