#pragma once

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace tovrel::curl::test {

/// A throwaway P-256 key and self-signed certificate for 127.0.0.1 (IP subject alternative name),
/// written as PEM into a fresh temporary directory that is removed with the object.
class TestCertificate {
  public:
    TestCertificate();
    ~TestCertificate();
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    /// The PEM certificate, usable as a client's CA file.
    [[nodiscard]] const std::string& certificateFile() const { return certificateFile_; }
    /// The PEM private key of the certificate, for a server that reads files.
    [[nodiscard]] const std::string& keyFile() const { return keyFile_; }
    /// base64(sha256(DER SubjectPublicKeyInfo)) of the certificate's key.
    [[nodiscard]] std::string pin() const;
    /// A server context presenting this certificate.
    [[nodiscard]] SSL_CTX* serverContext() const { return context_.get(); }

  private:
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
    std::unique_ptr<X509, decltype(&X509_free)> certificate_;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
    std::string directory_;
    std::string certificateFile_;
    std::string keyFile_;
};

/// The pin of a freshly generated key that no server presents.
std::string unrelatedPin();

/// base64(sha256(DER SubjectPublicKeyInfo)) of `key`.
std::string publicKeyPin(EVP_PKEY* key);

}  // namespace tovrel::curl::test
