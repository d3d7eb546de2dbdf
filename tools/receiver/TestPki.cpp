// The test PKI, made with OpenSSL: EC P-256 keys, SHA-256 signatures, X.509 v3 server certificates.
#include "TestPki.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

struct PkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct X509Free {
  void operator()(X509* p) const { X509_free(p); }
};
struct ExtFree {
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};
struct BioFree {
  void operator()(BIO* p) const { BIO_free_all(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, ExtFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;

constexpr long kDay = 24 * 60 * 60;

[[noreturn]] void Fail(const std::string& what) {
  char detail[256] = "";
  if (unsigned long error = ERR_get_error()) ERR_error_string_n(error, detail, sizeof detail);
  ERR_clear_error();
  throw std::runtime_error("test PKI: " + what + (detail[0] ? std::string(": ") + detail : ""));
}

PkeyPtr NewKey() {
  PkeyPtr key(EVP_EC_gen("P-256"));
  if (!key) Fail("EVP_EC_gen");
  return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) Fail(std::string("extension ") + value);
}

// Issues the certificates of one set, each with its own serial number.
class Issuer {
 public:
  // A certificate for `subjectKey`, valid from now + notBefore to now + notAfter (seconds), signed by
  // issuerKey; a null issuer makes it self-signed. An empty altNames makes a CA certificate.
  X509Ptr Issue(const std::string& commonName, EVP_PKEY* subjectKey, X509* issuer, EVP_PKEY* issuerKey,
                long notBefore, long notAfter, const std::string& altNames) {
    X509Ptr cert(X509_new());
    if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1 ||
        ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial_) != 1 ||
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), notBefore) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(cert.get()), notAfter) == nullptr ||
        X509_set_pubkey(cert.get(), subjectKey) != 1) {
      Fail("certificate fields");
    }
    X509_NAME* name = X509_get_subject_name(cert.get());
    if (X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Orvane Tests"),
                                   -1, -1, 0) != 1 ||
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0) != 1 ||
        X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name) != 1) {
      Fail("certificate names");
    }
    X509* signer = issuer ? issuer : cert.get();
    AddExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
    if (altNames.empty()) {
      AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
      AddExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
      AddExtension(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
      AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
      AddExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature");
      AddExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth");
      AddExtension(cert.get(), signer, NID_subject_alt_name, altNames.c_str());
    }
    if (X509_sign(cert.get(), issuerKey, EVP_sha256()) == 0) Fail("X509_sign");
    return cert;
  }

 private:
  long serial_ = 0;
};

void WritePem(const std::string& path, X509* cert, EVP_PKEY* key) {
  BioPtr out(BIO_new_file(path.c_str(), "w"));
  if (!out) Fail("cannot create " + path);
  if (cert && PEM_write_bio_X509(out.get(), cert) != 1) Fail("cannot write " + path);
  if (key) {
    if (chmod(path.c_str(), 0600) != 0) Fail("cannot restrict " + path + ": " + strerror(errno));
    if (PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
      Fail("cannot write " + path);
    }
  }
  if (BIO_flush(out.get()) != 1) Fail("cannot write " + path);
}

}  // namespace

void TestPki::Write(const std::string& dir) {
  for (size_t end = dir.find('/', 1);; end = dir.find('/', end + 1)) {
    const std::string part = dir.substr(0, end);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) Fail("cannot create " + part + ": " + strerror(errno));
    if (end == std::string::npos) break;
  }
  auto path = [&dir](const char* name) { return dir + "/" + name; };
  const std::string rightNames =
      std::string("DNS:") + kPrimaryHost + ",DNS:" + kSecondaryHost + ",DNS:localhost,IP:127.0.0.1";
  constexpr long kCAYears = 3650 * kDay;
  constexpr long kServerDays = 825 * kDay;  // the longest a browser accepts for a server certificate

  Issuer issuer;
  PkeyPtr caKey = NewKey();
  X509Ptr ca = issuer.Issue("Orvane Test CA", caKey.get(), nullptr, caKey.get(), -kDay, kCAYears, "");
  PkeyPtr strangerKey = NewKey();
  X509Ptr stranger =
      issuer.Issue("Orvane Stranger CA", strangerKey.get(), nullptr, strangerKey.get(), -kDay, kCAYears, "");
  PkeyPtr serverKey = NewKey();
  EVP_PKEY* key = serverKey.get();

  WritePem(path(kCAFile), ca.get(), nullptr);
  WritePem(path(kServerKeyFile), nullptr, key);
  WritePem(path(kServerCertFile),
           issuer.Issue(kPrimaryHost, key, ca.get(), caKey.get(), -kDay, kServerDays, rightNames).get(), nullptr);
  WritePem(path(kWrongHostFile),
           issuer.Issue("wrong.velmar.example", key, ca.get(), caKey.get(), -kDay, kServerDays,
                        "DNS:wrong.velmar.example")
               .get(),
           nullptr);
  WritePem(path(kExpiredFile),
           issuer.Issue(kPrimaryHost, key, ca.get(), caKey.get(), -30 * kDay, -kDay, rightNames).get(), nullptr);
  WritePem(path(kWildcardFile),
           issuer.Issue("*.wild.velmar.example", key, ca.get(), caKey.get(), -kDay, kServerDays,
                        "DNS:*.wild.velmar.example,DNS:f*.velmar.example,DNS:*back2.velmar.example")
               .get(),
           nullptr);
  WritePem(path(kUnknownCAFile),
           issuer.Issue(kPrimaryHost, key, stranger.get(), strangerKey.get(), -kDay, kServerDays, rightNames).get(),
           nullptr);
}
