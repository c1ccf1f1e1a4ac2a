#include "update/package_signature.h"

#include <charconv>

#include <fmt/format.h>

#include "platform/crypto.h"
#include "platform/text.h"
#include "update/file_signature.h"

namespace norvik {
namespace {

constexpr std::string_view kArchiveMagic = "!<arch>\n";
constexpr std::size_t kHeaderSize = 60;
constexpr std::size_t kMaxSignatureMember = 4096;

PackageSignatureError error(PackageSignatureProblem problem, std::string detail) {
  return PackageSignatureError{problem, std::move(detail)};
}

std::string quotedValue(std::string_view value) { return fmt::format("\"{}\"", utf8Prefix(value, 80)); }

// The member name of a header: the first 16 bytes without trailing spaces and GNU ar's '/'.
std::string_view memberName(std::string_view header) {
  std::string_view name = header.substr(0, 16);
  while (!name.empty() && name.back() == ' ') name.remove_suffix(1);
  if (name.size() > 1 && name.back() == '/') name.remove_suffix(1);
  return name;
}

std::optional<std::uint64_t> memberSize(std::string_view header) {
  std::string_view field = header.substr(48, 10);
  while (!field.empty() && field.back() == ' ') field.remove_suffix(1);
  std::uint64_t size = 0;
  const auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), size);
  if (field.empty() || ec != std::errc() || end != field.data() + field.size()) return std::nullopt;
  return size;
}

}  // namespace

std::expected<PackageSignature, PackageSignatureError> parsePackageSignature(std::string_view text,
                                                                             std::uint64_t signedLength) {
  std::optional<std::string> version, key, signature;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (trimWhitespace(line).empty()) continue;
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) {
      return std::unexpected(
          error(PackageSignatureProblem::malformed, "line " + quotedValue(line) + " has no field name"));
    }
    const std::string_view field = line.substr(0, colon);
    const std::string value(trimWhitespace(line.substr(colon + 1)));
    std::optional<std::string>* slot = field == "Norvik-Package-Signature" ? &version
                                       : field == "Key"                    ? &key
                                       : field == "Signature"              ? &signature
                                                                           : nullptr;
    if (!slot) continue;  // later formats may add fields
    if (*slot)
      return std::unexpected(error(PackageSignatureProblem::malformed, "field " + quotedValue(field) + " twice"));
    *slot = value;
  }
  if (!version || *version != "1") {
    return std::unexpected(
        error(PackageSignatureProblem::malformed,
              "format " + (version ? quotedValue(*version) : std::string("missing")) + ", not \"1\""));
  }
  if (!key) return std::unexpected(error(PackageSignatureProblem::malformed, "no Key field"));
  if (!signature) return std::unexpected(error(PackageSignatureProblem::malformed, "no Signature field"));
  auto publicKey = parseEd25519PublicKey(*key);
  if (!publicKey) {
    return std::unexpected(
        error(PackageSignatureProblem::malformed, "Key " + quotedValue(*key) + ": " + publicKey.error()));
  }
  return PackageSignature{std::move(*publicKey), std::move(*signature), signedLength};
}

std::expected<PackageSignature, PackageSignatureError> findPackageSignature(std::string_view archive) {
  if (!archive.starts_with(kArchiveMagic)) {
    return std::unexpected(error(PackageSignatureProblem::notAnArchive, "no ar archive magic"));
  }
  std::size_t offset = kArchiveMagic.size();
  std::size_t members = 0;
  std::optional<std::size_t> signatureAt;
  std::string_view signatureText;
  while (offset < archive.size()) {
    if (archive.size() - offset < kHeaderSize) {
      return std::unexpected(
          error(PackageSignatureProblem::notAnArchive, fmt::format("a member header at {} is cut short", offset)));
    }
    const std::string_view header = archive.substr(offset, kHeaderSize);
    if (header.substr(58, 2) != "`\n") {
      return std::unexpected(
          error(PackageSignatureProblem::notAnArchive, fmt::format("the member header at {} is damaged", offset)));
    }
    const auto size = memberSize(header);
    const std::size_t dataAt = offset + kHeaderSize;
    if (!size || *size > archive.size() - dataAt) {
      return std::unexpected(
          error(PackageSignatureProblem::notAnArchive,
                fmt::format("member {} at {} has size {}, beyond the file's end", quotedValue(memberName(header)),
                            offset, quotedValue(header.substr(48, 10)))));
    }
    const std::string_view name = memberName(header);
    if (signatureAt) {
      return std::unexpected(error(PackageSignatureProblem::unsigned_,
                                   "member " + quotedValue(name) + " follows the signature: it is not signed"));
    }
    if (name == kPackageSignatureMember) {
      if (members < 3) {
        return std::unexpected(
            error(PackageSignatureProblem::unsigned_, "the signature comes before the package's own members"));
      }
      if (*size > kMaxSignatureMember) {
        return std::unexpected(
            error(PackageSignatureProblem::malformed, fmt::format("the signature member has {} bytes", *size)));
      }
      signatureAt = offset;
      signatureText = archive.substr(dataAt, *size);
    }
    ++members;
    // Members start at even offsets: an odd-sized member is followed by one byte of padding.
    offset = dataAt + *size + (*size % 2);
  }
  if (!signatureAt) {
    return std::unexpected(error(PackageSignatureProblem::unsigned_, "the package carries no signature member"));
  }
  return parsePackageSignature(signatureText, *signatureAt);
}

}  // namespace norvik
