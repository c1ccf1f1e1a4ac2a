#include "app/management_feed.h"

#include "app/application.h"

namespace norvik {

using Json = nlohmann::json;

ManagementFeed::ManagementFeed(Application& app) : app_(app) { follow(); }

ManagementFeed::~ManagementFeed() = default;

template <class T>
void ManagementFeed::follow(Published<T>& value, std::initializer_list<ManagementTopic> topics) {
  std::vector<ManagementTopic> marked(topics);
  follows_.push_back(value.subscribe([this, marked](const T&) {
    for (ManagementTopic topic : marked) markDirty(topic);
  }));
}

void ManagementFeed::follow() {
  using T = ManagementTopic;
  VPNManager& vpn = app_.vpn();
  VPNViewModel& home = app_.home();
  follow(vpn.connectionState(), {T::home, T::sites});
  follow(vpn.isConfigured(), {T::home});
  follow(vpn.systemExtensionState(), {T::extension});
  follow(home.machine().target(), {T::home});
  follow(home.machine().state(), {T::home});
  follow(home.operation(), {T::home});
  follow(home.busyText(), {T::home});
  follow(home.lastError(), {T::home});
  follow(home.switchBlock(), {T::home});
  follow(home.permissionCardShown(), {T::home});
  follow(home.extensionApprovalCardShown(), {T::home});
  follow(home.serverPlace(), {T::home});
  follow(app_.health().health(), {T::home});
  follow(app_.health().statusText(), {T::home});
  follow(app_.health().healthRaw(), {T::home});
  follow(app_.overlays().current(), {T::overlay});
  follow(app_.versionChecker().prompt(), {T::prompt});
  if (AppUpdater* updater = app_.updater()) {
    follow(updater->state(), {T::updater});
    follow(updater->releaseNotes(), {T::updater});
    follow(updater->releaseNotesLoading(), {T::updater});
    follow(updater->canCheck(), {T::updater});
    follow(updater->postponedVersion(), {T::updater});
  }
  follow(app_.menuBar().menu(), {T::menu});
  follow(app_.modes().currentMode(), {T::home, T::mode, T::sites});
  follow(app_.modes().smartDisableConfirmHidden(), {T::mode});
  follow(app_.sites().selectedServices(), {T::sites});
  follow(app_.sites().customDomains(), {T::sites});
  follow(app_.sites().disabledDomains(), {T::sites});
  // The main configuration carries the routing section, the catalog and the links.
  follow(app_.network().currentResponse(), {T::home, T::mode, T::sites, T::links});
  follows_.push_back(app_.windowRequested().subscribe([this] { broadcast("open-window", T::home); }));
}

void ManagementFeed::broadcast(std::string_view event, ManagementTopic topic) {
  auto subscribers = subscribers_;
  for (auto& [id, subscriber] : subscribers) {
    if (subscribers_.contains(id) && subscriber->topics.contains(topic)) subscriber->sink(event, topic, nullptr);
  }
}

void ManagementFeed::markDirty(ManagementTopic topic) {
  if (subscribers_.empty()) return;
  dirty_.insert(topic);
  if (flushPosted_) return;
  flushPosted_ = true;
  app_.loop().post([weak = weakFactory_.weak()] {
    if (auto* self = weak.lock()) self->flush();
  });
}

void ManagementFeed::flush() {
  flushPosted_ = false;
  const std::set<ManagementTopic> dirty = std::exchange(dirty_, {});
  for (ManagementTopic topic : dirty) {
    const Json value = topicValue(app_, topic);
    bool sent = false;
    // A copy of the list: a sink may end its own or another subscription.
    auto subscribers = subscribers_;
    for (auto& [id, subscriber] : subscribers) {
      if (!subscribers_.contains(id) || !subscriber->topics.contains(topic)) continue;
      Json& last = subscriber->last[topic];
      if (last == value) continue;
      last = value;
      subscriber->sink("changed", topic, value);
      sent = true;
    }
    if (sent) delivered(topic, value);
  }
}

Subscription ManagementFeed::subscribe(std::set<ManagementTopic> topics, Sink sink) {
  const std::uint64_t id = nextSubscriber_++;
  auto subscriber = std::make_shared<Subscriber>(Subscriber{std::move(topics), std::move(sink), {}});
  subscribers_[id] = subscriber;
  for (ManagementTopic topic : subscriber->topics) {
    Json value = topicValue(app_, topic);
    subscriber->last[topic] = value;
    subscriber->sink("snapshot", topic, value);
    if (!subscribers_.contains(id)) break;  // the sink ended it
    delivered(topic, value);
  }
  return Subscription([weak = weakFactory_.weak(), id] {
    if (auto* self = weak.lock()) self->subscribers_.erase(id);
  });
}

void ManagementFeed::delivered(ManagementTopic topic, const Json& value) {
  if (topic == ManagementTopic::prompt && value.is_object()) app_.versionChecker().markSeen();
  if (topic == ManagementTopic::sites && value.is_object()) {
    const Json empty = value.value("emptyScreen", Json());
    if (!empty.is_object()) {
      emptySitesReported_.reset();
    } else if (const bool tunnelOn = empty.value("tunnelOn", false); emptySitesReported_ != tunnelOn) {
      emptySitesReported_ = tunnelOn;
      app_.sites().recordEmptySitesScreen(tunnelOn);
    }
  }
}

}  // namespace norvik
