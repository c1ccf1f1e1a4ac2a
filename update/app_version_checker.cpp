#include "update/app_version_checker.h"

#include <algorithm>
#include <cmath>
#include <openssl/evp.h>

#include <fmt/format.h>

#include "platform/crypto.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

UpdatePromptKind kindOf(const OptText& type) {
  if (!type) return UpdatePromptKind::ordinary;
  if (*type == "ontime_hash" || *type == "ontime") return UpdatePromptKind::oneTime;
  if (*type == "soft_screen") return UpdatePromptKind::softScreen;
  if (*type == "force" || *type == "forced" || *type == "mandatory") return UpdatePromptKind::forced;
  return UpdatePromptKind::ordinary;
}

// How the backend wants the update taken: in the app, or from the page. Unrecognised modes fall
// back to the in_app_update flag.
std::optional<bool> inAppByMode(const OptText& mode, Log& log) {
  if (!mode || mode->empty()) return std::nullopt;
  if (*mode == "in_app" || *mode == "inapp" || *mode == "msi" || *mode == "auto") return true;
  if (*mode == "web" || *mode == "link" || *mode == "manual") return false;
  log.write("[Version] Windows update: unknown mode");
  return std::nullopt;
}

std::string textOr(const OptText& text, std::string_view fallback) {
  return text && !text->empty() ? *text : std::string(fallback);
}

}  // namespace

AppVersionChecker::AppVersionChecker(EventLoop& loop, NetworkService& network, Defaults& standardDefaults, Clock& clock,
                                     Log& log, Analytics& analytics, Hooks hooks)
    : loop_(loop),
      network_(network),
      defaults_(standardDefaults),
      clock_(clock),
      log_(log),
      analytics_(analytics),
      hooks_(std::move(hooks)) {}

std::string AppVersionChecker::releaseHash(const UpdateInfo& info) {
  // Unit separators keep ("ab", "c") and ("a", "bc") apart.
  const std::string content =
      fmt::format("{}\x1f{}\x1f{}\x1f{}", info.updateTitle.value_or(""), info.updateMessage.value_or(""),
                  info.updateLink.value_or(""), info.msiURL.value_or(""));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha256(), nullptr) != 1 || length < 8) return {};
  return hexLower(ByteView(digest, 8));
}

void AppVersionChecker::check() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (isChecking_) return;
  const auto now = loop_.now();
  if (lastCheckTime_ && now - *lastCheckTime_ < kMinCheckInterval) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(kMinCheckInterval - (now - *lastCheckTime_));
    log_.format("[Version] Too soon since last check ({}s remaining)", left.count());
    return;
  }
  lastCheckTime_ = now;
  isChecking_ = true;
  retryCount_ = 0;  // every trigger has its own retries
  send();
}

void AppVersionChecker::send() {
  network_.checkAppVersion([weak = weakFactory_.weak()](std::expected<AppVersionResponse, APIError> answer) {
    if (auto self = weak.lock()) self->onAnswer(std::move(answer));
  });
}

void AppVersionChecker::onAnswer(std::expected<AppVersionResponse, APIError> answer) {
  if (!answer) {
    log_.format("[Version] Check failed: {}: {}", answer.error().code, answer.error().message);
    if (retryCount_ < kMaxRetries) {
      ++retryCount_;
      log_.format("[Version] Retry attempt {}/{} in {} seconds", retryCount_, kMaxRetries, kRetryDelay.count());
      retryTimer_.start(loop_, kRetryDelay, [weak = weakFactory_.weak()] {
        if (auto self = weak.lock()) self->send();
      });
      return;
    }
    log_.format("[Version] Max retries ({}) reached, waiting for the next check", kMaxRetries);
    retryCount_ = 0;
    isChecking_ = false;
    return;
  }
  retryCount_ = 0;
  isChecking_ = false;
  if (!answer->update) {
    clearPrompt();
    return;
  }
  present(*answer->update);
}

void AppVersionChecker::present(const UpdateInfo& info) {
  const UpdatePromptKind kind = kindOf(info.updateType);
  switch (kind) {
    case UpdatePromptKind::oneTime: {
      const std::string hash = releaseHash(info);
      if (auto dismissedAt = defaults_.doubleValue(std::string(kOntimeHashLastShownPrefix) + hash)) {
        // A date ahead of the clock (the clock was set back) counts the same distance.
        if (std::abs(now() - *dismissedAt) < kOneTimeCooldownSeconds) {
          log_.format("[Version] Ontime_hash update suppressed (cooldown active for hash {})", hash);
          clearPrompt();
          return;
        }
      }
      break;
    }
    case UpdatePromptKind::softScreen:
      if (cooldownActive(kSoftScreenCooldownKey)) {
        log_.format("[Version] Soft_screen update suppressed (cooldown until {:.0f})",
                    defaults_.doubleValue(kSoftScreenCooldownKey).value_or(0));
        clearPrompt();
        return;
      }
      break;
    case UpdatePromptKind::ordinary:
      if (cooldownActive(kNormalCooldownKey)) {
        log_.format("[Version] Normal update suppressed (cooldown until {:.0f})",
                    defaults_.doubleValue(kNormalCooldownKey).value_or(0));
        clearPrompt();
        return;
      }
      break;
    case UpdatePromptKind::forced:
    case UpdatePromptKind::none:
    default:
      break;
  }
  kind_ = kind;
  show(info);
}

void AppVersionChecker::show(const UpdateInfo& info) {
  cooldownHours_ = info.cooldownHours;
  releaseHash_ = kind_ == UpdatePromptKind::oneTime ? releaseHash(info) : std::string();
  msiURL_ = info.msiURL && !info.msiURL->empty() ? info.msiURL : std::nullopt;
  const std::optional<bool> byMode = inAppByMode(info.updateMode, log_);
  inAppUpdate_ = byMode.value_or(info.inAppUpdate.value_or(false));

  UpdatePrompt next;
  next.showUpdateAlert = true;
  next.updateTitle = info.updateTitle.value_or("");
  next.updateMessage = info.updateMessage.value_or("");
  next.updateWebLink = textOr(info.updateLink, msiURL_.value_or(""));
  next.updateLink = inAppUpdate_ && msiURL_ ? *msiURL_ : next.updateWebLink;
  next.updateMainButton = textOr(info.updateMainButton, update_texts::kUpdateNow);
  next.updateLaterButton = textOr(info.updateLaterButton, update_texts::kNotNow);
  next.updateTextAfterButton = info.updateTextAfterButton.value_or("");
  next.isForceUpdate = kind_ == UpdatePromptKind::forced;
  next.isSoftScreen = kind_ == UpdatePromptKind::softScreen;

  // The same prompt again after a later check is not news: no events, no new "shown" date.
  next.id = prompt_.get().id;
  if (next == prompt_.get()) return;
  next.id = ++lastPromptId_;
  seen_ = false;
  prompt_.set(std::move(next));
}

void AppVersionChecker::markSeen() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!prompt_.get().showUpdateAlert || seen_) return;
  seen_ = true;
  analytics_.record("update_available");
  if (kind_ == UpdatePromptKind::oneTime) {
    defaults_.setDouble(kOntimeUpdateLastShownKey, now());
    log_.format("[Version] Ontime_hash update shown (hash: {})", releaseHash_);
  } else if (kind_ == UpdatePromptKind::softScreen) {
    analytics_.record("show soft_screen");
  }
}

void AppVersionChecker::clearPrompt() {
  kind_ = UpdatePromptKind::none;
  seen_ = false;
  prompt_.set(UpdatePrompt{});
}

bool AppVersionChecker::dismiss() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!prompt_.get().showUpdateAlert) return false;
  if (!seen_) {
    log_.write("[Version] «Не сейчас» для подсказки, которую никто не видел, — пропущено");
    return false;
  }
  switch (kind_) {
    case UpdatePromptKind::forced:
      return false;  // a forced update has no "later"
    case UpdatePromptKind::oneTime:
      if (!releaseHash_.empty()) {
        defaults_.setDouble(std::string(kOntimeHashLastShownPrefix) + releaseHash_, now());
        log_.format("[Version] Ontime_hash cooldown started (2 days) for hash {}", releaseHash_);
      }
      break;
    case UpdatePromptKind::softScreen:
      if (auto hours = startCooldown(kSoftScreenCooldownKey))
        log_.format("[Version] Soft_screen cooldown started ({}h)", *hours);
      analytics_.record("later soft_screen");
      break;
    case UpdatePromptKind::ordinary:
      if (auto hours = startCooldown(kNormalCooldownKey))
        log_.format("[Version] Normal update cooldown started ({}h)", *hours);
      break;
    case UpdatePromptKind::none:
    default:
      break;
  }
  clearPrompt();
  return true;
}

void AppVersionChecker::pressMainButton() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  const UpdatePrompt& current = prompt_.get();
  if (!current.showUpdateAlert) return;
  if (kind_ == UpdatePromptKind::forced && inAppUpdate_) {
    log_.format("[Version] кнопка обновления → обязательное (Sparkle, msi: {})", msiURL_.value_or("нет"));
    // The prompt stays: the app quits when the install is done, and stays blocked if it fails.
    if (hooks_.installInApp) hooks_.installInApp(MandatoryUpdate{msiURL_, "", current.updateWebLink});
    return;
  }
  log_.write("[Version] кнопка обновления → сайт");
  if (kind_ == UpdatePromptKind::softScreen) analytics_.record("store soft_screen");
  const std::string link = current.updateWebLink;
  if (!link.empty() && hooks_.openURL) hooks_.openURL(link);
  if (kind_ != UpdatePromptKind::forced) clearPrompt();
}

std::optional<long long> AppVersionChecker::startCooldown(std::string_view key) {
  double seconds = kDefaultCooldownSeconds;
  if (cooldownHours_ && std::isfinite(*cooldownHours_)) {
    if (*cooldownHours_ <= 0) {
      defaults_.remove(key);
      return std::nullopt;
    }
    seconds = std::min(*cooldownHours_, kMaxCooldownHours) * 3600;
  }
  defaults_.setDouble(key, now() + seconds);
  return static_cast<long long>(seconds / 3600);
}

bool AppVersionChecker::cooldownActive(std::string_view key) const {
  const auto until = defaults_.doubleValue(key);
  return until && *until > now();
}

}  // namespace norvik
