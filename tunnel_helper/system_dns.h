#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/log.h"
#include "tunnel_helper/ip_prefix.h"

namespace norvik::tunnel_helper {

// The resolvers a session gives the machine: the key's DNS servers and search domains.
struct DnsPlan {
  std::vector<IpAddress> servers;
  std::vector<std::string> searchDomains;
  bool operator==(const DnsPlan&) const = default;
};

// The machine's name resolution for the life of a tunnel. Whichever way it is done (systemd-resolved
// per link, resolvconf, a managed /etc/resolv.conf), the system's own resolvers come back when the
// session ends, and a session that was killed before it could give them back is repaired by the
// next start or by `norvik-tunnel cleanup`.
//
// Threading: one thread (the helper's loop).
class SystemDns {
 public:
  virtual ~SystemDns() = default;
  // How it is done, for the log ("systemd-resolved", "resolvconf", "/etc/resolv.conf").
  [[nodiscard]] virtual std::string name() const = 0;
  // Gives back what a session that did not end cleanly left behind. Safe to repeat.
  virtual void repairLeftovers() = 0;
  // Makes the plan's servers the machine's resolvers; `interfaceName` is the tunnel's interface.
  [[nodiscard]] virtual std::expected<void, Error> apply(const std::string& interfaceName, const DnsPlan& plan) = 0;
  // Takes back what apply did. Best effort; safe to repeat.
  virtual void restore() = 0;
};

// The text of a resolv.conf naming the plan's servers (at most three: the C library reads no more)
// and search domains, headed by a comment that says who wrote it.
[[nodiscard]] std::string resolvConfText(const DnsPlan& plan, const std::string& interfaceName);

// The seam to systemd-resolved's D-Bus interface (org.freedesktop.resolve1.Manager): plain data in,
// errors out. The production one speaks sd-bus on the system bus; tests use a recording fake or a
// private bus with a stand-in service.
class ResolvedBus {
 public:
  virtual ~ResolvedBus() = default;
  struct Domain {
    std::string name;
    bool routingOnly = false;  // "~example.com": routes lookups, is not a search domain
    bool operator==(const Domain&) const = default;
  };
  // True when the resolver service runs (its bus name has an owner).
  [[nodiscard]] virtual bool running() = 0;
  [[nodiscard]] virtual std::expected<void, Error> setLinkDNS(int index, const std::vector<IpAddress>& servers) = 0;
  [[nodiscard]] virtual std::expected<void, Error> setLinkDomains(int index, const std::vector<Domain>& domains) = 0;
  [[nodiscard]] virtual std::expected<void, Error> setLinkDefaultRoute(int index, bool enable) = 0;
  [[nodiscard]] virtual std::expected<void, Error> revertLink(int index) = 0;
};

// systemd-resolved over sd-bus. `address` selects a bus other than the system bus (tests).
[[nodiscard]] std::unique_ptr<ResolvedBus> makeSdBusResolved(std::string address = {});

// Per link through systemd-resolved: the tunnel's servers, its search domains and "~." (every
// name that no other link claims goes to the tunnel), and the link as the default route for names.
// The settings go with the link, so nothing outlives a killed helper.
class ResolvedDns final : public SystemDns {
 public:
  // `indexOf` turns an interface name into its index (if_nametoindex in production).
  ResolvedDns(Log& log, std::unique_ptr<ResolvedBus> bus, std::function<int(const std::string&)> indexOf);

  [[nodiscard]] std::string name() const override { return "systemd-resolved"; }
  void repairLeftovers() override {}
  [[nodiscard]] std::expected<void, Error> apply(const std::string& interfaceName, const DnsPlan& plan) override;
  void restore() override;

 private:
  Log& log_;
  std::unique_ptr<ResolvedBus> bus_;
  std::function<int(const std::string&)> indexOf_;
  int index_ = 0;
};

// Through the resolvconf program: the tunnel's record is added for the interface, exclusive of the
// others where resolvconf supports it (openresolv's -x); deleting the record brings the others back.
// A record left by a killed helper names an interface that is gone; the next start deletes it.
class ResolvconfDns final : public SystemDns {
 public:
  struct Options {
    std::string program = "resolvconf";
    std::filesystem::path stateDir;  // where the name of the last record is kept
  };
  ResolvconfDns(Log& log, Options options);

  [[nodiscard]] std::string name() const override { return "resolvconf"; }
  void repairLeftovers() override;
  [[nodiscard]] std::expected<void, Error> apply(const std::string& interfaceName, const DnsPlan& plan) override;
  void restore() override;

 private:
  [[nodiscard]] std::expected<std::string, Error> run(const std::vector<std::string>& arguments,
                                                      const std::string& input);
  void remove(const std::string& record);

  Log& log_;
  Options options_;
  std::string record_;
};

// A managed /etc/resolv.conf: the original (a file, or a symbolic link and its target) is saved in
// the state directory, fsynced, before the tunnel's file is written, and put back on restore — but
// only while the file is still the one the tunnel wrote: a network manager that rewrote it since
// knows better, and its file stays. The saved original survives a killed helper, a killed agent
// and a crash of the machine; repairLeftovers (every start, `norvik-tunnel cleanup`, the boot unit)
// puts it back. Where /etc/resolv.conf is a mount point (a container, `ip netns exec`), the file is
// rewritten in place, since nothing can be renamed over it.
class ManagedResolvConf final : public SystemDns {
 public:
  struct Options {
    std::filesystem::path resolvConf = "/etc/resolv.conf";
    std::filesystem::path stateDir;
  };
  ManagedResolvConf(Log& log, Options options);

  [[nodiscard]] std::string name() const override { return options_.resolvConf.string(); }
  void repairLeftovers() override;
  [[nodiscard]] std::expected<void, Error> apply(const std::string& interfaceName, const DnsPlan& plan) override;
  void restore() override;

  [[nodiscard]] std::filesystem::path backupFile() const { return options_.stateDir / "resolv.conf.backup"; }

 private:
  Log& log_;
  Options options_;
};

// Picks how this machine's resolvers are set: systemd-resolved when it runs and /etc/resolv.conf
// leads to it; resolvconf when /etc/resolv.conf is its generated file; the managed file otherwise.
struct SystemDnsChoice {
  std::filesystem::path resolvConf = "/etc/resolv.conf";
  std::filesystem::path stateDir = "/var/lib/norvik-tunnel";
  std::string resolvconfProgram = "resolvconf";
};
[[nodiscard]] std::unique_ptr<SystemDns> chooseSystemDns(Log& log, const SystemDnsChoice& choice,
                                                         std::unique_ptr<ResolvedBus> bus);
// Gives back what any kind of session left behind (a saved resolv.conf, a resolvconf record),
// whichever way the machine's resolvers are set today.
void repairDnsLeftovers(Log& log, const SystemDnsChoice& choice);

}  // namespace norvik::tunnel_helper
