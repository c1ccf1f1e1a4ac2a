#include "routing/service_catalog.h"

#include <algorithm>

#include "routing/domain_name.h"

namespace norvik {
namespace {

const std::vector<RoutingServiceItem>& catalog() {
  static const std::vector<RoutingServiceItem> items = {
      {"youtube",
       "YouTube",
       "YouTube и сервисы Google",
       "#FF0000",
       std::nullopt,
       true,
       {"youtube.com", "youtu.be", "ytimg.com", "googlevideo.com", "ggpht.com", "youtube-nocookie.com",
        "youtubei.googleapis.com", "yt3.googleusercontent.com"},
       std::nullopt,
       {}},
      {"instagram",
       "Instagram",
       "Instagram, Facebook",
       "#E1306C",
       "meta",
       true,
       {"instagram.com", "cdninstagram.com", "ig.me", "facebook.com", "fb.com", "fbcdn.net", "fbsbx.com",
        "facebook.net", "messenger.com"},
       std::nullopt,
       {}},
      {"whatsapp",
       "WhatsApp",
       "Звонки и сообщения",
       "#25D366",
       "meta",
       true,
       {"whatsapp.com", "whatsapp.net", "wa.me"},
       std::nullopt,
       {}},
      {"telegram",
       "Telegram",
       "Каналы, звонки, медиа",
       "#229ED9",
       std::nullopt,
       true,
       {"telegram.org", "telegram.me", "t.me", "telesco.pe", "tdesktop.com", "telegra.ph", "cdn-telegram.org"},
       std::nullopt,
       {}},
      {"tiktok",
       "TikTok",
       "Короткие видео",
       "#111111",
       std::nullopt,
       true,
       {"tiktok.com", "tiktokv.com", "tiktokcdn.com", "tiktokcdn-us.com", "byteoverseas.com", "ibytedtos.com",
        "ttwstatic.com"},
       std::nullopt,
       {}},
      {"discord",
       "Discord",
       "Голос и сообщества",
       "#5865F2",
       std::nullopt,
       true,
       {"discord.com", "discord.gg", "discordapp.com", "discordapp.net", "discord.media", "discordcdn.com"},
       std::nullopt,
       {}},
      {"chatgpt",
       "ChatGPT",
       "Нейросеть",
       "#10A37F",
       std::nullopt,
       false,
       {"chatgpt.com", "openai.com", "oaistatic.com", "oaiusercontent.com"},
       std::nullopt,
       {}},
      {"claude",
       "Claude",
       "Нейросеть",
       "#D97757",
       std::nullopt,
       false,
       {"claude.ai", "anthropic.com", "claudeusercontent.com"},
       std::nullopt,
       {}},
  };
  return items;
}

bool isColorHex(const std::string& text) {
  return text.size() == 7 && text[0] == '#' && std::all_of(text.begin() + 1, text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
         });
}

RoutingServiceItem fromBackend(const RoutingServiceConfig& config) {
  const auto& builtIn = catalog();
  const auto known = std::ranges::find(builtIn, config.key, &RoutingServiceItem::key);
  RoutingServiceItem item;
  if (known != builtIn.end()) {
    item = *known;
  } else {
    item.key = config.key;
    item.title = config.key;
    item.colorHex = "#8E8E93";  // a neutral grey for a service we have no colour of
  }
  if (config.title && !config.title->empty()) item.title = *config.title;
  if (config.subtitle) item.subtitle = *config.subtitle;
  if (config.color && isColorHex(*config.color)) item.colorHex = *config.color;
  if (config.group) item.group = config.group->empty() ? std::nullopt : config.group;
  if (config.hasList) item.hasCidr = *config.hasList;
  if (config.iconURL) item.iconURL = config.iconURL;
  if (config.domains) {
    item.watchDomains.clear();
    for (const auto& domain : *config.domains) {
      auto parsed = parseDomainName(domain);
      if (parsed && std::ranges::find(item.watchDomains, parsed->ascii) == item.watchDomains.end()) {
        item.watchDomains.push_back(std::move(parsed->ascii));
      }
    }
  }
  if (config.cidr) item.inlineCidrs = *config.cidr;
  return item;
}

}  // namespace

std::span<const RoutingServiceItem> builtInCatalog() { return catalog(); }

std::vector<std::string> defaultServiceSelection() { return {"youtube", "instagram", "whatsapp", "telegram"}; }

std::vector<RoutingServiceItem> catalogFor(const RoutingConfig& routing) {
  if (!routing.services || routing.services->empty()) return catalog();
  std::vector<RoutingServiceItem> items;
  for (const auto& config : *routing.services) {
    if (config.key.empty() || !config.enabled.value_or(true)) continue;
    if (std::ranges::find(items, config.key, &RoutingServiceItem::key) != items.end()) continue;  // first wins
    items.push_back(fromBackend(config));
  }
  return items;
}

}  // namespace norvik
