#include "tools/devbackend/fault_plan.h"

#include <charconv>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "backend/endpoints.h"

namespace norvik::devbackend {
namespace {

constexpr int kMaxDelayMs = 600'000;

std::vector<std::string_view> splitColons(std::string_view text) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  while (true) {
    const auto colon = text.find(':', start);
    parts.push_back(text.substr(start, colon == std::string_view::npos ? std::string_view::npos : colon - start));
    if (colon == std::string_view::npos) return parts;
    start = colon + 1;
  }
}

std::optional<int> parseNumber(std::string_view text) {
  int value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::size_t index(FaultPlan::Kind kind) { return static_cast<std::size_t>(kind); }

}  // namespace

std::string_view toString(FaultPlan::Kind kind) {
  switch (kind) {
    case FaultPlan::Kind::status:
      return "status";
    case FaultPlan::Kind::delay:
      return "delay";
    case FaultPlan::Kind::malformed:
      return "malformed";
    default:
      return "unknown";
  }
}

bool isFaultableEndpoint(std::string_view name) { return name == "appcast" || endpoints::find(name) != nullptr; }

std::expected<void, std::string> FaultPlan::add(Kind kind, std::string_view text) {
  const auto parts = splitColons(text);
  const bool takesValue = kind != Kind::malformed;
  const std::size_t minimum = takesValue ? 2 : 1;
  auto fail = [&](std::string_view why) {
    const char* syntax =
        takesValue ? (kind == Kind::status ? "ENDPOINT:STATUS[:COUNT]" : "ENDPOINT:MS[:COUNT]") : "ENDPOINT[:COUNT]";
    return std::unexpected(fmt::format("{} fault \"{}\": {} (expected {})", toString(kind), text, why, syntax));
  };
  if (parts.size() < minimum || parts.size() > minimum + 1) return fail("wrong number of fields");
  const std::string endpoint(parts[0]);
  if (!isFaultableEndpoint(endpoint)) return fail(fmt::format("unknown endpoint \"{}\"", endpoint));

  Fault fault;
  if (takesValue) {
    const auto value = parseNumber(parts[1]);
    if (kind == Kind::status && (!value || *value < 100 || *value > 599)) return fail("the status must be 100 to 599");
    if (kind == Kind::delay && (!value || *value < 0 || *value > kMaxDelayMs)) {
      return fail(fmt::format("the delay must be 0 to {} ms", kMaxDelayMs));
    }
    fault.value = *value;
  }
  if (parts.size() == minimum + 1) {
    const auto count = parseNumber(parts[minimum]);
    if (!count || *count < 1) return fail("the count must be a whole number from 1");
    fault.remaining = *count;
  }
  faults_[index(kind)][endpoint] = fault;
  return {};
}

std::optional<int> FaultPlan::take(Kind kind, std::string_view endpoint) {
  auto& table = faults_[index(kind)];
  auto it = table.find(endpoint);
  if (it == table.end()) return std::nullopt;
  const int value = it->second.value;
  if (it->second.remaining && --*it->second.remaining == 0) table.erase(it);
  return value;
}

FaultPlan::BeforeServing FaultPlan::takeBeforeServing(std::string_view endpoint) {
  BeforeServing out;
  if (auto delay = take(Kind::delay, endpoint)) out.delay = std::chrono::milliseconds(*delay);
  out.status = take(Kind::status, endpoint);
  return out;
}

bool FaultPlan::takeMalformed(std::string_view endpoint) { return take(Kind::malformed, endpoint).has_value(); }

void FaultPlan::clear() {
  for (auto& table : faults_) table.clear();
}

bool FaultPlan::empty() const {
  for (const auto& table : faults_) {
    if (!table.empty()) return false;
  }
  return true;
}

nlohmann::json FaultPlan::describe() const {
  nlohmann::json out = nlohmann::json::object();
  for (Kind kind : {Kind::status, Kind::delay, Kind::malformed}) {
    nlohmann::json section = nlohmann::json::object();
    for (const auto& [endpoint, fault] : faults_[index(kind)]) {
      nlohmann::json entry = {{"remaining", fault.remaining ? nlohmann::json(*fault.remaining) : nlohmann::json()}};
      if (kind != Kind::malformed) entry["value"] = fault.value;
      section[endpoint] = std::move(entry);
    }
    out[std::string(toString(kind))] = std::move(section);
  }
  return out;
}

}  // namespace norvik::devbackend
