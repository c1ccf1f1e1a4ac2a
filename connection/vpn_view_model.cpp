#include "connection/vpn_view_model.h"

#include "tunnel/key_text.h"

namespace norvik {
namespace {

namespace texts = connection_texts;

}  // namespace

VPNViewModel::VPNViewModel(Dependencies d)
    : loop_(d.loop),
      network_(d.network),
      vpn_(d.vpn),
      log_(d.log),
      analytics_(d.analytics),
      screen_(d.overlays),
      machine_(TunnelStateMachine::Dependencies{d.loop, d.network, d.vpn, screen_, d.standardDefaults, d.groupDefaults,
                                                d.log, d.analytics, std::move(d.preConnectCheck)}) {
  responseSubscription_ =
      network_.currentResponse().subscribe([this](const NetworkService::MainResponse& r) { onMainResponse(r); });
  loadErrorSubscription_ =
      network_.lastError().subscribe([this](const std::optional<APIError>& e) { onMainLoadError(e); });
  loadingSubscription_ = network_.isLoading().subscribe([this](const bool& loading) { screen_.setLoading(loading); });
  failureSubscription_ = vpn_.connectionFailed().subscribe(
      [this](const std::string& message) { screen_.showError(texts::kExtensionErrorTitle, message); });
}

VPNViewModel::~VPNViewModel() = default;

// --- The user's taps ---

void VPNViewModel::toggleVPN(IntentDone done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  machine_.toggle(IntentOrigin::homeScreen, std::move(done));
}

void VPNViewModel::getVPNKey(std::move_only_function<void(bool)> done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  machine_.fetchKey(std::move(done));
}

void VPNViewModel::changeServerAction(IntentDone done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  machine_.changeServer(IntentOrigin::homeScreen, std::move(done));
}

std::optional<std::string> VPNViewModel::currentServerIP() {
  auto ip = vpn_.serverAddress();
  log_.format("Current server IP: {}", ip.value_or("none"));
  return ip;
}

// --- Refreshing the key from the main configuration ---

void VPNViewModel::checkAndUpdateVPNKey(const APIResponse& response) {
  if (response.main.keyData && !response.main.keyData->empty()) {
    checkAndUpdateVPNKeyByFullConfig(*response.main.keyData, response);
  }
}

void VPNViewModel::checkAndUpdateVPNKeyByFullConfig(const std::string& keyData, const APIResponse& /*response*/) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  // Nothing installed yet: the toggle fetches a key when the user asks for the tunnel.
  const auto installed = vpn_.installedKeyText();
  if (!installed) return;

  const std::string offered = normalizeKeyText(keyData);
  const std::string current = normalizeKeyText(*installed);
  if (offered == current) return;
  const auto before = extractServerAddress(current);
  const auto after = extractServerAddress(offered);
  const std::string reason = before != after ? "server " + before.value_or("none") + " → " + after.value_or("none")
                                             : std::string("config text");
  log_.format("[keyCfg] compare: CHANGED ({})", reason);
  installKeyIpConfig(keyData);
}

void VPNViewModel::installKeyIpConfig(const std::string& keyText) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  machine_.refreshKey(keyText);
}

// --- The main configuration and payments ---

void VPNViewModel::onMainResponse(const NetworkService::MainResponse& response) {
  if (!response) return;
  if (screen_.switchBlock().get().locked) screen_.switchBlock().set(SwitchBlock{});
  checkAndUpdateVPNKey(*response);

  if (!awaitingPaymentSince_) return;
  if (loop_.now() - *awaitingPaymentSince_ > kPaymentWait) {
    awaitingPaymentSince_.reset();
    return;
  }
  const bool active = response->main.subActive.value_or(false) || response->main.isActive.value_or(false);
  if (!active) return;
  awaitingPaymentSince_.reset();
  if (screen_.busyText().get() == busy_texts::checkingPayment()) screen_.setBusy(std::nullopt);
  screen_.showToast("payment_activated", texts::kSubscriptionActivated);
  // Once, and only when the user has not got the tunnel up meanwhile.
  if (!machine_.wantsTunnelUp()) machine_.connect(IntentOrigin::payment, nullptr);
}

void VPNViewModel::onMainLoadError(const std::optional<APIError>& error) {
  if (!error) return;
  const bool offline = error->code == api_error::kNetworkError;
  const bool configured = vpn_.isConfigured().get();
  log_.format("Свитч заблокирован: API ошибка (offline={}), VPN конфиг: {}", offline ? "true" : "false",
              configured ? "ДА (разблокирован)" : "НЕТ (заблокирован)");
  screen_.switchBlock().set(SwitchBlock{!configured, offline});
}

void VPNViewModel::paymentConfirmed() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  awaitingPaymentSince_ = loop_.now();
  analytics_.record("payment_checking");
  if (screen_.operation().get() == Operation::none) screen_.setBusy(busy_texts::checkingPayment());
  network_.loadMainConfiguration([weak = weakFactory_.weak()](auto) {
    auto* self = weak.lock();
    if (self && self->screen_.busyText().get() == busy_texts::checkingPayment()) self->screen_.setBusy(std::nullopt);
  });
}

// --- The sample key ---

std::string VPNViewModel::sampleKeyText() {
  // Made-up keys of the real form (44-character Base64) and documentation addresses: this
  // configuration connects nowhere.
  return "[Interface]\n"
         "PrivateKey = bm9ydmlrLXNhbXBsZS1wcml2YXRlLWtleS0wMDAwMDE=\n"
         "Address = 10.66.0.2/32\n"
         "DNS = 10.66.0.1\n"
         "\n"
         "[Peer]\n"
         "PublicKey = bm9ydmlrLXNhbXBsZS1wdWJsaWMta2V5LTAwMDAwMDE=\n"
         "PresharedKey = bm9ydmlrLXNhbXBsZS1wcmVzaGFyZWQta2V5LTAwMDE=\n"
         "AllowedIPs = 0.0.0.0/0, ::/0\n"
         "Endpoint = 203.0.113.1:51820\n"
         "PersistentKeepalive = 25";
}

void VPNViewModel::installFakeVPNKey(std::move_only_function<void(bool)> done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  machine_.installKey(sampleKeyText(), std::move(done));
}

}  // namespace norvik
