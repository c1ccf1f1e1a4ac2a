#include "backend/backend_location.h"

#include <gtest/gtest.h>

namespace norvik {
namespace {

TEST(BackendLocation, EndpointNamesAreAppendedToTheBasePath) {
  EXPECT_EQ(BackendLocation::builtIn().endpointURL("main"), "https://api.norvik.app/api/v1/main");
  auto local = BackendLocation::fromURL("https://127.0.0.1:8443/api/");
  ASSERT_TRUE(local.has_value());
  EXPECT_EQ(local->endpointURL("getkey"), "https://127.0.0.1:8443/api/getkey");
  EXPECT_EQ(BackendLocation::fromURL("https://h.example/api")->endpointURL("main"), "https://h.example/api/main");
}

TEST(BackendLocation, HttpBecomesHttps) {
  EXPECT_EQ(BackendLocation::fromURL("http://127.0.0.1:8080/api/")->endpointURL("main"),
            "https://127.0.0.1:8080/api/main");
  EXPECT_EQ(BackendLocation::builtIn().endpointURL("main", "http://next.example"), "https://next.example/api/v1/main");
}

TEST(BackendLocation, TheAnnouncedHostReplacesHostAndPortAndKeepsThePath) {
  const auto base = BackendLocation::fromURL("https://127.0.0.1:8443/api/").value();
  EXPECT_EQ(base.endpointURL("main", "next.example"), "https://next.example/api/main");
  EXPECT_EQ(base.endpointURL("main", "next.example:9443"), "https://next.example:9443/api/main");
  EXPECT_EQ(base.endpointURL("main", "https://next.example/elsewhere/"), "https://next.example/api/main");
  EXPECT_EQ(base.endpointURL("main", "[::1]:9443"), "https://[::1]:9443/api/main");
  EXPECT_EQ(base.endpointURL("main", "not a host"), "https://127.0.0.1:8443/api/main") << "unreadable: ignored";
  EXPECT_EQ(base.endpointURL("main", "ftp://next.example"), "https://127.0.0.1:8443/api/main");
}

TEST(BackendLocation, ABaseMustBeAnAbsoluteWebURL) {
  EXPECT_FALSE(BackendLocation::fromURL("127.0.0.1:8443/api").has_value());
  EXPECT_FALSE(BackendLocation::fromURL("ftp://h.example/").has_value());
  EXPECT_FALSE(BackendLocation::fromURL("https://").has_value());
}

}  // namespace
}  // namespace norvik
