#include "tools/reference-receiver/ServerCertificate.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace zagent::tools {
namespace {

constexpr long kDay = 24L * 60 * 60;
constexpr const char* kKeyFile = "/key.pem";
constexpr const char* kCertificateFile = "/cert.pem";

struct FileDeleter {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileDeleter>;

void Require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("OpenSSL failed to ") + what);
}

void AddExtension(X509* certificate, int kind, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value);
  Require(extension != nullptr, "make a certificate extension");
  const int added = X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
  Require(added == 1, "add a certificate extension");
}

}  // namespace

ServerCertificate::ServerCertificate(const std::string& folder, const Traits& traits) {
  if (!folder.empty() && Load(folder)) return;
  Make(traits);
  if (!folder.empty()) Keep(folder);
}

bool ServerCertificate::Load(const std::string& folder) {
  const File key(std::fopen((folder + kKeyFile).c_str(), "re"));
  const File certificate(std::fopen((folder + kCertificateFile).c_str(), "re"));
  if (!key || !certificate) return false;
  key_.reset(PEM_read_PrivateKey(key.get(), nullptr, nullptr, nullptr));
  certificate_.reset(PEM_read_X509(certificate.get(), nullptr, nullptr, nullptr));
  Require(key_ && certificate_ && X509_check_private_key(certificate_.get(), key_.get()) == 1,
          "read the kept certificate and its key");
  return true;
}

// The certificate last: without it the two are made anew.
void ServerCertificate::Keep(const std::string& folder) const {
  if (std::filesystem::create_directories(folder)) {
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
  }
  const std::string path = folder + kKeyFile;
  std::filesystem::remove(path);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  File out(fd < 0 ? nullptr : fdopen(fd, "w"));
  if (!out) throw std::runtime_error("Cannot write " + path);
  Require(PEM_write_PrivateKey(out.get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1, "write the key");
  if (std::fclose(out.release()) != 0) throw std::runtime_error("Cannot write " + path);
  WriteTo(folder + kCertificateFile);
}

void ServerCertificate::Make(const Traits& traits) {
  key_.reset(EVP_EC_gen("P-256"));
  certificate_.reset(X509_new());
  Require(key_ != nullptr, "make a key");
  Require(certificate_ != nullptr, "make a certificate");
  X509* certificate = certificate_.get();
  std::uint32_t serial = 0;
  Require(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) == 1, "make a serial number");
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial);
  // A guest's clock may be behind the one of the machine that looks at the file.
  X509_gmtime_adj(X509_getm_notBefore(certificate), std::min(traits.days, 0) * kDay - kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate), traits.days * kDay);
  X509_NAME* name = X509_get_subject_name(certificate);
  Require(
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>("ostrel reference receiver"), -1, -1, 0) == 1 &&
          X509_set_issuer_name(certificate, name) == 1 && X509_set_pubkey(certificate, key_.get()) == 1,
      "fill the certificate");
  AddExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate, NID_subject_alt_name, traits.names.c_str());
  AddExtension(certificate, NID_ext_key_usage, "serverAuth");
  Require(X509_sign(certificate, key_.get(), EVP_sha256()) != 0, "sign the certificate");
}

void ServerCertificate::WriteTo(const std::string& file) const {
  // A reader never sees half a certificate.
  const std::string partial = file + ".part";
  File out(std::fopen(partial.c_str(), "we"));
  if (!out) throw std::runtime_error("Cannot write " + partial);
  Require(PEM_write_X509(out.get(), certificate_.get()) == 1, "write the certificate");
  if (std::fclose(out.release()) != 0 || std::rename(partial.c_str(), file.c_str()) != 0) {
    throw std::runtime_error("Cannot write " + file);
  }
}

}  // namespace zagent::tools
