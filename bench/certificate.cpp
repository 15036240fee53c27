// SPDX-License-Identifier: LGPL-2.1-or-later
#include "certificate.h"
#include "owners.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <string>

namespace bench
{

static std::string
takeText(BIO *bio)
{
  char *data;
  long size = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return text;
}

static X509 *
signOneself(EVP_PKEY *key)
{
  X509 *certificate = X509_new();
  auto *name = X509_get_subject_name(certificate);
  auto *common = reinterpret_cast<const unsigned char *>("localhost");

  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common, -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_set_pubkey(certificate, key);
  must(X509_sign(certificate, key, EVP_sha256()) > 0, nullptr, "X509_sign");
  return certificate;
}

GTlsCertificate *
makeCertificate()
{
  EVP_PKEY *key = EVP_EC_gen("P-256");
  must(key != nullptr, nullptr, "EVP_EC_gen");
  X509 *certificate = signOneself(key);

  BIO *key_pem = BIO_new(BIO_s_mem());
  BIO *certificate_pem = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(key_pem, key, nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_bio_X509(certificate_pem, certificate);
  auto pem = takeText(certificate_pem) + takeText(key_pem);
  X509_free(certificate);
  EVP_PKEY_free(key);

  GError *error = nullptr;
  auto *made = g_tls_certificate_new_from_pem(pem.c_str(), static_cast<gssize>(pem.size()), &error);
  must(made != nullptr, error, "certificate");
  return made;
}

} // namespace bench
