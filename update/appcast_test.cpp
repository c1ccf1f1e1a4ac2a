#include "update/appcast.h"

#include <gtest/gtest.h>

#include "testing/temp_dir.h"
#include "update/fake_mac_tools.h"
#include "update/file_signature.h"
#include "update/release_notes.h"

namespace norvik {
namespace {

// A feed as the publishing tool writes it: one item with the versions as elements, one with them
// as enclosure attributes, a beta item, and one that needs a newer system.
constexpr std::string_view kFeed = R"(<?xml version="1.0" encoding="utf-8"?>
<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle" xmlns:dc="http://purl.org/dc/elements/1.1/">
  <channel>
    <title>Norvik</title>
    <item>
      <title>Norvik 1.10</title>
      <sparkle:version>1100</sparkle:version>
      <sparkle:shortVersionString>1.10</sparkle:shortVersionString>
      <sparkle:releaseNotesLink>https://norvik.app/notes/1.10.html</sparkle:releaseNotesLink>
      <sparkle:minimumSystemVersion>11.0</sparkle:minimumSystemVersion>
      <enclosure url="https://dl.norvik.app/Norvik-1.10.dmg" length="48213344" type="application/octet-stream"
                 sparkle:edSignature="c2lnbmF0dXJl"/>
    </item>
    <item>
      <title>Norvik 1.9</title>
      <description><![CDATA[<h2>Что нового</h2><ul><li>Быстрее</li></ul>]]></description>
      <enclosure url="https://dl.norvik.app/Norvik-1.9.dmg" length="0" sparkle:version="900" sparkle:shortVersionString="1.9"/>
    </item>
    <item>
      <title>Norvik 2.0 beta</title>
      <sparkle:channel>beta</sparkle:channel>
      <enclosure url="https://dl.norvik.app/Norvik-2.0b1.dmg" sparkle:version="2000"/>
    </item>
    <item>
      <title>Norvik 1.20 for Sonoma</title>
      <sparkle:minimumSystemVersion>14.0</sparkle:minimumSystemVersion>
      <enclosure url="https://dl.norvik.app/Norvik-1.20.dmg" sparkle:version="1200"/>
    </item>
  </channel>
</rss>)";

TEST(AppcastTest, ReadsEveryFieldInEitherForm) {
  auto appcast = parseAppcast(kFeed);
  ASSERT_TRUE(appcast.has_value()) << appcast.error();
  EXPECT_EQ(appcast->title, "Norvik");
  ASSERT_EQ(appcast->items.size(), 4u);
  EXPECT_TRUE(appcast->skipped.empty());

  const auto& first = appcast->items[0];
  EXPECT_EQ(first.title, "Norvik 1.10");
  EXPECT_EQ(first.version, "1100");
  EXPECT_EQ(first.displayVersion(), "1.10");
  EXPECT_EQ(first.enclosureURL, "https://dl.norvik.app/Norvik-1.10.dmg");
  EXPECT_EQ(first.enclosureLength, 48213344u);
  EXPECT_EQ(first.edSignature, "c2lnbmF0dXJl");
  EXPECT_EQ(first.releaseNotesURL, "https://norvik.app/notes/1.10.html");
  EXPECT_EQ(first.minimumSystemVersion, "11.0");
  EXPECT_FALSE(first.channel.has_value());

  const auto& second = appcast->items[1];
  EXPECT_EQ(second.version, "900");
  EXPECT_EQ(second.shortVersion, "1.9");
  EXPECT_FALSE(second.enclosureLength.has_value()) << "0 means the length was not told";
  EXPECT_EQ(second.description, "<h2>Что нового</h2><ul><li>Быстрее</li></ul>");
  EXPECT_EQ(appcast->items[2].channel, "beta");
}

TEST(AppcastTest, TheNamespacePrefixIsWhateverTheFeedDeclares) {
  auto appcast = parseAppcast(R"(<rss xmlns:up="http://www.andymatuschak.org/xml-namespaces/sparkle"><channel>
      <item><up:version>5</up:version><enclosure url="https://x/y.dmg" up:edSignature="AA=="/></item>
    </channel></rss>)");
  ASSERT_TRUE(appcast.has_value());
  ASSERT_EQ(appcast->items.size(), 1u);
  EXPECT_EQ(appcast->items[0].version, "5");
  EXPECT_EQ(appcast->items[0].edSignature, "AA==");
}

TEST(AppcastTest, BadItemsAreSkippedWithTheirReasonAndTheRestKept) {
  auto appcast = parseAppcast(R"(<rss><channel>
      <item><title>no version</title><enclosure url="https://x/a.dmg"/></item>
      <item><sparkle:version>2</sparkle:version><enclosure url="https://x/b.dmg" length="12x"/></item>
      <item><sparkle:version>3</sparkle:version></item>
      <item><sparkle:version>4</sparkle:version><enclosure url="  "/></item>
      <item><sparkle:version>5</sparkle:version><enclosure url="https://x/e.dmg" length="99999999999999999999"/></item>
      <item><sparkle:version>6</sparkle:version><enclosure url="https://x/f.dmg"/></item>
    </channel></rss>)");
  ASSERT_TRUE(appcast.has_value());
  ASSERT_EQ(appcast->items.size(), 1u);
  EXPECT_EQ(appcast->items[0].version, "6");
  EXPECT_EQ(appcast->skipped, (std::vector<std::string>{
                                  "item 1: no version",
                                  "item 2: enclosure length \"12x\" is not a number",
                                  "item 3: no enclosure",
                                  "item 4: the enclosure has no url",
                                  "item 5: enclosure length \"99999999999999999999\" is not a number",
                              }));
}

TEST(AppcastTest, ADocumentThatIsNotAFeedIsAnError) {
  EXPECT_EQ(parseAppcast("<html><body>503</body></html>").error(), "the feed's root element is \"html\", not \"rss\"");
  EXPECT_EQ(parseAppcast("<rss version=\"2.0\"></rss>").error(), "the feed has no <channel>");
  EXPECT_TRUE(parseAppcast("<rss><channel><item>").error().starts_with("the feed is not XML ("));
  EXPECT_FALSE(parseAppcast("").has_value());
}

TEST(CompareVersionsTest, ComparesNumbersByValueNotAsText) {
  struct Order {
    std::string_view older, newer;
  };
  const Order orders[] = {
      {"1.9", "1.10"},
      {"9", "10"},
      {"1.0", "1.0.1"},
      {"1.0b1", "1.0"},
      {"1.0b1", "1.0b2"},
      {"1.0b9", "1.0b10"},
      {"1.0beta2", "1.0rc1"},
      {"1.0b1", "1.0.1"},
      {"2.9.9", "3"},
      {"1100", "1200"},
      {"99999999999999999999", "100000000000000000000"},
  };
  for (const auto& [older, newer] : orders) {
    EXPECT_LT(compareVersions(older, newer), 0) << older << " < " << newer;
    EXPECT_GT(compareVersions(newer, older), 0) << newer << " > " << older;
  }
  for (auto [a, b] : {std::pair{"2", "2.0"}, {"1.0.0", "1"}, {"01.2", "1.2"}, {"1.0B1", "1.0b1"}, {"", "0"}}) {
    EXPECT_EQ(compareVersions(a, b), 0) << a << " = " << b;
  }
}

TEST(BestUpdateTest, PicksTheNewestReleaseMeantForThisSystemAndChannel) {
  const Appcast appcast = parseAppcast(kFeed).value();
  EXPECT_EQ(bestUpdate(appcast, {"1000"})->version, "1200");
  EXPECT_EQ(bestUpdate(appcast, {"1000", false, "13.6"})->version, "1100") << "1.20 needs macOS 14";
  EXPECT_EQ(bestUpdate(appcast, {"1000", true, "14.1"})->version, "2000");
  EXPECT_FALSE(bestUpdate(appcast, {"1200"}).has_value());
  EXPECT_FALSE(bestUpdate(appcast, {"2000", true}).has_value());
}

TEST(ReleaseNotesTest, BreaksAtClosingBlockTagsAndKeepsOnlyText) {
  EXPECT_EQ(releaseNotesText("<h2>Что нового</h2><ul><li>Быстрее  подключение</li>\n<LI>Меньше&nbsp;батареи</LI></ul>"
                             "<p>Спасибо &laquo;вам&raquo; &amp; до&#32;встречи&#x21;</P><div>a<br>b</div>"),
            "Что нового\nБыстрее подключение\nМеньше батареи\nСпасибо «вам» & до встречи!\na\nb");
  EXPECT_EQ(releaseNotesText("<style>p{color:red}</style><script>alert('x')</script><!-- hidden --><p>видно</p>"),
            "видно");
  EXPECT_EQ(releaseNotesText("a < b &unknown; &#xD800; <p"), "a < b &unknown; \xEF\xBF\xBD");
  EXPECT_EQ(releaseNotesText("plain\ntext"), "plain text");
  EXPECT_EQ(releaseNotesText(""), "");
}

TEST(FileSignatureTest, AcceptsTheSignedFileAndNothingElse) {
  testing::TempDir dir;
  testing::Ed25519Signer signer;
  const auto file = dir / "image.dmg";
  testing::FakeMacTools::writeText(file, "disk image bytes");
  const Bytes key = signer.publicKey();

  EXPECT_TRUE(verifyEd25519FileSignature(file, signer.sign("disk image bytes"), key).has_value());
  EXPECT_EQ(verifyEd25519FileSignature(file, signer.sign("disk image bytez"), key).error(), "mismatch");
  EXPECT_EQ(verifyEd25519FileSignature(file, "not base64!", key).error(),
            "signature \"not base64!\" is not Base64 of 64 bytes");
  EXPECT_TRUE(verifyEd25519FileSignature(dir / "missing", signer.sign(""), key).error().starts_with("open "));

  testing::FakeMacTools::writeText(dir / "empty", "");
  EXPECT_TRUE(verifyEd25519FileSignature(dir / "empty", signer.sign(""), key).has_value());

  // The second test vector of RFC 8032: the one-byte message "r".
  testing::FakeMacTools::writeText(dir / "r", "r");
  const Bytes rfcKey = parseEd25519PublicKey("PUAXw+hDiVqStwqnTRt+vJyYLM8uxJaMwM1V8Sr0Zgw=").value();
  EXPECT_TRUE(
      verifyEd25519FileSignature(
          dir / "r", "kqAJqfDUyrhyDoILX2QlQKKye1QWUD+Ps3YiI+vbadoIWsHkPhWZbkWPNhPQ8R2MOHsurrQwKu6wDSkWErsMAA==", rfcKey)
          .has_value());

  EXPECT_EQ(parseEd25519PublicKey(" " + base64Encode(key) + "\n").value(), key);
  EXPECT_EQ(parseEd25519PublicKey(base64Encode(Bytes(31))).error(), "the Ed25519 public key has 31 bytes, not 32");
  EXPECT_FALSE(parseEd25519PublicKey("%%%").has_value());
}

}  // namespace
}  // namespace norvik
