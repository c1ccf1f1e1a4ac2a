#include "tools/devbackend/documents.h"

#include <algorithm>
#include <arpa/inet.h>
#include <ctime>
#include <initializer_list>
#include <netinet/in.h>
#include <vector>

#include <fmt/format.h>
#include <openssl/evp.h>

#include "platform/crypto.h"

namespace norvik::devbackend {
namespace {

using nlohmann::json;

// Made-up ranges in address space that looks like Russian networks; development data only.
constexpr std::uint8_t kGeoIPBlocks[][2] = {
    {5, 3},    {5, 8},    {5, 16},    {5, 101},  {31, 40},   {31, 173},  {37, 29},  {37, 140},  {46, 17},
    {46, 39},  {46, 147}, {62, 76},   {77, 37},  {77, 88},   {78, 24},   {79, 104}, {80, 64},   {81, 19},
    {82, 138}, {83, 149}, {85, 26},   {87, 250}, {89, 108},  {91, 105},  {92, 38},  {93, 158},  {94, 25},
    {95, 108}, {95, 165}, {109, 195}, {176, 59}, {178, 154}, {185, 71},  {188, 43}, {193, 232}, {194, 67},
    {195, 19}, {212, 41}, {213, 180}, {217, 69}, {91, 215},  {176, 109},
};
constexpr const char* kGeoIPv6[] = {"2a00:1148::/32", "2a02:6b8::/32", "2a03:f480::/32",
                                    "2a0c:a9c7::/48", "2a01:620::/32", "2a02:2698::/32"};

// Made-up ranges for the services' own networks; development data only.
const json& serviceRanges() {
  static const json ranges = {
      {"youtube",
       {"142.250.0.0/15", "172.217.0.0/16", "173.194.0.0/16", "216.58.192.0/19", "74.125.0.0/16", "208.65.152.0/22",
        "2a00:1450::/32"}},
      {"instagram",
       {"157.240.0.0/17", "31.13.24.0/21", "31.13.64.0/18", "179.60.192.0/22", "185.60.216.0/22", "2a03:2880::/32"}},
      {"whatsapp", {"157.240.192.0/18", "169.45.0.0/16", "158.85.224.0/20", "184.173.128.0/17"}},
      {"telegram",
       {"91.108.4.0/22", "91.108.8.0/22", "91.108.12.0/22", "91.108.16.0/22", "91.108.56.0/22", "149.154.160.0/20",
        "95.161.64.0/20", "2001:67c:4e8::/48"}},
      {"tiktok", {"161.117.64.0/18", "156.240.64.0/18", "147.160.176.0/20", "71.18.0.0/16", "130.44.212.0/22"}},
      {"discord", {"162.159.128.0/19", "66.22.192.0/18", "35.214.128.0/17", "138.128.136.0/21"}},
      {"chatgpt", {"104.18.32.0/19", "172.64.144.0/20", "23.102.140.0/22", "13.107.238.0/24"}},
      {"claude", {"160.79.104.0/23", "34.36.57.0/24", "2607:6bc0::/48"}},
  };
  return ranges;
}

std::string xmlEscaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

json routingSection(const std::string& listsVersion) {
  auto service = [](const char* key, bool defaultOn) {
    return json{{"key", key}, {"default_on", defaultOn}, {"has_list", true}};
  };
  return {
      {"enabled", true},
      {"show_mode_tab", true},
      {"allowed_modes", {0, 1, 2}},
      {"default_mode", 0},
      {"kill_switch", false},
      {"allow_custom_domain", true},
      {"show_dns_hint", false},
      {"lists_version", listsVersion},
      {"services",
       {service("youtube", true), service("instagram", true), service("whatsapp", true), service("telegram", true),
        service("discord", false), service("chatgpt", false)}},
      {"on_demand_enabled", false},
      {"full_mode_light_datapath", false},
      {"relay_harden_enabled", false},
      {"extension_mem_limit_mb", 48},
  };
}

}  // namespace

std::string russianDate(std::int64_t seconds) {
  const auto t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  return fmt::format("{:02}.{:02}.{}", tm.tm_mday, tm.tm_mon + 1, tm.tm_year + 1900);
}

std::string shortDigest(std::string_view text, std::size_t hexDigits) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
  return hexLower(ByteView(digest, length)).substr(0, hexDigits);
}

VersionedText geoIPList(int count) {
  count = std::clamp(count, 0, kMaxGeoIPEntries);
  const int v6 = std::min<int>(count / 100, std::size(kGeoIPv6));
  const int v4 = count - v6;
  std::vector<std::uint32_t> networks;
  networks.reserve(static_cast<std::size_t>(v4));
  constexpr int kBlocks = std::size(kGeoIPBlocks);
  for (int i = 0; i < v4; ++i) {
    const int block = i % kBlocks;
    const int round = i / kBlocks;
    // 37 is odd, so the third octet runs through all 256 values before it repeats.
    const std::uint32_t third = static_cast<std::uint32_t>(round * 37 + block * 11) % 256;
    networks.push_back(static_cast<std::uint32_t>(kGeoIPBlocks[block][0]) << 24 |
                       static_cast<std::uint32_t>(kGeoIPBlocks[block][1]) << 16 | third << 8);
  }
  std::ranges::sort(networks);
  std::string text;
  text.reserve(static_cast<std::size_t>(count) * 17);
  for (std::uint32_t n : networks) {
    text += fmt::format("{}.{}.{}.0/24\n", n >> 24, (n >> 16) & 255, (n >> 8) & 255);
  }
  for (int i = 0; i < v6; ++i) text += fmt::format("{}\n", kGeoIPv6[i]);
  std::string version = "dev-" + shortDigest(text);
  return {std::move(text), std::move(version)};
}

namespace {

// A small deterministic generator: the same list on every machine and every run.
class SplitMix {
 public:
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }

 private:
  std::uint64_t state_ = 27;
};

// Prefix lengths by weight in percent, as in published country lists.
int pickLength(SplitMix& random, std::initializer_list<std::pair<int, int>> weights) {
  int roll = static_cast<int>(random.next() % 100);
  for (const auto& [length, weight] : weights) {
    if (roll < weight) return length;
    roll -= weight;
  }
  return weights.begin()->first;
}

// Ranges no public list carries: private, shared, loopback, link-local, test and multicast space.
bool reservedIPv4(std::uint32_t first, std::uint32_t last) {
  static constexpr std::pair<std::uint32_t, int> kReserved[] = {
      {0x0A000000, 8},  {0x64400000, 10}, {0x7F000000, 8},  {0xA9FE0000, 16}, {0xAC100000, 12}, {0xC0000000, 24},
      {0xC0000200, 24}, {0xC0A80000, 16}, {0xC6120000, 15}, {0xC6336400, 24}, {0xCB007100, 24}, {0xE0000000, 3}};
  for (const auto& [network, length] : kReserved) {
    const std::uint32_t end = network | (0xFFFFFFFFu >> length);
    if (first <= end && last >= network) return true;
  }
  return false;
}

}  // namespace

VersionedText countryGeoIPList(int v4, int v6) {
  SplitMix random;
  std::string text;
  text.reserve(static_cast<std::size_t>(v4) * 16 + static_cast<std::size_t>(v6) * 20);
  // IPv4: walk upwards from 5.3.0.0, each range aligned to its length, with a gap after it so that
  // neighbours never merge into a shorter prefix.
  std::uint64_t cursor = 0x05030000;
  for (int i = 0; i < v4;) {
    const int length =
        i == 0
            ? 24
            : pickLength(random, {{24, 45}, {23, 15}, {22, 20}, {21, 8}, {20, 5}, {19, 3}, {18, 2}, {17, 1}, {16, 1}});
    const std::uint64_t size = 1ull << (32 - length);
    cursor = (cursor + size - 1) / size * size;
    if (cursor + size > 0xE0000000ull) break;  // never: the walk spends a fraction of the space
    const auto first = static_cast<std::uint32_t>(cursor);
    const auto last = static_cast<std::uint32_t>(cursor + size - 1);
    // Skipping at least one block of the range's own size after it keeps it from aggregating.
    const std::uint64_t gap = size * (1 + random.next() % 8) + (random.next() % 64) * 256;
    if (!reservedIPv4(first, last)) {
      text +=
          fmt::format("{}.{}.{}.{}/{}\n", first >> 24, (first >> 16) & 255, (first >> 8) & 255, first & 255, length);
      ++i;
    }
    cursor += size + gap;
  }
  // IPv6: the same walk over the top 64 bits, from 2a00:1148::.
  std::uint64_t cursor6 = 0x2a00114800000000ull;
  for (int i = 0; i < v6; ++i) {
    const int length = i == 0 ? 32 : pickLength(random, {{32, 40}, {48, 30}, {29, 10}, {36, 10}, {40, 10}});
    const std::uint64_t size = 1ull << (64 - length);
    cursor6 = (cursor6 + size - 1) / size * size;
    const std::uint64_t first = cursor6;
    in6_addr address{};
    for (int byte = 0; byte < 8; ++byte) address.s6_addr[byte] = static_cast<std::uint8_t>(first >> (56 - 8 * byte));
    char shown[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET6, &address, shown, sizeof shown);
    text += fmt::format("{}/{}\n", shown, length);
    cursor6 += size * (2 + random.next() % 4);
  }
  std::string version = "dev-country-" + shortDigest(text);
  return {std::move(text), std::move(version)};
}

const ServiceLists& serviceLists() {
  static const ServiceLists lists = [] {
    const std::string version = "dev-" + shortDigest(serviceRanges().dump());
    return ServiceLists{json{{"version", version}, {"services", serviceRanges()}}, version};
  }();
  return lists;
}

json mainDocument(const MainInputs& in) {
  const Device& device = *in.device;
  const bool active = device.subscriptionActive && device.subExpireTs > in.serverTime;

  json main = {
      {"is_active", true},
      {"switch", active ? "on" : "off"},
      {"main_text", active ? fmt::format("Подписка активна до {}", russianDate(device.subExpireTs))
                           : std::string("Подписка закончилась. Продлите её, чтобы пользоваться VPN.")},
      {"main_title", "Norvik"},
      {"btn_type", "link"},
      {"btn_text", active ? "Управлять подпиской" : "Продлить"},
      {"btn_link", "https://norvik.app/pay"},
      {"alert_message", ""},
  };
  if (device.keyText && device.currentKey && in.server) {
    main["key_data"] = *device.keyText;
    main["key_ip"] = in.server->host();
  }
  main.update(json{
      {"cancel_type", 1},
      {"tg_type", 1},
      {"custom_btn_hidden", false},
      {"link_support", "https://norvik.app/support"},
      {"link_tg", "https://t.me/norvik_support"},
      {"link_terms", "https://norvik.app/terms"},
      {"link_app", "https://norvik.app"},
      {"link_share", "https://norvik.app/share"},
      {"show_company", false},
      {"move_button", true},
      {"geoip_version", in.geoIPVersion},
      {"geop", true},
      {"sub_active", active},
      {"sub_expire_ts", device.subExpireTs},
      {"server_time", in.serverTime},
      {"server_change_auto_reconnect", true},
      {"smart_status", in.smartStatus},
      {"sub_card_auto_collapse_days", 3},
      {"sub_card_collapsed_default", false},
      {"iosFixedEnable", true},
      {"iosFixes",
       {{"tunMTU", 1280},
        {"disableIPv6", 0},
        {"debugLogEnabled", 0},
        {"reconnectWaitMs", 1500},
        {"selfHealMaxPerDay", 3},
        {"keySoftDelete", 0},
        {"preConnectNoInternet", 0}}},
  });
  // The client sends every later request to an announced host, so it is only sent when asked for.
  if (in.linkDomain) main["link_domain"] = *in.linkDomain;

  json document = {
      {"main", std::move(main)},
      {"info", {{"id", "devbackend"}, {"type", "none"}}},
      {"routing", routingSection(in.listsVersion)},
      {"sub_panel",
       {{"state", active ? "active" : "expired"},
        {"title", active ? "Подписка активна" : "Подписка закончилась"},
        {"plan_name", "Месяц"},
        {"price", "299 ₽"},
        {"price_rub", 299},
        {"currency", "RUB"},
        {"billing_period", "month"},
        {"valid_until", device.subExpireTs},
        {"next_billing_date", device.subExpireTs},
        {"auto_renew", active},
        {"can_cancel", active}}},
  };
  if (in.patch.is_object()) document.merge_patch(in.patch);
  return document;
}

std::string appcastXml(const FeedItem& item) {
  std::string signature;
  if (item.edSignature) signature = fmt::format(" sparkle:edSignature=\"{}\"", xmlEscaped(*item.edSignature));
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">\n"
      "  <channel>\n"
      "    <title>Norvik</title>\n"
      "    <item>\n"
      "      <title>Norvik {0}</title>\n"
      "      <pubDate>{1}</pubDate>\n"
      "      <sparkle:version>{0}</sparkle:version>\n"
      "      <sparkle:shortVersionString>{0}</sparkle:shortVersionString>\n"
      "      <sparkle:releaseNotesLink>{2}</sparkle:releaseNotesLink>\n"
      "      <sparkle:minimumSystemVersion>11.0</sparkle:minimumSystemVersion>\n"
      "      <enclosure url=\"{3}\" length=\"{4}\" type=\"application/octet-stream\"{5}/>\n"
      "    </item>\n"
      "  </channel>\n"
      "</rss>\n",
      xmlEscaped(item.version), httpDate(item.publishedAt), xmlEscaped(item.releaseNotesURL),
      xmlEscaped(item.enclosureURL), item.length, signature);
}

std::string releaseNotesHtml(std::string_view version) {
  return fmt::format(
      "<html><body><h1>Norvik {}</h1><ul><li>Сборка локального сервера разработки.</li>"
      "<li>Список изменений появится здесь.</li></ul></body></html>\n",
      xmlEscaped(version));
}

std::string malformedBody(std::string_view endpoint, std::string_view original) {
  if (endpoint == "geoip") return R"({"status":"maintenance","message":"Список обновляется"})";
  if (original.size() < 2) return "{";
  return std::string(original.substr(0, original.size() / 2));
}

std::string httpDate(std::int64_t secondsSince1970) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto t = static_cast<std::time_t>(secondsSince1970);
  std::tm tm{};
  gmtime_r(&t, &tm);
  return fmt::format("{}, {:02} {} {} {:02}:{:02}:{:02} GMT", kDays[tm.tm_wday], tm.tm_mday, kMonths[tm.tm_mon],
                     tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

}  // namespace norvik::devbackend
