// systemd-resolved's org.freedesktop.resolve1.Manager over sd-bus, the resolver's own interface.
#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <systemd/sd-bus.h>

#include "tunnel_helper/system_dns.h"

namespace norvik::tunnel_helper {
namespace {

constexpr const char* kService = "org.freedesktop.resolve1";
constexpr const char* kPath = "/org/freedesktop/resolve1";
constexpr const char* kManager = "org.freedesktop.resolve1.Manager";
constexpr std::uint64_t kCallTimeoutUs = 5'000'000;

Error busError(int negativeErrno, const sd_bus_error* error, std::string_view call) {
  const int err = negativeErrno < 0 ? -negativeErrno : EIO;
  std::string why = error && sd_bus_error_is_set(error) != 0
                        ? fmt::format("{}: {}", error->name, error->message ? error->message : "")
                        : std::string(std::strerror(err));
  return Error{"POSIX", err, fmt::format("{}: {}", call, why)};
}

class SdBusResolved final : public ResolvedBus {
 public:
  explicit SdBusResolved(std::string address) : address_(std::move(address)) {}
  SdBusResolved(const SdBusResolved&) = delete;
  SdBusResolved& operator=(const SdBusResolved&) = delete;
  ~SdBusResolved() override {
    if (bus_) sd_bus_flush_close_unref(bus_);
  }

  bool running() override {
    if (!connect()) return false;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                     "NameHasOwner", &error, &reply, "s", kService);
    int owned = 0;
    if (r >= 0) (void)sd_bus_message_read(reply, "b", &owned);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return r >= 0 && owned != 0;
  }

  std::expected<void, Error> setLinkDNS(int index, const std::vector<IpAddress>& servers) override {
    return call("SetLinkDNS", [&](sd_bus_message* m) {
      int r = sd_bus_message_append(m, "i", index);
      if (r >= 0) r = sd_bus_message_open_container(m, 'a', "(iay)");
      for (const IpAddress& server : servers) {
        if (r >= 0) r = sd_bus_message_open_container(m, 'r', "iay");
        if (r >= 0) r = sd_bus_message_append(m, "i", server.family);
        if (r >= 0) {
          r = sd_bus_message_append_array(m, 'y', server.bytes.data(), static_cast<std::size_t>(server.byteLength()));
        }
        if (r >= 0) r = sd_bus_message_close_container(m);
      }
      if (r >= 0) r = sd_bus_message_close_container(m);
      return r;
    });
  }

  std::expected<void, Error> setLinkDomains(int index, const std::vector<Domain>& domains) override {
    return call("SetLinkDomains", [&](sd_bus_message* m) {
      int r = sd_bus_message_append(m, "i", index);
      if (r >= 0) r = sd_bus_message_open_container(m, 'a', "(sb)");
      for (const Domain& domain : domains) {
        if (r >= 0) r = sd_bus_message_append(m, "(sb)", domain.name.c_str(), static_cast<int>(domain.routingOnly));
      }
      if (r >= 0) r = sd_bus_message_close_container(m);
      return r;
    });
  }

  std::expected<void, Error> setLinkDefaultRoute(int index, bool enable) override {
    return call("SetLinkDefaultRoute",
                [&](sd_bus_message* m) { return sd_bus_message_append(m, "ib", index, static_cast<int>(enable)); });
  }

  std::expected<void, Error> revertLink(int index) override {
    return call("RevertLink", [&](sd_bus_message* m) { return sd_bus_message_append(m, "i", index); });
  }

 private:
  std::expected<void, Error> connect() {
    if (bus_) return {};
    int r = 0;
    if (address_.empty()) {
      r = sd_bus_open_system(&bus_);
    } else {
      r = sd_bus_new(&bus_);
      if (r >= 0) r = sd_bus_set_address(bus_, address_.c_str());
      if (r >= 0) r = sd_bus_set_bus_client(bus_, 1);
      if (r >= 0) r = sd_bus_start(bus_);
    }
    if (r < 0) {
      if (bus_) sd_bus_unref(bus_);
      bus_ = nullptr;
      return std::unexpected(busError(r, nullptr, "D-Bus"));
    }
    return {};
  }

  template <class Fill>
  std::expected<void, Error> call(const char* method, Fill fill) {
    if (auto connected = connect(); !connected) return connected;
    sd_bus_message* message = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &message, kService, kPath, kManager, method);
    if (r >= 0) r = fill(message);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (r >= 0) r = sd_bus_call(bus_, message, kCallTimeoutUs, &error, &reply);
    std::expected<void, Error> out;
    if (r < 0) out = std::unexpected(busError(r, &error, method));
    sd_bus_message_unref(reply);
    sd_bus_message_unref(message);
    sd_bus_error_free(&error);
    return out;
  }

  std::string address_;
  sd_bus* bus_ = nullptr;
};

}  // namespace

std::unique_ptr<ResolvedBus> makeSdBusResolved(std::string address) {
  return std::make_unique<SdBusResolved>(std::move(address));
}

}  // namespace norvik::tunnel_helper
