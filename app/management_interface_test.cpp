// The management interface as a front-end meets it: subscriptions, answers to what is on screen,
// links and the update prompts, through the real control socket of the agent on virtual time
// (testing/agent_host.h).
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "app/control_commands.h"
#include "testing/agent_host.h"
#include "update/platform_update_installer.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::AgentHost;
using testing::ControlConnection;

// A forced update that installs in the app from a package.
constexpr std::string_view kPackageURL = "https://updates.norvik.app/linux/norvik_9.0.0_amd64.deb";
Json forcedUpdate() {
  return {{"update",
           {{"update_type", "force"},
            {"update_title", "Доступна новая версия"},
            {"update_message", "Эта версия больше не поддерживается."},
            {"in_app_update", true},
            {"msi_url", kPackageURL},
            {"update_link", "https://norvik.app/download"}}}};
}

class ManagementInterfaceTest : public ::testing::Test {
 protected:
  explicit ManagementInterfaceTest(const std::function<void(AgentHost&)>& beforeStart = nullptr)
      : host_({}, beforeStart) {}

  Json ask(const Json& request) { return host_.ask(request); }

  // A subscriber: its connection and every event it has received so far.
  struct Subscriber {
    ControlConnection* connection;
    std::vector<Json> events;
  };
  Subscriber subscribe(const Json& topics = nullptr) {
    Subscriber subscriber{&host_.connect(), {}};
    Json request = {{"command", "subscribe"}};
    if (!topics.is_null()) request["topics"] = topics;
    subscriber.connection->write(request.dump() + "\n");
    host_.settle();
    collect(subscriber);
    return subscriber;
  }
  static void collect(Subscriber& subscriber) {
    for (Json& line : subscriber.connection->takeAnswers()) subscriber.events.push_back(std::move(line));
  }
  // Runs until the subscriber has an event of `topic` that satisfies `match`; that event.
  Json waitFor(Subscriber& subscriber, std::string_view topic, const std::function<bool(const Json&)>& match,
               std::chrono::seconds limit = 60s) {
    Json found;
    auto look = [&] {
      collect(subscriber);
      for (const Json& event : subscriber.events) {
        if (event.value("topic", "") == topic && match(event["value"])) found = event;
      }
      return !found.is_null();
    };
    EXPECT_TRUE(host_.runUntil(look, limit)) << "no such " << topic << " event in " << Json(subscriber.events).dump();
    return found;
  }
  std::size_t count(Subscriber& subscriber, std::string_view event, std::string_view topic) {
    collect(subscriber);
    return static_cast<std::size_t>(std::ranges::count_if(subscriber.events, [&](const Json& e) {
      return e.value("event", "") == event && e.value("topic", "") == topic;
    }));
  }

  AgentHost host_;
};

TEST_F(ManagementInterfaceTest, HelloNamesTheProtocolAndASubscriptionStartsWithOneSnapshotPerTopic) {
  const Json hello = ask({{"command", "hello"}});
  EXPECT_EQ(hello["protocol"], 1);
  EXPECT_FALSE(hello["version"].get<std::string>().empty());
  EXPECT_EQ(hello["topics"].size(), 9u);
  EXPECT_EQ(ask({{"command", "status"}})["status"]["protocol"], 1);

  Subscriber all = subscribe();
  ASSERT_EQ(all.events.size(), 9u);
  for (const Json& event : all.events) EXPECT_EQ(event["event"], "snapshot") << event;
  EXPECT_EQ(all.events[0]["topic"], "home");
  EXPECT_EQ(all.events[0]["value"]["tunnelText"], "Отключено");
  EXPECT_TRUE(all.events[1]["value"].is_null()) << "no dialog";
  EXPECT_EQ(all.events[6]["value"]["smartModeDisableConfirmation"]["dontShowAgain"], "Больше не показывать");

  // Several changes in one turn of the loop make one event per topic, and only for changed topics.
  ASSERT_TRUE(host_.app().sites().toggle("chatgpt", true));
  ASSERT_TRUE(host_.app().sites().toggle("youtube", false));
  ASSERT_TRUE(host_.app().modes().select(VPNRoutingMode::services));
  host_.settle();
  EXPECT_EQ(count(all, "changed", "sites"), 1u);
  EXPECT_EQ(count(all, "changed", "mode"), 1u);
  EXPECT_EQ(count(all, "changed", "links"), 0u);
  EXPECT_EQ(waitFor(all, "mode", [](const Json& v) { return v["mode"] == "services"; })["value"]["label"], "По сайтам");

  EXPECT_EQ(ask({{"command", "subscribe"}, {"topics", {"home", "weather"}}})["code"], "usage");
}

TEST_F(ManagementInterfaceTest, AHealthDialogAnsweredWithAButtonRunsTheButtonsAction) {
  ASSERT_EQ(ask({{"command", "connect"}})["status"]["server"], AgentHost::kFirstServer);
  Subscriber overlays = subscribe(Json::array({"overlay"}));

  SmartStatusDialogRequest request;
  request.identifier = "smart_status_our_side";
  request.texts = {"Проблема на нашей стороне", "Трафик не проходит через сервер.", "Сменить сервер", "Закрыть"};
  request.primary = SmartStatusDialogAction::changeServer;
  host_.app().health().dialogRequested().emit(request);
  const Json dialog = waitFor(overlays, "overlay", [](const Json& v) { return v.is_object(); })["value"];
  EXPECT_EQ(dialog["identifier"], "smart_status_our_side");
  EXPECT_EQ(dialog["buttons"],
            (Json::array({{{"index", 0}, {"title", "Сменить сервер"}}, {{"index", 1}, {"title", "Закрыть"}}})));
  EXPECT_EQ(ask({{"command", "status"}})["status"]["overlay"]["id"], dialog["id"]);

  EXPECT_EQ(ask({{"command", "answer"}, {"id", dialog["id"]}, {"button", "Нет такой"}})["code"], "usage");
  EXPECT_EQ(ask({{"command", "answer"}, {"id", "overlay-999"}, {"button", 0}})["code"], "not-showing");
  EXPECT_EQ(ask({{"command", "answer"}, {"id", dialog["id"]}, {"button", "Сменить сервер"}})["ok"], true);
  ASSERT_TRUE(host_.runUntil([&] { return host_.backend().count("change_server") == 1; }, 1min));
  ASSERT_TRUE(host_.runUntil(
      [&] {
        return ask({{"command", "status"}})["status"]["server"] == AgentHost::kSecondServer;
      },
      1min));
  // Answered once: the same id is no longer on screen.
  EXPECT_EQ(ask({{"command", "answer"}, {"id", dialog["id"]}, {"button", 0}})["code"], "not-showing");
}

TEST_F(ManagementInterfaceTest, EachLinkDoesWhatItSays) {
  Subscriber home = subscribe(Json::array({"home"}));
  auto tunnel = [&] { return ask({{"command", "status"}})["status"]["tunnel"]; };

  EXPECT_EQ(ask({{"command", "open-url"}, {"url", "norvikvpn://widget/connect"}})["ok"], true);
  ASSERT_TRUE(host_.runUntil([&] { return tunnel() == "connected"; }, 1min));
  EXPECT_EQ(ask({{"command", "open-url"}, {"url", "norvikvpn://widget/connect"}})["ok"], true);
  EXPECT_TRUE(host_.log().contains("[Widget] подключить: туннель уже поднят"));

  EXPECT_EQ(ask({{"command", "open-url"}, {"url", "norvikvpn://widget/change-server"}})["ok"], true);
  ASSERT_TRUE(host_.runUntil([&] { return host_.backend().count("change_server") == 1; }, 1min));

  EXPECT_EQ(ask({{"command", "open-url"}, {"url", "norvikvpn://widget/disconnect"}})["ok"], true);
  ASSERT_TRUE(host_.runUntil([&] { return tunnel() == "disconnected"; }, 1min));
  EXPECT_EQ(ask({{"command", "open-url"}, {"url", "NORVIKVPN://widget/disconnect/"}})["ok"], true);
  EXPECT_TRUE(host_.log().contains("[Widget] отключить: туннель уже выключен"));

  EXPECT_EQ(ask({{"command", "open-url"}, {"url", "norvikvpn://widget/open"}})["ok"], true);
  EXPECT_EQ(count(home, "open-window", "home"), 1u);

  const Json unknown = ask({{"command", "open-url"}, {"url", "norvikvpn://widget/explode"}});
  EXPECT_EQ(unknown["code"], "usage");
  EXPECT_EQ(unknown["error"]["message"], "неизвестная ссылка: norvikvpn://widget/explode");
}

TEST_F(ManagementInterfaceTest, SwitchingSmartModeOffAsksOnceAndRemembersDontShowAgain) {
  Subscriber overlays = subscribe(Json::array({"overlay", "mode"}));
  const Json asked = ask({{"command", "smart-mode"}, {"enabled", false}, {"dialog", true}});
  ASSERT_EQ(asked["code"], "confirm");
  EXPECT_EQ(asked["confirm"]["title"], "Выключить Умный режим?");
  const Json dialog = waitFor(overlays, "overlay", [](const Json& v) { return v.is_object(); })["value"];
  EXPECT_EQ(dialog["id"], asked["confirm"]["id"]);
  EXPECT_EQ(dialog["identifier"], "settings_smart_mode_disable");
  EXPECT_EQ(dialog["choice"]["title"], "Больше не показывать");
  EXPECT_EQ(dialog["buttons"][0]["title"], "Выключить");
  EXPECT_EQ(dialog["buttons"][1]["title"], "Оставить");

  EXPECT_EQ(ask({{"command", "answer"}, {"id", dialog["id"]}, {"button", "Выключить"}, {"dontShowAgain", true}})["ok"],
            true);
  EXPECT_EQ(ask({{"command", "status"}})["status"]["mode"], "full");
  waitFor(overlays, "mode", [](const Json& v) { return v["smartModeDisableConfirmation"]["hidden"] == true; });
  EXPECT_EQ(host_.app().platform().groupDefaults->boolValue(ModesStore::kSmartDisableConfirmHidden), true);

  // From now on switching it off asks nothing.
  EXPECT_EQ(ask({{"command", "smart-mode"}, {"enabled", true}})["status"]["mode"], "smart");
  const Json off = ask({{"command", "smart-mode"}, {"enabled", false}, {"dialog", true}});
  EXPECT_EQ(off["ok"], true);
  EXPECT_EQ(off["status"]["mode"], "full");
  EXPECT_TRUE(off["status"]["overlay"].is_null());
}

TEST_F(ManagementInterfaceTest, TheFullModeDialogCanWaitInTheOverlayQueueAndIsWithdrawnWhenSettledElsewhere) {
  const Json asked = ask({{"command", "mode"}, {"set", "full"}, {"dialog", true}});
  ASSERT_EQ(asked["code"], "confirm");
  EXPECT_EQ(asked["status"]["overlay"]["identifier"], "modes_full_mode_confirm");
  EXPECT_EQ(asked["status"]["overlay"]["buttons"][0]["title"], "Всё равно переключить");
  const Json confirmed = ask({{"command", "mode"}, {"set", "full"}, {"confirmed", true}});
  EXPECT_EQ(confirmed["status"]["mode"], "full");
  EXPECT_TRUE(confirmed["status"]["overlay"].is_null()) << "the question was settled by the command line";
}

TEST_F(ManagementInterfaceTest, TheMenuShowsTheLoginItemAndItsItemsAct) {
  const Json menu = ask({{"command", "menu"}})["menu"];
  EXPECT_EQ(menu["title"], "Norvik — Отключено");
  EXPECT_EQ(menu["items"][1]["title"], "Запускать при входе в систему");
  const bool wasOn = host_.loginItem().isEnabled();
  EXPECT_EQ(menu["items"][1]["checked"], wasOn);
  const Json switched = ask({{"command", "menu"}, {"item", "Запускать при входе в систему"}})["menu"];
  EXPECT_EQ(switched["items"][1]["checked"], !wasOn);
  EXPECT_EQ(host_.loginItem().isEnabled(), !wasOn);
  EXPECT_EQ(ask({{"command", "menu"}, {"item", 0}})["ok"], true);  // "Подключить"
  ASSERT_TRUE(
      host_.runUntil([&] { return host_.app().vpn().connectionState().get() == TunnelStatus::connected; }, 1min));
}

TEST_F(ManagementInterfaceTest, AnEmptySelectionOfSitesCountsAsSeenOnlyWhenAFrontEndReceivesIt) {
  auto& analytics = static_cast<testing::CapturingAnalytics&>(*host_.app().platform().analytics);
  ASSERT_TRUE(host_.app().modes().select(VPNRoutingMode::services));
  for (const std::string& key : std::set<std::string>(host_.app().sites().selectedServices().get())) {
    ASSERT_TRUE(host_.app().sites().toggle(key, false));
  }
  host_.settle();
  ASSERT_TRUE(host_.app().sites().isSelectionEmpty());
  EXPECT_EQ(analytics.count("empty_sites_off_screen"), 0u) << "no front-end, no screen";

  Subscriber sites = subscribe(Json::array({"sites"}));
  ASSERT_EQ(sites.events.size(), 1u);
  EXPECT_EQ(sites.events[0]["value"]["emptyScreen"]["title"], "Выберите хотя бы один сайт");
  EXPECT_EQ(analytics.count("empty_sites_off_screen"), 1u);
  Subscriber another = subscribe(Json::array({"sites"}));
  EXPECT_EQ(analytics.count("empty_sites_off_screen"), 1u) << "the same screen, still empty";

  // Chosen again, then emptied again: a new empty screen.
  ASSERT_TRUE(host_.app().sites().toggle("youtube", true));
  waitFor(sites, "sites", [](const Json& v) { return v["emptyScreen"].is_null(); });
  ASSERT_TRUE(host_.app().sites().toggle("youtube", false));
  waitFor(sites, "sites", [](const Json& v) { return v["emptyScreen"].is_object(); });
  EXPECT_EQ(analytics.count("empty_sites_off_screen"), 2u);
}

TEST_F(ManagementInterfaceTest, TheLinksAndTheirFlagsFollowTheMainConfiguration) {
  Subscriber links = subscribe(Json::array({"links"}));
  ASSERT_EQ(links.events.size(), 1u);
  EXPECT_TRUE(links.events[0]["value"]["support"].is_null());
  EXPECT_FALSE(links.events[0]["value"]["share"].get<std::string>().empty()) << "the built-in link";
  EXPECT_EQ(links.events[0]["value"]["moveButton"], false);

  Json main = AgentHost::mainAnswer();
  main["main"].update({{"link_support", "https://t.me/norvik_support"},
                       {"link_tg", "https://t.me/norvik"},
                       {"link_share", "https://norvik.app/invite/42"},
                       {"show_company", true},
                       {"move_button", true}});
  host_.backend().answerJson("main", main);
  host_.app().network().loadMainConfiguration();
  const Json value = waitFor(links, "links", [](const Json& v) { return !v["support"].is_null(); })["value"];
  EXPECT_EQ(value, (Json{{"support", "https://t.me/norvik_support"},
                         {"supportChannel", "https://t.me/norvik"},
                         {"share", "https://norvik.app/invite/42"},
                         {"showCompany", true},
                         {"moveButton", true}}));
}

TEST_F(ManagementInterfaceTest, TheAgentChecksItsFeedAtLaunchAndOnItsIntervalAndFallsBackToTheMirror) {
  const AppUpdaterConfig config = platformUpdaterConfig();
  auto feedRequests = [&] {
    std::vector<std::string> feeds;
    for (const std::string& url : host_.backend().urls()) {
      if (url.ends_with("/appcast.xml")) feeds.push_back(url);
    }
    return feeds;
  };
  EXPECT_TRUE(feedRequests().empty()) << "the first check waits a little after the start";
  EXPECT_TRUE(host_.log().contains("[Update] Sparkle запущен, интервал 14400с, канал beta: false"));

  // The feed answers 404 here: the mirror is tried at once; a background check shows no failure.
  host_.advance(30s);
  EXPECT_EQ(feedRequests(), (std::vector<std::string>{config.feedURL, config.mirrorFeedURL}));
  EXPECT_TRUE(host_.log().contains("[Update] фид: зеркало"));
  Subscriber updater = subscribe(Json::array({"updater"}));
  EXPECT_EQ(updater.events[0]["value"]["state"], "idle");

  // Four hours on, the next check starts on the main feed. While it runs, the user asks for one:
  // that one starts when the agent's own has ended, and its failure is reported in words.
  host_.advance(4h - 31s + 50ms);
  ASSERT_EQ(feedRequests().size(), 3u);
  EXPECT_EQ(feedRequests()[2], config.feedURL);
  const Json checked = ask({{"command", "update"}, {"action", "check"}});
  EXPECT_EQ(feedRequests(), (std::vector<std::string>{config.feedURL, config.mirrorFeedURL, config.feedURL,
                                                      config.mirrorFeedURL, config.feedURL, config.mirrorFeedURL}));
  EXPECT_EQ(checked["code"], "failed");
  EXPECT_EQ(checked["updater"]["state"], "failed");
  EXPECT_FALSE(checked["updater"]["failure"].get<std::string>().empty());
  EXPECT_EQ(checked["error"]["message"], checked["updater"]["failure"]);
  EXPECT_EQ(ask({{"command", "update"}, {"action", "explode"}})["code"], "usage");
}

// --- Update prompts: the agent meets the backend's answer at launch ---

class ForcedUpdateTest : public ManagementInterfaceTest {
 protected:
  ForcedUpdateTest()
      : ManagementInterfaceTest([](AgentHost& host) {
          host.backend().answerJson("check_app_version", forcedUpdate());
          host.downloads().setChunking(16 * 1024, 200ms);
          host.downloads().serve(std::string(kPackageURL), std::string(256 * 1024, 'P'));
        }) {}
};

TEST_F(ForcedUpdateTest, AForcedUpdateReachesSubscriptionAndStatusAndItsMainButtonStartsTheInstall) {
  Subscriber subscriber = subscribe(Json::array({"prompt", "updater", "menu"}));
  const Json prompt = waitFor(subscriber, "prompt", [](const Json& v) { return v.is_object(); })["value"];
  EXPECT_EQ(prompt["kind"], "forced");
  EXPECT_EQ(prompt["title"], "Доступна новая версия");
  EXPECT_EQ(prompt["message"], "Эта версия больше не поддерживается.");
  EXPECT_EQ(prompt["mainButton"], "Обновить сейчас");
  EXPECT_TRUE(prompt["laterButton"].is_null()) << "a forced update cannot be put off";
  EXPECT_EQ(prompt["installsInApp"], true);
  EXPECT_EQ(prompt["buttons"].size(), 1u);
  EXPECT_EQ(ask({{"command", "status"}})["status"]["prompt"], prompt);
  // The menu offers the install too.
  waitFor(subscriber, "menu", [](const Json& v) { return v["items"].back()["title"] == "Обновить приложение"; });

  EXPECT_EQ(ask({{"command", "answer"}, {"id", prompt["id"]}, {"button", "later"}})["code"], "usage");
  EXPECT_EQ(ask({{"command", "answer"}, {"id", prompt["id"]}, {"button", "Обновить сейчас"}})["ok"], true);
  EXPECT_TRUE(host_.log().contains("[Version] кнопка обновления → обязательное"));
  const Json downloading = waitFor(subscriber, "updater", [](const Json& v) {
    return v["state"] == "downloading" && v["received"].get<std::uint64_t>() > 0;
  })["value"];
  EXPECT_EQ(downloading["text"], "Загрузка…");
  EXPECT_EQ(downloading["total"], 256 * 1024);
  ASSERT_FALSE(host_.downloads().requests().empty());
  EXPECT_EQ(host_.downloads().requests().front().url, kPackageURL);
}

class SoftScreenTest : public ManagementInterfaceTest {
 protected:
  SoftScreenTest()
      : ManagementInterfaceTest([](AgentHost& host) {
          host.backend().answerJson("check_app_version",
                                    {{"update", {{"update_type", "soft_screen"}, {"update_title", "Новая версия"}}}});
        }) {}
  Defaults& defaults() { return *host_.app().platform().standardDefaults; }
  testing::CapturingAnalytics& analytics() {
    return static_cast<testing::CapturingAnalytics&>(*host_.app().platform().analytics);
  }
};

TEST_F(SoftScreenTest, LaterStartsTheCooldownOnlyAfterAFrontEndSawThePrompt) {
  ASSERT_TRUE(host_.runUntil([&] { return host_.app().versionChecker().prompt().get().showUpdateAlert; }, 1min));
  host_.advance(1h);
  // Nobody has seen it: nothing is recorded as shown, nothing can be put off.
  EXPECT_EQ(analytics().count("update_available"), 0u);
  EXPECT_FALSE(defaults().contains(AppVersionChecker::kSoftScreenCooldownKey));
  EXPECT_FALSE(host_.app().versionChecker().dismiss());

  Subscriber subscriber = subscribe(Json::array({"prompt"}));
  ASSERT_EQ(subscriber.events.size(), 1u);
  const Json prompt = subscriber.events[0]["value"];
  EXPECT_EQ(prompt["kind"], "softScreen");
  EXPECT_EQ(prompt["laterButton"], "Не сейчас");
  EXPECT_EQ(analytics().count("update_available"), 1u);
  EXPECT_EQ(analytics().count("show soft_screen"), 1u);

  const double now = host_.app().platform().clock->secondsSince1970();
  EXPECT_EQ(ask({{"command", "answer"}, {"id", prompt["id"]}, {"button", "later"}})["ok"], true);
  EXPECT_EQ(defaults().doubleValue(AppVersionChecker::kSoftScreenCooldownKey), now + 172800);
  EXPECT_TRUE(waitFor(subscriber, "prompt", [](const Json& v) { return v.is_null(); })["value"].is_null());
}

// --- The health check on a tunnel that is up ---

class HealthCheckTest : public ManagementInterfaceTest {
 protected:
  HealthCheckTest()
      : ManagementInterfaceTest([](AgentHost& host) {
          Json main = AgentHost::mainAnswer();
          main["main"]["smart_status"] = {{"enabled", true}};
          host.backend().answerJson("main", main);
        }) {}
};

TEST_F(HealthCheckTest, SettingTheSystemClockMakesTheEngineCheckAgain) {
  ASSERT_EQ(ask({{"command", "connect"}})["status"]["tunnel"], "connected");
  host_.advance(2min);
  const std::size_t before = host_.log().count("[SmartStatus] проверка: clock_change");
  host_.clockChanges().signalClockChange();
  ASSERT_TRUE(host_.runUntil([&] { return host_.log().count("[SmartStatus] проверка: clock_change") > before; }, 10s));
  EXPECT_TRUE(host_.log().contains("[SmartStatus] время изменено в системе — перепроверка"));
}

}  // namespace
}  // namespace norvik
