// The home screen's controller over the real stack: NetworkService (scripted HTTPS), VPNManager
// and the simulated tunnel service, all on virtual time.
#include "connection/vpn_view_model.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <map>

#include "platform/simulated_tunnel_service.h"
#include "testing/backend_environment.h"
#include "testing/fake_named_notifications.h"
#include "testing/http_fakes.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;
using Status = TunnelStatus;

std::string keyFor(const std::string& server) {
  return "[Interface]\nPrivateKey = bm9ydmlrLXNhbXBsZS1wcml2YXRlLWtleS0wMDAwMDE=\nAddress = 10.66.0.2/32\n\n[Peer]\n"
         "PublicKey = bm9ydmlrLXNhbXBsZS1wdWJsaWMta2V5LTAwMDAwMDE=\nEndpoint = " +
         server + ":51820";
}

std::string keyResponse(const std::string& server) {
  return nlohmann::json{{"result", 1}, {"keyData", keyFor(server)}, {"keyIP", server}}.dump();
}

std::string mainResponse(const std::string& keyData, bool subActive = true) {
  return nlohmann::json{{"main", {{"key_data", keyData}, {"sub_active", subActive}}},
                        {"info", nlohmann::json::object()}}
      .dump();
}

class VPNViewModelTest : public ::testing::Test, protected testing::BackendEnvironment {
 protected:
  VPNViewModelTest() {
    transport_.setLatency(200ms);
    transport_.setHandler([this](const HttpRequest& request) -> HttpResult {
      const std::string endpoint = request.url.substr(request.url.rfind('/') + 1);
      ++requests_[endpoint];
      auto it = answers_.find(endpoint);
      if (it == answers_.end()) return FakeHttpTransport::json(404, "{}");
      return it->second;
    });
    vpn_.start([this] { model_->machine().restoreIntent(); });
    loop.runUntilIdle();
  }

  // Hands the outcome of a request to seen_.
  IntentDone record() {
    return [this](IntentOutcome outcome) { seen_.push_back(std::move(outcome)); };
  }

  void answer(const std::string& endpoint, HttpResult result) { answers_[endpoint] = std::move(result); }
  void answerJson(const std::string& endpoint, int status, std::string body) {
    answer(endpoint, FakeHttpTransport::json(status, std::move(body)));
  }

  // Runs until the tunnel state machine has nothing left to do.
  void settle() {
    loop.runUntil([&] { return model_->machine().isIdle() && model_->machine().pendingRequests() == 0; }, 2min);
    loop.advance(2s);
  }

  void connectWithKey(const std::string& server) {
    answerJson("getkey", 200, keyResponse(server));
    model_->toggleVPN(record());
    settle();
    ASSERT_EQ(vpn_.connectionState().get(), Status::connected);
  }

  const VPNViewModel::ShownError& error() { return *model_->lastError().get(); }
  std::string installedServer() { return vpn_.tunnelManager()->protocolConfiguration->serverAddress.value_or("none"); }

  testing::MemoryDefaults group_;
  testing::CapturingAnalytics analytics_;
  testing::FakeNamedNotifications notifications_{loop};
  FakeHttpTransport transport_{loop};
  NetworkService network_{loop, transport_, security, defaults, clock, log};
  SimulatedTunnelService tunnels_{loop, clock, log, &notifications_, {}};
  VPNManager vpn_{{loop, tunnels_, notifications_, group_, defaults, clock, log, analytics_}};
  OverlayQueue overlays_{loop};
  std::unique_ptr<VPNViewModel> model_ = std::make_unique<VPNViewModel>(
      VPNViewModel::Dependencies{loop, network_, vpn_, overlays_, defaults, group_, log, analytics_});
  std::map<std::string, HttpResult> answers_;
  std::map<std::string, int> requests_;
  std::vector<IntentOutcome> seen_;
};

TEST_F(VPNViewModelTest, TheFirstToggleFetchesAKeyInstallsItAndConnects) {
  answerJson("getkey", 200, keyResponse("203.0.113.10"));
  std::vector<std::optional<BusyText>> busy;
  auto watch = model_->busyText().subscribe([&](const auto& b) { busy.push_back(b); });

  model_->toggleVPN(record());
  loop.advance(100ms);
  EXPECT_EQ(model_->busyText().get(), busy_texts::fetchingKey());
  EXPECT_EQ(model_->busyText().get()->text, "Получаем ключ, подождите…");
  EXPECT_EQ(model_->operation().get(), VPNViewModel::Operation::keyInstallation);
  settle();

  EXPECT_EQ(requests_["getkey"], 1);
  EXPECT_EQ(vpn_.connectionState().get(), Status::connected);
  EXPECT_EQ(installedServer(), "203.0.113.10");
  EXPECT_FALSE(model_->busyText().get().has_value());
  EXPECT_EQ(model_->operation().get(), VPNViewModel::Operation::none);
  EXPECT_TRUE(log.hasLine("[getVPNKey] Получен ответ от API: result=1"));
  ASSERT_EQ(seen_.size(), 1u);
  EXPECT_TRUE(seen_.back().ok());
  EXPECT_EQ(busy.back(), std::nullopt);
}

TEST_F(VPNViewModelTest, ATapWhileConnectingSwitchesOffAndTheConnectIsSuperseded) {
  connectWithKey("203.0.113.10");
  model_->toggleVPN(record());  // off
  settle();
  tunnels_.setConnectDelay(5s);
  model_->toggleVPN(record());
  loop.advance(1s);
  ASSERT_EQ(vpn_.connectionState().get(), Status::connecting);
  model_->toggleVPN(record());  // the user changed their mind: the last word wins
  settle();
  EXPECT_EQ(vpn_.connectionState().get(), Status::disconnected);
  ASSERT_EQ(seen_.size(), 4u);
  EXPECT_EQ(seen_[2].kind, IntentOutcome::Kind::superseded);
  EXPECT_EQ(seen_[2].message, "Команда отменена: её заменила более поздняя команда.");
  EXPECT_TRUE(seen_[3].ok());
  EXPECT_EQ(tunnels_.startOptions().size(), 2u);
}

TEST_F(VPNViewModelTest, ThePreConnectCheckAnswersLaterAndItsDialogTakesThePlaceOfConnecting) {
  answerJson("getkey", 200, keyResponse("203.0.113.10"));
  std::vector<VPNViewModel::PreConnectAnswer> asked;
  // The one home screen, with a pre-connect check whose answers the test gives.
  model_ = std::make_unique<VPNViewModel>(
      VPNViewModel::Dependencies{loop, network_, vpn_, overlays_, defaults, group_, log, analytics_,
                                 [&](VPNViewModel::PreConnectAnswer answer) { asked.push_back(std::move(answer)); }});
  model_->machine().restoreIntent();
  VPNViewModel& checked = *model_;
  checked.toggleVPN(record());
  loop.runUntilIdle();
  ASSERT_EQ(asked.size(), 1u);
  checked.toggleVPN(record());  // off again during the check: its answer no longer matters
  loop.runUntilIdle();
  asked[0](std::nullopt);
  loop.advance(2s);
  EXPECT_EQ(requests_["getkey"], 0);
  ASSERT_EQ(seen_.size(), 2u);
  EXPECT_EQ(seen_[0].kind, IntentOutcome::Kind::superseded);

  checked.toggleVPN(record());
  loop.runUntilIdle();
  ASSERT_EQ(asked.size(), 2u);
  asked[1](OverlayItem{OverlayItem::Kind::dialog,
                       "smart_status_pre_connect_no_internet",
                       "Нет интернета",
                       "Проверьте сеть",
                       {{"Понятно"}}});
  loop.advance(2s);
  EXPECT_EQ(analytics_.count("no_internet pre_connect"), 1u);
  ASSERT_TRUE(overlays_.current().get().has_value());
  EXPECT_EQ(overlays_.current().get()->identifier, "smart_status_pre_connect_no_internet");
  EXPECT_EQ(requests_["getkey"], 0);
  EXPECT_NE(vpn_.connectionState().get(), Status::connected);
  ASSERT_EQ(seen_.size(), 3u);
  EXPECT_EQ(seen_[2].kind, IntentOutcome::Kind::failed);
  EXPECT_EQ(seen_[2].message, "Проверьте сеть") << "the request says what the dialog says";

  checked.toggleVPN(record());
  loop.runUntilIdle();
  ASSERT_EQ(asked.size(), 3u);
  asked[2](std::nullopt);
  loop.runUntil([&] { return vpn_.connectionState().get() == Status::connected; }, 1min);
  EXPECT_EQ(vpn_.connectionState().get(), Status::connected);
  EXPECT_EQ(requests_["getkey"], 1);
}

TEST_F(VPNViewModelTest, KeyFetchErrorsBecomeTheKeyTableTexts) {
  NetworkError outOfDate = FakeHttpTransport::failure(NetworkErrorKind::certificate);
  outOfDate.certificateOutOfDate = true;  // the device's clock is far off
  const std::vector<std::pair<HttpResult, std::string>> cases = {
      {FakeHttpTransport::json(429, "{}"), "Слишком много запросов. Пожалуйста, подождите немного и попробуйте снова."},
      {FakeHttpTransport::json(400, "{}"), "Ошибка запроса. Попробуйте снова или обратитесь в поддержку."},
      {FakeHttpTransport::json(401, "{}"), "Ошибка авторизации. Перезапустите приложение и попробуйте снова."},
      {FakeHttpTransport::json(403, "{}"), "Не удалось получить ключ. Попробуйте позже."},
      {std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::cannotConnect)),
       "Проверьте подключение к интернету и повторите попытку"},
      {std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::certificate)),
       std::string(connection_texts::kCertificateProblem)},
      {std::unexpected(outOfDate), std::string(connection_texts::kClockWrong)},
      {FakeHttpTransport::json(200, "[1, 2]"), "Ошибка обработки данных от сервера"},
      {FakeHttpTransport::json(200, R"({"result": 0, "error": "quota"})"),
       "Не удалось получить ключ. Попробуйте позже."},
      {FakeHttpTransport::json(200, R"({"result": 1})"), "Сервер не предоставил конфигурацию VPN"},
      // A success without the key is the server's omission before anything else the body says.
      {FakeHttpTransport::json(200, R"({"result": 1, "error": "quota"})"), "Сервер не предоставил конфигурацию VPN"},
  };
  for (const auto& [result, message] : cases) {
    answer("getkey", result);
    model_->toggleVPN(record());
    settle();
    EXPECT_EQ(seen_.back().kind, IntentOutcome::Kind::failed);
    EXPECT_EQ(seen_.back().message, message);
    EXPECT_EQ(error().title, "Ошибка получения ключа");
    EXPECT_EQ(error().message, message);
    EXPECT_EQ(model_->operation().get(), VPNViewModel::Operation::none);
    EXPECT_FALSE(model_->busyText().get().has_value());
  }
  EXPECT_TRUE(log.hasLine("[getVPNKey] Серверная ошибка: quota"));
  EXPECT_TRUE(log.contains("[getVPNKey] Ошибка API: RATE_LIMIT: "));
  EXPECT_TRUE(tunnels_.configurations().empty());
}

TEST_F(VPNViewModelTest, AServerChangeDuringAKeyInstallationChangesNothing) {
  answerJson("getkey", 200, keyResponse("203.0.113.10"));
  model_->toggleVPN();
  loop.advance(100ms);
  ASSERT_EQ(model_->operation().get(), VPNViewModel::Operation::keyInstallation);
  model_->changeServerAction(record());
  EXPECT_EQ(error().title, "Смена сервера");
  EXPECT_EQ(error().message, "Дождитесь установки ключа VPN.");
  settle();
  EXPECT_EQ(requests_["change_server"], 0);
  EXPECT_EQ(installedServer(), "203.0.113.10");
  ASSERT_EQ(seen_.size(), 1u);
  EXPECT_EQ(seen_[0].kind, IntentOutcome::Kind::refused);
}

TEST_F(VPNViewModelTest, AServerChangeWalksThroughItsStepsAndConnectsToTheNewServer) {
  connectWithKey("203.0.113.10");
  answerJson("change_server", 200, keyResponse("198.51.100.7"));
  std::vector<std::string> steps;
  auto watch = model_->busyText().subscribe([&](const auto& b) {
    if (b) steps.push_back(b->text);
  });
  bool flagDuring = false;
  auto watchState =
      vpn_.connectionState().subscribe([&](const Status&) { flagDuring |= vpn_.isServerChangeInProgress(); });

  model_->changeServerAction(record());
  settle();

  EXPECT_EQ(steps, (std::vector<std::string>{"Отключаем VPN…", "Меняем сервер, подождите…", "Подключаемся…"}));
  EXPECT_EQ(requests_["change_server"], 1);
  EXPECT_EQ(installedServer(), "198.51.100.7");
  EXPECT_EQ(vpn_.connectionState().get(), Status::connected);
  EXPECT_TRUE(flagDuring);
  EXPECT_FALSE(vpn_.isServerChangeInProgress());
  EXPECT_TRUE(log.hasLine("Смена сервера: 203.0.113.10"));
  EXPECT_TRUE(log.hasLine("Сервер сменён: 203.0.113.10 → 198.51.100.7"));
  EXPECT_TRUE(log.hasLine("[changeServer] Получен ответ от API: result=1"));
  ASSERT_TRUE(seen_.back().ok());
  EXPECT_EQ(seen_.back().message, "Сервер сменён");
}

TEST_F(VPNViewModelTest, TheServerKeepsTheNameTheBackendGaveItsKeyAcrossChangesAndRestarts) {
  using Place = HomeScreen::ServerPlace;
  auto named = [](const std::string& server, const std::string& name, const std::string& location) {
    auto body = nlohmann::json::parse(keyResponse(server));
    body["serverName"] = name;
    body["location"] = location;
    return body.dump();
  };
  answerJson("getkey", 200, named("203.0.113.10", "nl-ams-1", "Нидерланды, Амстердам"));
  model_->toggleVPN(record());
  settle();
  EXPECT_EQ(model_->serverPlace().get(), (Place{"203.0.113.10", "nl-ams-1", "Нидерланды, Амстердам"}));

  answerJson("change_server", 200, named("198.51.100.7", "de-fra-1", "Германия, Франкфурт"));
  model_->changeServerAction(record());
  settle();
  const Place frankfurt{"198.51.100.7", "de-fra-1", "Германия, Франкфурт"};
  EXPECT_EQ(model_->serverPlace().get(), frankfurt);

  // The agent starts again: the name comes back with the installed key.
  model_.reset();
  model_ = std::make_unique<VPNViewModel>(
      VPNViewModel::Dependencies{loop, network_, vpn_, overlays_, defaults, group_, log, analytics_});
  EXPECT_EQ(model_->serverPlace().get(), frankfurt);
  model_->machine().restoreIntent();
  settle();

  // A server the backend did not name is not shown under the last one's name.
  answerJson("change_server", 200, keyResponse("192.0.2.44"));
  model_->changeServerAction(record());
  settle();
  EXPECT_EQ(installedServer(), "192.0.2.44");
  EXPECT_EQ(model_->serverPlace().get(), std::nullopt);
  EXPECT_FALSE(defaults.contains(TunnelStateMachine::kServerPlaceKey));
}

TEST_F(VPNViewModelTest, AServerChangeTimeOutIsNotRetriedAndSaysSo) {
  connectWithKey("203.0.113.10");
  answer("change_server", std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::timedOut)));
  model_->changeServerAction();
  settle();
  EXPECT_EQ(requests_["change_server"], 1);
  EXPECT_EQ(error().title, "Ошибка смены сервера");
  EXPECT_EQ(error().message, "Превышено время ожидания. Проверьте подключение к интернету.");
  EXPECT_EQ(analytics_.count("fail api_timeout"), 1u);
  EXPECT_FALSE(vpn_.isServerChangeInProgress());
  EXPECT_EQ(installedServer(), "203.0.113.10") << "the previous configuration stays";
}

TEST_F(VPNViewModelTest, ServerChangeErrorsUseTheirOwnTable) {
  answerJson("getkey", 200, keyResponse("203.0.113.10"));
  std::optional<bool> installed;
  model_->getVPNKey([&](bool ok) { installed = ok; });
  settle();
  ASSERT_EQ(installed, true);
  const std::vector<std::pair<HttpResult, std::string>> cases = {
      {std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::hostNotFound)),
       "Не удалось связаться с сервером. Проверьте подключение к интернету."},
      {FakeHttpTransport::json(400, "{}"), "Ошибка запроса. Попробуйте позже или обратитесь в поддержку."},
      {FakeHttpTransport::json(403, "{}"), "Для смены сервера требуется активная подписка"},
      {FakeHttpTransport::json(200, "null"), "Ошибка обработки ответа сервера"},
      {FakeHttpTransport::json(500, "{}"), "Не удалось сменить сервер. Попробуйте позже."},
      {FakeHttpTransport::json(200, R"({"result": 1})"), "Сервер не предоставил новую конфигурацию"},
  };
  for (const auto& [result, message] : cases) {
    answer("change_server", result);
    model_->changeServerAction();
    settle();
    EXPECT_EQ(error().message, message);
  }
  EXPECT_EQ(requests_["change_server"], 6) << "never repeated";
}

TEST_F(VPNViewModelTest, AFailedReconnectAfterAServerChangeLeavesTheStatedMessage) {
  connectWithKey("203.0.113.10");
  answerJson("change_server", 200, keyResponse("198.51.100.7"));
  tunnels_.failNextConnect(makeNEVPNError(NEVPNErrorCode::connectionFailed));
  model_->changeServerAction();
  settle();
  EXPECT_EQ(error().message, "Сервер сменён, но подключить VPN не удалось. Попробуйте включить VPN снова.");
  EXPECT_EQ(installedServer(), "198.51.100.7");
  EXPECT_EQ(vpn_.connectionState().get(), Status::disconnected);
  EXPECT_EQ(model_->operation().get(), VPNViewModel::Operation::none);
}

TEST_F(VPNViewModelTest, AMainKeyThatDiffersOnlyInWhiteSpaceDoesNotRefresh) {
  connectWithKey("203.0.113.10");
  const std::size_t saves = tunnels_.saveCount();
  std::string spaced = "\n\n" + keyFor("203.0.113.10") + "\n\n";
  spaced.replace(spaced.find(" = "), 3, "=");
  answerJson("main", 200, mainResponse(spaced));
  network_.loadMainConfiguration();
  loop.advance(5s);
  EXPECT_EQ(tunnels_.saveCount(), saves);
  EXPECT_FALSE(log.contains("[keyCfg] compare: CHANGED"));
}

TEST_F(VPNViewModelTest, ADifferentMainKeyIsInstalledAndTheRunningTunnelReconnected) {
  connectWithKey("203.0.113.10");
  answerJson("main", 200, mainResponse(keyFor("198.51.100.7")));
  std::vector<std::string> toasts;
  auto watch = overlays_.current().subscribe([&](const auto& item) {
    if (item && item->kind == OverlayItem::Kind::toast) toasts.push_back(item->message);
  });
  network_.loadMainConfiguration();
  settle();
  EXPECT_TRUE(log.hasLine("[keyCfg] compare: CHANGED (server 203.0.113.10 → 198.51.100.7)"));
  EXPECT_EQ(installedServer(), "198.51.100.7");
  EXPECT_EQ(vpn_.connectionState().get(), Status::connected);
  EXPECT_EQ(toasts, (std::vector<std::string>{"Сервер обновлён"}));
}

TEST_F(VPNViewModelTest, ARefreshNeverRunsDuringAServerChange) {
  connectWithKey("203.0.113.10");
  answerJson("change_server", 200, keyResponse("198.51.100.7"));
  answerJson("main", 200, mainResponse(keyFor("192.0.2.99")));
  model_->changeServerAction();
  loop.advance(150ms);  // disconnected, the change request is on its way
  network_.loadMainConfiguration();
  settle();
  EXPECT_TRUE(log.contains("[keyCfg] compare: CHANGED, но идёт другая операция"));
  EXPECT_EQ(installedServer(), "198.51.100.7") << "the server change won; the refresh did not interleave";
}

TEST_F(VPNViewModelTest, AFailedMainLoadLocksTheToggleOnlyWithoutAConfiguration) {
  answer("main", std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::cannotConnect)));
  network_.loadMainConfiguration();
  loop.advance(30s);
  EXPECT_TRUE(log.hasLine("Свитч заблокирован: API ошибка (offline=true), VPN конфиг: НЕТ (заблокирован)"));
  EXPECT_TRUE(model_->switchBlock().get().locked);
  model_->toggleVPN();
  settle();
  EXPECT_EQ(error().message, "Проверьте подключение к интернету и повторите попытку");
  EXPECT_EQ(requests_["getkey"], 0);

  answerJson("main", 200, mainResponse(keyFor("203.0.113.10")));
  network_.loadMainConfiguration();
  loop.advance(1s);
  EXPECT_FALSE(model_->switchBlock().get().locked);
  connectWithKey("203.0.113.10");
  answerJson("main", 503, "{}");
  network_.loadMainConfiguration();
  loop.advance(30s);
  EXPECT_TRUE(log.hasLine("Свитч заблокирован: API ошибка (offline=false), VPN конфиг: ДА (разблокирован)"));
  EXPECT_FALSE(model_->switchBlock().get().locked);
}

TEST_F(VPNViewModelTest, AConfirmedPaymentConnectsOnceTheSubscriptionIsActive) {
  answerJson("getkey", 200, keyResponse("203.0.113.10"));
  answerJson("main", 200, mainResponse(keyFor("203.0.113.10"), /*subActive=*/true));
  model_->paymentConfirmed();
  EXPECT_EQ(model_->busyText().get()->text, "Проверяем оплату…");
  EXPECT_EQ(analytics_.count("payment_checking"), 1u);
  settle();
  EXPECT_EQ(vpn_.connectionState().get(), Status::connected);
  EXPECT_EQ(tunnels_.startOptions().size(), 1u);
  network_.loadMainConfiguration();
  loop.advance(5s);
  EXPECT_EQ(tunnels_.startOptions().size(), 1u) << "once";
}

TEST_F(VPNViewModelTest, AKeyThatCannotBeSavedSaysWhy) {
  answerJson("getkey", 200, keyResponse("203.0.113.10"));
  tunnels_.failNextSave(Error{"POSIX", ENOSPC, "No space left on device"});
  model_->toggleVPN(record());
  settle();
  EXPECT_EQ(error().message, "Не удалось установить конфигурацию VPN. Изменение не сохранено: на диске нет места.");
  ASSERT_EQ(seen_.size(), 1u);
  EXPECT_EQ(seen_[0].kind, IntentOutcome::Kind::failed);
}

TEST_F(VPNViewModelTest, ARefusedVPNPermissionShowsThePermissionCard) {
  answerJson("getkey", 200, keyResponse("203.0.113.10"));
  tunnels_.failNextSave(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed, "permission denied"));
  model_->toggleVPN();
  settle();
  EXPECT_TRUE(model_->permissionCardShown().get());
  EXPECT_EQ(analytics_.count("permission_denied"), 1u);
  // The card asks; no dialog repeats it.
  EXPECT_FALSE(model_->lastError().get().has_value());
  EXPECT_FALSE(overlays_.current().get().has_value());
}

TEST_F(VPNViewModelTest, TheServersOwnTitleHeadsTheErrorDialog) {
  answer("getkey", FakeHttpTransport::json(429, R"({"title": "Подождите минуту", "message": "rate limited"})"));
  model_->toggleVPN(record());
  settle();
  EXPECT_EQ(error().title, "Подождите минуту");
  EXPECT_EQ(error().message, "Слишком много запросов. Пожалуйста, подождите немного и попробуйте снова.");
  ASSERT_TRUE(overlays_.current().get().has_value());
  EXPECT_EQ(overlays_.current().get()->title, "Подождите минуту");
}

TEST_F(VPNViewModelTest, ATunnelThatDropsIsReportedAsInterrupted) {
  connectWithKey("203.0.113.10");
  tunnels_.endSessionFromTunnel(vpn_.tunnelManager()->identifier, makeNEVPNError(NEVPNErrorCode::connectionFailed));
  loop.runUntilIdle();
  EXPECT_EQ(error().message, "VPN подключение прервано. Попробуйте включить VPN снова.");
  EXPECT_TRUE(log.contains("[HomeView] VPN connection failed: "));
}

TEST_F(VPNViewModelTest, TheSampleKeyHasTheRealFormAndInstalls) {
  const std::string sample = VPNViewModel::sampleKeyText();
  for (const char* field : {"PrivateKey = ", "PublicKey = ", "PresharedKey = "}) {
    const auto at = sample.find(field);
    ASSERT_NE(at, std::string::npos) << field;
    const std::string value = sample.substr(at + std::strlen(field), 44);
    EXPECT_EQ(base64Decode(value).value_or(Bytes{}).size(), 32u) << field;
  }
  std::optional<bool> installed;
  model_->installFakeVPNKey([&](bool ok) { installed = ok; });
  loop.runUntilIdle();
  EXPECT_EQ(installed, true);
  EXPECT_EQ(installedServer(), "203.0.113.1");
}

}  // namespace
}  // namespace norvik
