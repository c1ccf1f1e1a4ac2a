#include "tools/devbackend/request_verifier.h"

#include <fmt/format.h>

#include "testing/backend_verifier.h"

namespace norvik::devbackend {
namespace {

// The shared verifier words its refusals; these are the ones that come before the identity.
Verdict verdictFor(std::string_view reason) {
  if (reason == "missing signature headers") return Verdict::missingHeaders;
  if (reason == "bad X-Timestamp") return Verdict::badTimestamp;
  if (reason == "signature mismatch") return Verdict::badSignature;
  return Verdict::badIdentity;
}

}  // namespace

std::string_view toString(Verdict verdict) {
  switch (verdict) {
    case Verdict::ok:
      return "ok";
    case Verdict::missingHeaders:
      return "missing_headers";
    case Verdict::badTimestamp:
      return "bad_timestamp";
    case Verdict::badSignature:
      return "bad_signature";
    case Verdict::staleTimestamp:
      return "stale_timestamp";
    case Verdict::replayedNonce:
      return "replayed_nonce";
    case Verdict::badIdentity:
      return "bad_identity";
    default:
      return "unknown";
  }
}

RequestVerifier::RequestVerifier(Bytes apiHmacKey, Bytes aesKey, std::chrono::seconds window)
    : apiHmacKey_(std::move(apiHmacKey)), aesKey_(std::move(aesKey)), window_(window) {}

Verification RequestVerifier::check(const HttpHeaders& headers, const std::string& body, Clock::TimePoint now) const {
  Verification out;
  auto verified = testing::verifySignedRequest(headers, body, apiHmacKey_, aesKey_);
  if (!verified) {
    out.verdict = verdictFor(verified.error());
    out.detail = verified.error();
    return out;
  }
  out.vendorId = std::move(verified->vendorId);
  out.body = std::move(verified->body);
  out.nonce = std::move(verified->nonce);
  out.timestamp = verified->timestamp;

  const auto nowSeconds = std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
  const std::int64_t skew = out.timestamp - nowSeconds;
  if (skew > window_.count() || skew < -window_.count()) {
    out.verdict = Verdict::staleTimestamp;
    out.detail = fmt::format("timestamp {} is {} s from the server's clock (window ±{} s)", out.timestamp, skew,
                             window_.count());
    return out;
  }
  if (auto it = served_.find(out.nonce); it != served_.end() && it->second > now) {
    out.verdict = Verdict::replayedNonce;
    out.detail = fmt::format("nonce {}… was already served", out.nonce.substr(0, 8));
    return out;
  }
  return out;
}

void RequestVerifier::markServed(const Verification& verification, Clock::TimePoint now) {
  std::erase_if(served_, [now](const auto& entry) { return entry.second <= now; });
  // Remembered until its timestamp leaves the window; by then the timestamp check refuses it.
  const auto timestamp = Clock::TimePoint(std::chrono::seconds(verification.timestamp));
  served_[verification.nonce] = std::max(now, timestamp) + window_ + std::chrono::seconds(1);
}

}  // namespace norvik::devbackend
