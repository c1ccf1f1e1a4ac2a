#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/property_list.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_context.h"

namespace norvik {

class KeySoftRemoval;
class TunnelConnector;

// Turns a key text into the application's tunnel configuration: normalises it, finds the
// configuration (or creates one), stops a running session as the application, writes the key and
// the extras snapshot, and saves twice — a configuration saved once is not always usable at once.
// While a soft removal is being watched, every install's result goes through its escalation.
//
// Threading: a main-loop object; completions of the tunnel service hold it weakly.
// Ownership: a part of VPNManager.
class TunnelInstaller {
 public:
  using Done = std::move_only_function<void(std::expected<void, Error>)>;
  using ExtrasSnapshot = std::function<PropertyDictionary()>;

  TunnelInstaller(TunnelContext& context, TunnelConnector& connector, KeySoftRemoval& softRemoval,
                  ExtrasSnapshot extras);
  TunnelInstaller(const TunnelInstaller&) = delete;
  TunnelInstaller& operator=(const TunnelInstaller&) = delete;

  void installKey(const std::string& keyText, Done completion);

 private:
  struct Run;

  void onLoaded(const std::shared_ptr<Run>& run, std::expected<std::vector<TunnelConfiguration>, Error> loaded);
  void updateInPlace(const std::shared_ptr<Run>& run, TunnelConfiguration configuration);
  void afterFirstSave(const std::shared_ptr<Run>& run, const TunnelConfiguration& saved);
  [[nodiscard]] TunnelProviderProtocol makeProtocol(const Run& run) const;

  TunnelContext& context_;
  TunnelConnector& connector_;
  KeySoftRemoval& softRemoval_;
  ExtrasSnapshot extras_;
  WeakPtrFactory<TunnelInstaller> weakFactory_{this};
};

}  // namespace norvik
