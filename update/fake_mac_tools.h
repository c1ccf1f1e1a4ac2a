#pragma once

// Test support for the update tests: the macOS tools the disk-image install runs, played on a
// temporary directory, and an Ed25519 signer for feed signatures.

#include <filesystem>
#include <memory>
#include <openssl/evp.h>
#include <set>
#include <stdexcept>
#include <string>

#include "platform/crypto.h"
#include "platform/files.h"
#include "testing/scripted_process_runner.h"
#include "testing/subprocess.h"
#include "update/disk_image_installer.h"

namespace norvik::testing {

// hdiutil, codesign, spctl, rm, ditto, mv and osascript as a Mac answers them, acting on real
// files under the test's directories. `readOnly` directories refuse new and removed entries for
// this user, as a non-admin user's Applications folder does; the administrator script is run for
// real by /bin/sh, so its quoting is put to the test.
class FakeMacTools {
 public:
  // `config` is read as the tools run, so it must outlive them.
  FakeMacTools(ScriptedProcessRunner& runner, const DiskImageInstallerConfig& config) : config_(config) {
    namespace fs = std::filesystem;
    runner.on("/usr/bin/hdiutil", [this](const std::vector<std::string>& argv) {
      if (argv.at(1) == "detach") {
        detached.push_back(describeCommand({argv.begin() + 2, argv.end()}));
        std::error_code ec;
        fs::remove_all(argv.at(2), ec);
        return ScriptedProcessRunner::exited(detachWorks ? 0 : 16, "", detachWorks ? "" : "hdiutil: couldn't eject");
      }
      if (!attachWorks) return ScriptedProcessRunner::exited(1, "", "hdiutil: attach failed - image not recognized");
      mountPoint = config_.volumesDirectory / "Norvik 2.0";
      fs::create_directories(mountPoint);
      if (imageHasApp) {
        fs::create_directories(mountPoint / config_.appBundleName / "Contents");
        writeText(mountPoint / config_.appBundleName / "Contents" / "version", imageVersion);
      }
      return ScriptedProcessRunner::exited(
          0, "/dev/disk4          \tGUID_partition_scheme          \t\n/dev/disk4s1        \tApple_HFS      \t" +
                 mountPoint.string() + "\n");
    });
    runner.on("/usr/bin/codesign", [this](const std::vector<std::string>& argv) {
      if (argv.at(1) == "--verify") {
        return codeSignatureValid
                   ? ScriptedProcessRunner::exited(0)
                   : ScriptedProcessRunner::exited(1, "", argv.back() + ": a sealed resource is missing or invalid");
      }
      return ScriptedProcessRunner::exited(0, "",
                                           "Executable=" + argv.back() +
                                               "/Contents/MacOS/Norvik\n"
                                               "Identifier=com.norvik.macos\nAuthority=Developer ID Application\n"
                                               "TeamIdentifier=" +
                                               team + "\nSealed Resources version=2\n");
    });
    runner.on("/usr/sbin/spctl", [this](const std::vector<std::string>& argv) {
      return assessmentPasses ? ScriptedProcessRunner::exited(0, "", argv.back() + ": accepted\n")
                              : ScriptedProcessRunner::exited(3, "", argv.back() + ": rejected\n");
    });
    runner.on("/bin/rm", [this](const std::vector<std::string>& argv) {
      const fs::path target = argv.at(2);
      if (fs::exists(target) && refuses(target)) return denied("rm", target);
      fs::remove_all(target);
      return ScriptedProcessRunner::exited(0);
    });
    runner.on("/usr/bin/ditto", [this](const std::vector<std::string>& argv) {
      const fs::path to = argv.at(2);
      if (diskFull) return ScriptedProcessRunner::exited(1, "", "ditto: " + to.string() + ": No space left on device");
      if (refuses(to)) return denied("ditto", to);
      fs::copy(argv.at(1), to, fs::copy_options::recursive);
      return ScriptedProcessRunner::exited(0);
    });
    runner.on("/bin/mv", [this](const std::vector<std::string>& argv) {
      if (refuses(argv.at(1))) return denied("mv", argv.at(1));
      if (refuses(argv.at(2))) return denied("mv", argv.at(2));
      fs::rename(argv.at(1), argv.at(2));
      return ScriptedProcessRunner::exited(0);
    });
    runner.on("/usr/bin/osascript", [this](const std::vector<std::string>& argv) {
      adminScripts.push_back(argv.at(2));
      if (!adminApproves) return ScriptedProcessRunner::exited(1, "", "execution error: User canceled. (-128)");
      auto shell = shellTextOf(argv.at(2));
      if (!shell) return ScriptedProcessRunner::exited(1, "", "syntax error: " + argv.at(2));
      auto ran = runProcess({"/bin/sh", "-c", *shell});
      return ScriptedProcessRunner::exited(ran.exitStatus, ran.out, ran.err);
    });
    runner.on("/bin/sh", [](const std::vector<std::string>&) { return ScriptedProcessRunner::exited(0); });
  }

  // The shell text inside `do shell script "…" with administrator privileges`, unescaped as
  // AppleScript reads its string literals; nothing when the script is not exactly that shape.
  static std::optional<std::string> shellTextOf(const std::string& script) {
    const std::string head = "do shell script \"";
    const std::string tail = " with administrator privileges";
    if (!script.starts_with(head)) return std::nullopt;
    std::string text;
    std::size_t i = head.size();
    for (; i < script.size() && script[i] != '"'; ++i) {
      if (script[i] != '\\') {
        text += script[i];
        continue;
      }
      if (++i == script.size()) return std::nullopt;
      const char e = script[i];
      text += e == 'n' ? '\n' : e == 'r' ? '\r' : e == 't' ? '\t' : e;
    }
    if (i == script.size() || script.substr(i + 1) != tail) return std::nullopt;
    return text;
  }

  static void writeText(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    if (auto written = writeFileAtomically(file, text); !written) throw std::runtime_error(written.error().message);
  }
  static std::string readText(const std::filesystem::path& file) { return readFile(file).value_or("(missing)"); }

  std::set<std::filesystem::path> readOnly;
  std::string team = "QX7RT2LM9A";
  std::string imageVersion = "2.0";
  bool attachWorks = true;
  bool detachWorks = true;
  bool imageHasApp = true;
  bool codeSignatureValid = true;
  bool assessmentPasses = true;
  bool adminApproves = true;
  bool diskFull = false;
  std::filesystem::path mountPoint;
  std::vector<std::string> detached;
  std::vector<std::string> adminScripts;

 private:
  bool refuses(const std::filesystem::path& entry) const { return readOnly.contains(entry.parent_path()); }
  static ProcessRunResult denied(const std::string& tool, const std::filesystem::path& path) {
    return ScriptedProcessRunner::exited(1, "", tool + ": " + path.string() + ": Permission denied");
  }

  const DiskImageInstallerConfig& config_;
};

// An Ed25519 key pair made for one test, signing as the feed's publisher does.
class Ed25519Signer {
 public:
  Ed25519Signer() {
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_keygen_init(ctx);
    EVP_PKEY_keygen(ctx, &key);
    EVP_PKEY_CTX_free(ctx);
    key_.reset(key);
  }
  [[nodiscard]] Bytes publicKey() const {
    Bytes raw(32);
    std::size_t size = raw.size();
    EVP_PKEY_get_raw_public_key(key_.get(), raw.data(), &size);
    return raw;
  }
  [[nodiscard]] std::string sign(std::string_view data) const {
    Bytes signature(64);
    std::size_t size = signature.size();
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key_.get());
    EVP_DigestSign(ctx, signature.data(), &size, reinterpret_cast<const unsigned char*>(data.data()), data.size());
    EVP_MD_CTX_free(ctx);
    return base64Encode(signature);
  }

 private:
  struct Free {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
  };
  std::unique_ptr<EVP_PKEY, Free> key_;
};

}  // namespace norvik::testing
