#include "update/deb_package_installer.h"

#include <fmt/format.h>

#include "platform/crypto.h"
#include "platform/files.h"
#include "platform/text.h"
#include "update/file_signature.h"
#include "update/package_signature.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

namespace texts = update_texts;
namespace pkg_tools = package_tools;

constexpr std::size_t kMaxPackageSize = std::size_t{1} << 30;

std::expected<void, InstallFailure> refused(std::string_view userMessage, std::string detail) {
  return std::unexpected(InstallFailure{std::string(userMessage), std::move(detail)});
}

// The tool's own words for a failure: its error output, else its standard output, else the status.
std::string packageToolFailure(const ProcessRunResult& result) {
  if (!result) return result.error().description();
  const auto err = trimWhitespace(result->err);
  const auto out = trimWhitespace(result->out);
  const std::string_view said = !err.empty() ? err : out;
  if (said.empty()) return fmt::format("exit status {}", result->exitStatus);
  return fmt::format("exit status {}: {}", result->exitStatus, utf8Prefix(said, 300));
}

bool packageToolSucceeded(const ProcessRunResult& result) { return result && result->succeeded(); }

// Step 2, off the loop: the package's own signature, made with our key, over the package.
std::expected<void, InstallFailure> checkPackageSignature(const std::filesystem::path& file, const Bytes& ourKey) {
  auto bytes = readFile(file, kMaxPackageSize);
  if (!bytes) return refused(texts::kCannotOpenImage, "read " + file.string() + ": " + bytes.error().description());
  auto signature = findPackageSignature(*bytes);
  if (!signature) {
    switch (signature.error().problem) {
      case PackageSignatureProblem::notAnArchive:
        return refused(texts::kCannotOpenImage, "not a Debian package: " + signature.error().detail);
      case PackageSignatureProblem::unsigned_:
        return refused(texts::kWrongTeam, "package signature: " + signature.error().detail);
      case PackageSignatureProblem::malformed:
      default:
        return refused(texts::kBadCodeSignature, "package signature: " + signature.error().detail);
    }
  }
  if (signature->publicKey != ourKey) {
    return refused(texts::kWrongTeam, fmt::format("package signed with the key {}, not {}",
                                                  base64Encode(signature->publicKey), base64Encode(ourKey)));
  }
  auto verified =
      verifyEd25519Signature(std::string_view(*bytes).substr(0, signature->signedLength), signature->signature, ourKey);
  if (!verified) return refused(texts::kBadCodeSignature, "package signature: " + verified.error());
  return {};
}

}  // namespace

PackageFields parsePackageFields(std::string_view output) {
  PackageFields fields;
  while (!output.empty()) {
    const auto end = output.find('\n');
    const std::string_view line = output.substr(0, end);
    output = end == std::string_view::npos ? std::string_view() : output.substr(end + 1);
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = trimWhitespace(line.substr(0, colon));
    const std::string value(trimWhitespace(line.substr(colon + 1)));
    if (name == "Package") fields.package = value;
    if (name == "Version") fields.version = value;
    if (name == "Architecture") fields.architecture = value;
  }
  return fields;
}

DebPackageInstaller::DebPackageInstaller(EventLoop& loop, FileDownloader& downloader, ProcessRunner& processes,
                                         Log& log, DebPackageInstallerConfig config)
    : loop_(loop), processes_(processes), log_(log), config_(std::move(config)), download_(loop, downloader, log) {}

DebPackageInstaller::~DebPackageInstaller() = default;

void DebPackageInstaller::install(UpdateSource source, InstallProgressHandler progress, InstallCompletion completion) {
  if (running_) {
    completion(std::unexpected(InstallFailure{std::string(texts::kCouldNotUpdate), "another install is running"}));
    return;
  }
  running_ = true;
  source_ = std::move(source);
  progress_ = std::move(progress);
  completion_ = std::move(completion);
  // Every package is checked against the release key: without one nothing can be trusted, so
  // nothing is even downloaded.
  if (!config_.ed25519PublicKey) {
    return fail(texts::kCouldNotUpdate, "no Ed25519 public key is provisioned to check the package");
  }
  download_.start(
      source_,
      VerifiedDownload::Settings{config_.temporaryDirectory, ".deb", config_.ed25519PublicKey,
                                 config_.downloadStallTimeout},
      [weak = weakFactory_.weak()](DownloadProgress p) {
        if (auto self = weak.lock()) self->report(InstallStep::downloading, p);
      },
      [weak = weakFactory_.weak()](std::expected<void, InstallFailure> checked) {
        if (auto self = weak.lock()) self->onDownloadChecked(std::move(checked));
      });
}

void DebPackageInstaller::onDownloadChecked(std::expected<void, InstallFailure> checked) {
  if (!checked) return fail(checked.error().userMessage, checked.error().detail);
  report(InstallStep::verifying);
  // Reading and hashing the whole package takes a while: off the loop.
  runBlockingThenReply(
      loop_, [file = download_.file(), key = *config_.ed25519PublicKey] { return checkPackageSignature(file, key); },
      [weak = weakFactory_.weak()](std::expected<void, InstallFailure> result) {
        if (auto self = weak.lock()) self->onSignatureChecked(std::move(result));
      });
}

void DebPackageInstaller::onSignatureChecked(std::expected<void, InstallFailure> checked) {
  if (!checked) return fail(checked.error().userMessage, checked.error().detail);
  readControlFields();
}

template <class Next>
void DebPackageInstaller::runTool(std::vector<std::string> argv, std::chrono::milliseconds timeout, Next next) {
  processes_.run(ProcessCommand{std::move(argv), timeout},
                 [weak = weakFactory_.weak(), next = std::move(next)](ProcessRunResult result) mutable {
                   if (auto self = weak.lock()) next(*self, std::move(result));
                 });
}

void DebPackageInstaller::readControlFields() {
  runTool(
      {std::string(pkg_tools::kDpkgDeb), "--field", download_.file().string(), "Package", "Version", "Architecture"},
      config_.toolTimeout, [](DebPackageInstaller& self, ProcessRunResult result) {
        if (!packageToolSucceeded(result))
          return self.fail(texts::kCannotOpenImage, "dpkg-deb --field: " + packageToolFailure(result));
        const PackageFields fields = parsePackageFields(result->out);
        if (fields.package != self.config_.packageName) {
          return self.fail(texts::kWrongTeam, fmt::format(R"(the package is "{}", not "{}")",
                                                          utf8Prefix(fields.package, 80), self.config_.packageName));
        }
        self.log_.format("[Update] пакет {} {} ({}) подписан нами", fields.package, utf8Prefix(fields.version, 80),
                         utf8Prefix(fields.architecture, 40));
        self.checkArchitecture(fields.architecture);
      });
}

void DebPackageInstaller::checkArchitecture(const std::string& packageArchitecture) {
  auto compare = [packageArchitecture](DebPackageInstaller& self, const std::string& ours) {
    if (packageArchitecture != "all" && packageArchitecture != ours) {
      return self.fail(texts::kWrongArchitecture, fmt::format(R"(the package is built for "{}", this system is "{}")",
                                                              utf8Prefix(packageArchitecture, 40), ours));
    }
    self.installAsAdministrator();
  };
  if (!config_.architecture.empty()) return compare(*this, config_.architecture);
  runTool({std::string(pkg_tools::kDpkg), "--print-architecture"}, config_.toolTimeout,
          [compare](DebPackageInstaller& self, ProcessRunResult result) {
            if (!packageToolSucceeded(result))
              return self.fail(texts::kCouldNotUpdate, "dpkg --print-architecture: " + packageToolFailure(result));
            compare(self, std::string(trimWhitespace(result->out)));
          });
}

void DebPackageInstaller::installAsAdministrator() {
  report(InstallStep::replacing);
  log_.write("[Update] пакет: установка с правами администратора (pkexec)");
  // apt rather than dpkg: it brings a dependency the new version adds. Configuration files the
  // administrator changed are kept without a question nobody would see.
  runTool({std::string(pkg_tools::kPkexec), std::string(pkg_tools::kAptGet), "install", "--yes", "--quiet",
           "--no-install-recommends", "--allow-downgrades", "-o", "Dpkg::Options::=--force-confdef", "-o",
           "Dpkg::Options::=--force-confold", download_.file().string()},
          std::chrono::milliseconds(0), [](DebPackageInstaller& self, ProcessRunResult result) {
            if (!packageToolSucceeded(result)) {
              const std::string detail = packageToolFailure(result);
              self.log_.format("[Update] msi: замена с правами администратора не прошла: {}", detail);
              // pkexec's own status for a dismissed authentication dialog.
              constexpr int kDismissed = 126;
              const bool dismissed = result && result->exitStatus == kDismissed;
              return self.finish(std::unexpected(
                  InstallFailure{std::string(dismissed ? texts::kCancelled : texts::kCouldNotFinish), detail}));
            }
            // The package's scripts restart every running agent on the new programs.
            self.report(InstallStep::relaunching);
            self.log_.write("[Update] msi: обновление установлено, перезапуск");
            self.finish({});
          });
}

void DebPackageInstaller::fail(std::string_view userMessage, std::string detail) {
  log_.format("[Update] msi: установка не удалась: {} ({})", userMessage, detail);
  finish(std::unexpected(InstallFailure{std::string(userMessage), std::move(detail)}));
}

void DebPackageInstaller::finish(InstallResult result) {
  download_.removeFile();
  running_ = false;
  progress_ = nullptr;
  if (auto completion = std::move(completion_)) completion(std::move(result));
}

void DebPackageInstaller::report(InstallStep step, DownloadProgress download) {
  if (progress_) progress_(InstallProgress{step, download});
}

}  // namespace norvik
