#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_context.h"

namespace norvik {

// Removing a key without losing the user's consent: the configuration is kept, emptied and
// disabled, so that the next install does not ask the user again; installs that keep failing after
// such a removal escalate to a full removal and a clean install. Switched and tuned by
// "iosFixes.keySoftDelete" and "iosFixes.keySoftDeleteDebug"; its own state is "app.keySoftDelete.armed"
// and "app.keySoftDelete.fails" in the standard suite.
//
// Threading: a main-loop object; completions of the tunnel service hold it weakly.
// Ownership: a part of VPNManager, which lends it the context.
class KeySoftRemoval {
 public:
  static constexpr std::string_view kArmedKey = "app.keySoftDelete.armed";
  static constexpr std::string_view kFailsKey = "app.keySoftDelete.fails";
  static constexpr std::string_view kFlag = "iosFixes.keySoftDelete";
  static constexpr std::string_view kDebugFlag = "iosFixes.keySoftDeleteDebug";

  enum class Outcome {
    markerSaved,      // the configuration stays, emptied and disabled; consent is kept
    removedInstead,   // the marker could not be saved, so the configuration was removed
    noConfiguration,  // nothing named "Norvik": the caller removes the old way (removeConfiguration)
    refused,          // another soft removal is running
    failed,           // neither the marker nor the removal could be saved; the key stays
  };
  using Done = std::move_only_function<void(std::expected<void, Error>)>;
  using OutcomeDone = std::move_only_function<void(Outcome)>;
  // Installs a key into a new configuration (the escalation's clean install).
  using CleanInstall = std::function<void(std::string keyText, Done completion)>;

  KeySoftRemoval(TunnelContext& context, CleanInstall cleanInstall);
  KeySoftRemoval(const KeySoftRemoval&) = delete;
  KeySoftRemoval& operator=(const KeySoftRemoval&) = delete;

  void softRemove(std::string intent, OutcomeDone completion);
  void removeConfiguration(Done completion);
  void noteInstallResult(std::expected<void, Error> result, std::string keyText, Done completion);
  // Removes a marker left behind once soft removal was switched off; once at a time.
  void normalizeLeftoverMarker(const TunnelConfiguration& configuration);

  [[nodiscard]] bool enabled() const;
  // Installs are being watched: a soft removal happened and the feature is on.
  [[nodiscard]] bool watched() const;
  // The connect path treats `configuration` as missing.
  [[nodiscard]] bool gateHolds(const TunnelConfiguration& configuration) const;
  [[nodiscard]] static std::int64_t escalationThreshold(std::int64_t keySoftDelete);

 private:
  struct Run;

  void onLoaded(std::shared_ptr<Run> run, std::expected<std::vector<TunnelConfiguration>, Error> loaded);
  void saveMarker(std::shared_ptr<Run> run, const TunnelConfiguration& base, bool staleRetry);
  void fallback(const std::shared_ptr<Run>& run, const std::string& identifier);
  void finish(const std::shared_ptr<Run>& run, Outcome outcome);
  void escalate(std::int64_t fails, std::expected<void, Error> result, std::string keyText, Done completion);
  void endWatch();

  TunnelContext& context_;
  CleanInstall cleanInstall_;
  // The intent of the soft removal now running (`softRemoveInFlight`).
  std::optional<std::string> inFlight_;
  bool gateOffNormalizeInFlight_ = false;
  WeakPtrFactory<KeySoftRemoval> weakFactory_{this};
};

}  // namespace norvik
