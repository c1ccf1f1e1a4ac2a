#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace norvik {

class Application;

// The version of the management interface (docs/management_interface.md). It grows when a
// request, a reply field or an event is added; fields are never taken away or given another
// meaning within a version.
inline constexpr int kManagementProtocol = 1;

// What a screen shows, split into the parts that change together. Each topic has one value (a
// JSON object, or null where noted) that a front-end renders as it stands, texts included.
enum class ManagementTopic { home, overlay, prompt, updater, extension, menu, mode, sites, links };

[[nodiscard]] std::string_view toString(ManagementTopic topic);
[[nodiscard]] std::optional<ManagementTopic> managementTopicNamed(std::string_view name);
[[nodiscard]] std::span<const ManagementTopic> allManagementTopics();

// The ids by which a front-end answers what it shows: "overlay-N" for an item of the overlay
// queue, "prompt-N" for an update prompt.
[[nodiscard]] std::string overlayAnswerId(std::uint64_t id);
[[nodiscard]] std::string promptAnswerId(std::uint64_t id);

// The current value of `topic`. Reading it changes nothing: whoever hands it to a front-end
// reports that with ManagementFeed::delivered.
[[nodiscard]] nlohmann::json topicValue(Application& app, ManagementTopic topic);

}  // namespace norvik
