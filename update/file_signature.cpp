#include "update/file_signature.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/crypto.h"
#include "platform/text.h"

namespace norvik {
namespace {

constexpr std::size_t kPublicKeySize = 32;
constexpr std::size_t kSignatureSize = 64;

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

// A read-only mapping of a whole file; empty files map to an empty view.
class MappedFile {
 public:
  static std::expected<std::unique_ptr<MappedFile>, std::string> open(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::unexpected(fmt::format("open {}: {}", path.string(), std::strerror(errno)));
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
      const int err = errno;
      ::close(fd);
      return std::unexpected(fmt::format("stat {}: {}", path.string(), std::strerror(err)));
    }
    auto file = std::unique_ptr<MappedFile>(new MappedFile());
    file->size_ = static_cast<std::size_t>(st.st_size);
    if (file->size_ > 0) {
      void* data = ::mmap(nullptr, file->size_, PROT_READ, MAP_PRIVATE, fd, 0);
      if (data == MAP_FAILED) {
        const int err = errno;
        ::close(fd);
        return std::unexpected(fmt::format("mmap {}: {}", path.string(), std::strerror(err)));
      }
      file->data_ = static_cast<const unsigned char*>(data);
    }
    ::close(fd);
    return file;
  }
  ~MappedFile() {
    if (data_) ::munmap(const_cast<unsigned char*>(data_), size_);
  }
  [[nodiscard]] const unsigned char* data() const { return data_ ? data_ : reinterpret_cast<const unsigned char*>(""); }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  MappedFile() = default;
  const unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace

std::expected<Bytes, std::string> parseEd25519PublicKey(std::string_view base64) {
  auto key = base64Decode(trimWhitespace(base64));
  if (!key) return std::unexpected("the Ed25519 public key is not standard Base64");
  if (key->size() != kPublicKeySize) {
    return std::unexpected(fmt::format("the Ed25519 public key has {} bytes, not {}", key->size(), kPublicKeySize));
  }
  return std::move(*key);
}

namespace {

// A decoded signature and a usable key, ready to check bytes against.
struct Verification {
  Bytes signature;
  std::unique_ptr<EVP_PKEY, PkeyFree> key;
};

std::expected<Verification, std::string> prepare(std::string_view signatureBase64, ByteView publicKey) {
  auto signature = base64Decode(trimWhitespace(signatureBase64));
  if (!signature || signature->size() != kSignatureSize) {
    return std::unexpected(
        fmt::format("signature \"{}\" is not Base64 of {} bytes", utf8Prefix(signatureBase64, 120), kSignatureSize));
  }
  if (publicKey.size() != kPublicKeySize) return std::unexpected("no usable Ed25519 public key");
  std::unique_ptr<EVP_PKEY, PkeyFree> key(
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, publicKey.data(), publicKey.size()));
  if (!key) return std::unexpected("the Ed25519 public key is not a valid point");
  return Verification{std::move(*signature), std::move(key)};
}

std::expected<void, std::string> verify(const Verification& v, const unsigned char* data, std::size_t size) {
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, v.key.get()) != 1) {
    return std::unexpected("OpenSSL could not set up Ed25519 verification");
  }
  const int verdict = EVP_DigestVerify(ctx.get(), v.signature.data(), v.signature.size(), data, size);
  if (verdict != 1) {
    ERR_clear_error();  // leave this thread's OpenSSL error queue clean for the next user
    return std::unexpected("mismatch");
  }
  return {};
}

}  // namespace

std::expected<void, std::string> verifyEd25519FileSignature(const std::filesystem::path& file,
                                                            std::string_view signatureBase64, ByteView publicKey) {
  auto prepared = prepare(signatureBase64, publicKey);
  if (!prepared) return std::unexpected(prepared.error());
  auto mapped = MappedFile::open(file);
  if (!mapped) return std::unexpected(mapped.error());
  return verify(*prepared, (*mapped)->data(), (*mapped)->size());
}

std::expected<void, std::string> verifyEd25519Signature(std::string_view data, std::string_view signatureBase64,
                                                        ByteView publicKey) {
  auto prepared = prepare(signatureBase64, publicKey);
  if (!prepared) return std::unexpected(prepared.error());
  return verify(*prepared, reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

}  // namespace norvik
