#include "test_certificate.h"

#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace tovrel::curl::test {
namespace {

EVP_PKEY* newKey() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    if (key == nullptr) {
        throw std::runtime_error("EC key generation failed");
    }
    return key;
}

void require(bool ok, const char* what) {
    if (!ok) {
        throw std::runtime_error(what);
    }
}

}  // namespace

std::string publicKeyPin(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    require(length > 0, "i2d_PUBKEY failed");
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(der, static_cast<std::size_t>(length), digest);
    OPENSSL_free(der);
    std::vector<unsigned char> base64(4 * ((SHA256_DIGEST_LENGTH + 2) / 3) + 1);
    const int written = EVP_EncodeBlock(base64.data(), digest, SHA256_DIGEST_LENGTH);
    return std::string(reinterpret_cast<const char*>(base64.data()), static_cast<std::size_t>(written));
}

std::string unrelatedPin() {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(newKey(), EVP_PKEY_free);
    return publicKeyPin(key.get());
}

TestCertificate::TestCertificate()
    : key_(newKey(), EVP_PKEY_free), certificate_(X509_new(), X509_free), context_(nullptr, SSL_CTX_free) {
    X509* cert = certificate_.get();
    require(cert != nullptr, "X509_new failed");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600);
    X509_set_pubkey(cert, key_.get());
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"),
                               -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509V3_CTX extensions;
    X509V3_set_ctx_nodb(&extensions);
    X509V3_set_ctx(&extensions, cert, cert, nullptr, nullptr, 0);
    for (auto [nid, value] : {std::pair{NID_subject_alt_name, "IP:127.0.0.1"},
                              std::pair{NID_basic_constraints, "critical,CA:TRUE"}}) {
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &extensions, nid, value);
        require(extension != nullptr, "certificate extension failed");
        X509_add_ext(cert, extension, -1);
        X509_EXTENSION_free(extension);
    }
    require(X509_sign(cert, key_.get(), EVP_sha256()) > 0, "X509_sign failed");

    std::string pattern = (std::filesystem::temp_directory_path() / "tovrel-curl-XXXXXX").string();
    require(::mkdtemp(pattern.data()) != nullptr, "mkdtemp failed");
    directory_ = pattern;
    certificateFile_ = directory_ + "/certificate.pem";
    FILE* file = std::fopen(certificateFile_.c_str(), "w");
    require(file != nullptr, "cannot write the certificate");
    const bool written = PEM_write_X509(file, cert) == 1;
    std::fclose(file);
    require(written, "PEM_write_X509 failed");
    keyFile_ = directory_ + "/key.pem";
    file = std::fopen(keyFile_.c_str(), "w");
    require(file != nullptr, "cannot write the key");
    const bool keyWritten =
        PEM_write_PrivateKey(file, key_.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
    std::fclose(file);
    require(keyWritten, "PEM_write_PrivateKey failed");

    context_.reset(SSL_CTX_new(TLS_server_method()));
    require(context_ != nullptr, "SSL_CTX_new failed");
    require(SSL_CTX_use_certificate(context_.get(), cert) == 1 &&
                SSL_CTX_use_PrivateKey(context_.get(), key_.get()) == 1,
            "the server context refused the certificate");
}

TestCertificate::~TestCertificate() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string TestCertificate::pin() const {
    return publicKeyPin(key_.get());
}

}  // namespace tovrel::curl::test
