#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/management_topics.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

class Application;

// Streams the topics of the management interface to its subscribers. A subscriber first gets the
// current value of each of its topics (the snapshot), then a new value whenever one changes.
// Changes that happen within one turn of the loop are coalesced into one value per topic, handed
// over on the next turn; a value equal to the one a subscriber last got is not sent again.
// Nothing polls: the feed follows the published values of the application.
//
// What a front-end receives has effects (delivered): the update prompt counts as shown, and the
// empty selection of sites as seen ("empty_sites_on_screen" / "empty_sites_off_screen", once each
// time the screen becomes empty).
//
// Threading: the main loop. Ownership: borrows the application, which outlives it.
class ManagementFeed {
 public:
  // One event: "snapshot" (a value sent on subscribing), "changed" (a new value), or a request to
  // the front-ends without a lasting value ("open-window", topic home, value null).
  using Sink = std::function<void(std::string_view event, ManagementTopic topic, const nlohmann::json& value)>;

  explicit ManagementFeed(Application& app);
  ManagementFeed(const ManagementFeed&) = delete;
  ManagementFeed& operator=(const ManagementFeed&) = delete;
  ~ManagementFeed();

  // The snapshot is handed to `sink` before this returns. The subscription ends with the token.
  [[nodiscard]] Subscription subscribe(std::set<ManagementTopic> topics, Sink sink);
  // A front-end has received `value` of `topic` (also through a status answer).
  void delivered(ManagementTopic topic, const nlohmann::json& value);
  [[nodiscard]] std::size_t subscriberCount() const { return subscribers_.size(); }

 private:
  struct Subscriber {
    std::set<ManagementTopic> topics;
    Sink sink;
    std::map<ManagementTopic, nlohmann::json> last;
  };

  void follow();
  template <class T>
  void follow(Published<T>& value, std::initializer_list<ManagementTopic> topics);
  void markDirty(ManagementTopic topic);
  void flush();
  void broadcast(std::string_view event, ManagementTopic topic);

  Application& app_;
  std::map<std::uint64_t, std::shared_ptr<Subscriber>> subscribers_;
  std::uint64_t nextSubscriber_ = 1;
  std::set<ManagementTopic> dirty_;
  bool flushPosted_ = false;
  // The empty selection of sites last reported as seen: with the tunnel on (true) or off (false).
  std::optional<bool> emptySitesReported_;
  std::vector<Subscription> follows_;
  WeakPtrFactory<ManagementFeed> weakFactory_{this};
};

}  // namespace norvik
