#include "routing/domain_name.h"

#include <gtest/gtest.h>

namespace norvik {
namespace {

TEST(DomainNameTest, NormalisesCaseSpacesTrailingDotsAndScripts) {
  struct Case {
    std::string_view input, display, ascii;
  };
  const Case cases[] = {
      {"twitch.tv", "twitch.tv", "twitch.tv"},
      {"  Twitch.TV.  ", "twitch.tv", "twitch.tv"},
      {"пример.рф", "пример.рф", "xn--e1afmkfd.xn--p1ai"},
      {"ПРИМЕР.РФ", "пример.рф", "xn--e1afmkfd.xn--p1ai"},
      {"xn--e1afmkfd.xn--p1ai", "пример.рф", "xn--e1afmkfd.xn--p1ai"},
      {"Straße.de", "straße.de", "xn--strae-oqa.de"},  // kept as the German name, not "strasse"
      {"cdn-1.static.example.co.uk", "cdn-1.static.example.co.uk", "cdn-1.static.example.co.uk"},
  };
  for (const auto& c : cases) {
    auto parsed = parseDomainName(c.input);
    ASSERT_TRUE(parsed.has_value()) << c.input << ": " << parsed.error();
    EXPECT_EQ(parsed->display, c.display) << c.input;
    EXPECT_EQ(parsed->ascii, c.ascii) << c.input;
  }
}

TEST(DomainNameTest, RefusesWhatIsNoDomain) {
  const std::string longLabel(64, 'a');
  const std::string longName = std::string(62, 'a') + "." + std::string(62, 'b') + "." + std::string(62, 'c') + "." +
                               std::string(62, 'd') + ".com";  // 255 characters
  const std::string refused[] = {
      "",
      "   ",
      "https://twitch.tv",
      "twitch.tv/videos",
      "twitch.tv?x=1",
      "twitch.tv:443",
      "user@twitch.tv",
      "twitch tv",
      "twitch.tv\n.com",
      "localhost",
      "a..com",
      ".twitch.tv",
      "-twitch.tv",
      "twitch-.tv",
      "under_score.com",
      "1.2.3.4",
      "twitch.t",
      "*.twitch.tv",
      "\xff\xfe.com",
      longLabel + ".com",
      longName,
      "...",
  };
  for (const auto& input : refused) {
    auto parsed = parseDomainName(input);
    EXPECT_FALSE(parsed.has_value()) << "accepted \"" << input << "\" as " << parsed->ascii;
  }
}

}  // namespace
}  // namespace norvik
