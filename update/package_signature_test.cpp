#include "update/package_signature.h"

#include <gtest/gtest.h>

#include "platform/files.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"
#include "update/file_signature.h"
#include "update/package_test_support.h"

namespace norvik {
namespace {

using testing::arMember;
using testing::signedPackage;
using testing::unsignedPackage;

std::string problemOf(std::string_view archive) {
  auto found = findPackageSignature(archive);
  if (found) return "found";
  switch (found.error().problem) {
    case PackageSignatureProblem::notAnArchive:
      return "notAnArchive: " + found.error().detail;
    case PackageSignatureProblem::unsigned_:
      return "unsigned: " + found.error().detail;
    case PackageSignatureProblem::malformed:
    default:
      return "malformed: " + found.error().detail;
  }
}

TEST(PackageSignatureTest, AScriptSignedPackageIsFoundAndVerifiesOverEverythingBeforeIt) {
  testing::TempDir dir;
  const auto key = dir / "release.pem";
  auto made = testing::runProcess({"/usr/bin/openssl", "genpkey", "-algorithm", "ed25519", "-out", key.string()});
  ASSERT_EQ(made.exitStatus, 0) << made.err;
  // An odd-sized last member, so that the script's padding is exercised too.
  const std::string package = unsignedPackage("odd payload");
  const auto deb = dir / "norvik_2.0.0_amd64.deb";
  ASSERT_TRUE(writeFileAtomically(deb, package).has_value());

  auto signedRun = testing::runProcess({NORVIK_SOURCE_DIR "/scripts/sign-package", key.string(), deb.string()});
  ASSERT_EQ(signedRun.exitStatus, 0) << signedRun.err;
  EXPECT_NE(testing::runProcess({NORVIK_SOURCE_DIR "/scripts/sign-package", key.string(), deb.string()}).exitStatus, 0)
      << "a package is signed once";

  const std::string bytes = readFile(deb, 1 << 20).value();
  auto signature = findPackageSignature(bytes);
  ASSERT_TRUE(signature.has_value()) << signature.error().detail;
  EXPECT_EQ(signature->signedLength, package.size());
  EXPECT_TRUE(verifyEd25519Signature(std::string_view(bytes).substr(0, signature->signedLength), signature->signature,
                                     signature->publicKey)
                  .has_value());

  auto publicKey = testing::runProcess(
      {"/bin/sh", "-c", "openssl pkey -in '" + key.string() + "' -pubout -outform DER | tail -c 32 | base64 -w0"});
  EXPECT_EQ(base64Encode(signature->publicKey), publicKey.out) << "the member names the signing key";

  // One changed byte of the package's data, and the signature no longer matches.
  auto tampered = bytes;
  tampered[package.size() - 3] ^= 1;
  auto found = findPackageSignature(tampered);
  ASSERT_TRUE(found.has_value()) << found.error().detail;
  EXPECT_EQ(verifyEd25519Signature(std::string_view(tampered).substr(0, found->signedLength), found->signature,
                                   found->publicKey)
                .error(),
            "mismatch");
}

TEST(PackageSignatureTest, ArchivesThatDoNotAddUpAreNotPackages) {
  const testing::Ed25519Signer signer;
  const std::string good = signedPackage(signer);
  EXPECT_EQ(problemOf(good), "found");
  EXPECT_EQ(problemOf(""), "notAnArchive: no ar archive magic");
  EXPECT_EQ(problemOf("PK\x03\x04 a zip file"), "notAnArchive: no ar archive magic");
  EXPECT_TRUE(problemOf(good.substr(0, good.size() - 30)).starts_with("notAnArchive: member \"_norvik-sig\""))
      << problemOf(good.substr(0, good.size() - 30));
  EXPECT_TRUE(problemOf(good + "trailing").starts_with("notAnArchive: a member header")) << problemOf(good + "x");

  std::string damaged = good;
  damaged[8 + 58] = 'X';  // the first header's terminator
  EXPECT_EQ(problemOf(damaged), "notAnArchive: the member header at 8 is damaged");
  std::string badSize = good;
  badSize.replace(8 + 48, 10, "12x       ");
  EXPECT_TRUE(problemOf(badSize).starts_with("notAnArchive: member \"debian-binary\" at 8 has size \"12x"))
      << problemOf(badSize);
}

TEST(PackageSignatureTest, OnlyALastSignatureAfterThePackagesMembersCounts) {
  const testing::Ed25519Signer signer;
  EXPECT_EQ(problemOf(unsignedPackage()), "unsigned: the package carries no signature member");
  EXPECT_EQ(problemOf(signedPackage(signer) + arMember("data.tar.gz", "smuggled")),
            "unsigned: member \"data.tar.gz\" follows the signature: it is not signed");
  const std::string early = "!<arch>\n" + arMember("debian-binary", "2.0\n") +
                            testing::signatureMember(signer.publicKey(), signer.sign("x")) +
                            arMember("control.tar.xz", "c") + arMember("data.tar.xz", "d");
  EXPECT_EQ(problemOf(early), "unsigned: the signature comes before the package's own members");
  EXPECT_EQ(problemOf(unsignedPackage() + arMember("_norvik-sig", std::string(5000, 'x'))),
            "malformed: the signature member has 5000 bytes");
}

TEST(PackageSignatureTest, TheMemberTextIsReadFieldByField) {
  const std::string key = base64Encode(Bytes(32, 7));
  const std::string sig = base64Encode(Bytes(64, 9));
  auto parsed = parsePackageSignature(
      "Norvik-Package-Signature: 1\nComment: later\nKey: " + key + "\nSignature: " + sig + "\n", 1234);
  ASSERT_TRUE(parsed.has_value()) << parsed.error().detail;
  EXPECT_EQ(parsed->publicKey, Bytes(32, 7));
  EXPECT_EQ(parsed->signature, sig);
  EXPECT_EQ(parsed->signedLength, 1234u);

  auto detail = [](std::string_view text) {
    auto r = parsePackageSignature(text, 0);
    return r ? std::string("ok") : r.error().detail;
  };
  EXPECT_EQ(detail("Key: " + key + "\nSignature: " + sig), "format missing, not \"1\"");
  EXPECT_EQ(detail("Norvik-Package-Signature: 2\nKey: " + key + "\nSignature: " + sig), "format \"2\", not \"1\"");
  EXPECT_EQ(detail("Norvik-Package-Signature: 1\nSignature: " + sig), "no Key field");
  EXPECT_EQ(detail("Norvik-Package-Signature: 1\nKey: " + key), "no Signature field");
  EXPECT_EQ(detail("Norvik-Package-Signature: 1\nKey: " + key + "\nKey: " + key + "\nSignature: " + sig),
            "field \"Key\" twice");
  EXPECT_EQ(detail("Norvik-Package-Signature: 1\nno colon here"), "line \"no colon here\" has no field name");
  EXPECT_EQ(detail("Norvik-Package-Signature: 1\nKey: c2hvcnQ=\nSignature: " + sig),
            "Key \"c2hvcnQ=\": the Ed25519 public key has 5 bytes, not 32");
}

}  // namespace
}  // namespace norvik
