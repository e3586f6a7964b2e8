/* Whether the server at the other end is the one that was meant. */
#include "post-tls.h"

#include <vector>

#include "post-etpan.h"

namespace {

/* The certificates of a chain, the server's first. */
struct chain_holder {
  std::vector<gnutls_x509_crt_t> certificates;
  ~chain_holder() {
    for (gnutls_x509_crt_t one : certificates) gnutls->gnutls_x509_crt_deinit(one);
  }
};

int read_chain(mailstream *stream, chain_holder *chain) {
  carray *raw = etpan->mailstream_get_certificate_chain(stream);
  if (!raw) return -1;
  for (unsigned i = 0; i < carray_count(raw) && i < 16; i++) {
    auto *der = static_cast<MMAPString *>(carray_get(raw, i));
    gnutls_datum_t bytes = {reinterpret_cast<unsigned char *>(der->str), static_cast<unsigned>(der->len)};
    gnutls_x509_crt_t certificate;
    if (gnutls->gnutls_x509_crt_init(&certificate) < 0) break;
    chain->certificates.push_back(certificate);
    if (gnutls->gnutls_x509_crt_import(certificate, &bytes, GNUTLS_X509_FMT_DER) < 0) {
      chain->certificates.clear();
      break;
    }
  }
  etpan->mailstream_certificate_chain_free(raw);
  return chain->certificates.empty() ? -1 : 0;
}

std::string refusal(unsigned status, const std::string &host) {
  const std::string who = "the server's certificate ";
  if (status & GNUTLS_CERT_EXPIRED) return who + "is no longer valid; ask who runs " + host;
  if (status & GNUTLS_CERT_NOT_ACTIVATED) return who + "is not valid yet; is this machine's clock right?";
  if (status & GNUTLS_CERT_UNEXPECTED_OWNER)
    return who + "is for another name than " + host + "; check the server's name";
  if (status & GNUTLS_CERT_REVOKED) return who + "was revoked; ask who runs " + host;
  if (status & GNUTLS_CERT_SIGNER_NOT_FOUND)
    return who +
           "was issued by nobody this machine trusts; if it is your own server, give setup its authority with --ca "
           "FILE";
  return who + "is not good enough to be trusted; ask who runs " + host;
}

}  // namespace

int tls_check(mailstream *stream, const std::string &host, const std::string &ca, std::string *error) {
  chain_holder chain;
  if (read_chain(stream, &chain) < 0) {
    *error = host + ": the connection has no certificate";
    return -1;
  }
  gnutls_x509_trust_list_t trusted;
  if (gnutls->gnutls_x509_trust_list_init(&trusted, 0) < 0) return -1;
  int added = gnutls->gnutls_x509_trust_list_add_system_trust(trusted, 0, 0);
  if (!ca.empty())
    added = gnutls->gnutls_x509_trust_list_add_trust_file(trusted, ca.c_str(), nullptr, GNUTLS_X509_FMT_PEM, 0, 0);
  std::string name = host; /* the library takes it to its NUL, whatever the size says */
  gnutls_typed_vdata_st meant[] = {
      {GNUTLS_DT_DNS_HOSTNAME, reinterpret_cast<unsigned char *>(name.data()), 0},
      {GNUTLS_DT_KEY_PURPOSE_OID, reinterpret_cast<unsigned char *>(const_cast<char *>(GNUTLS_KP_TLS_WWW_SERVER)), 0}};
  unsigned status = GNUTLS_CERT_INVALID;
  int checked = gnutls->gnutls_x509_trust_list_verify_crt2(trusted, chain.certificates.data(),
                                                           static_cast<unsigned>(chain.certificates.size()), meant, 2,
                                                           0, &status, nullptr);
  gnutls->gnutls_x509_trust_list_deinit(trusted, 1);
  if (checked == 0 && status == 0) return 0;
  *error = !ca.empty() && added <= 0 ? ca + ": holds no certificates" : refusal(status, host);
  return -1;
}
