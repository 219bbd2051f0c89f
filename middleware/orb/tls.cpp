#include "middleware/orb/tls.h"

#include <fmt/format.h>
#include <omniORB4/CORBA.h>
#include <omniORB4/sslContext.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <mutex>
#include <utility>

#include "platform/log.h"
#include "platform/sockets.h"

namespace portsvc::orb {
namespace {

template <auto Free>
struct Freed {
  template <class T>
  void operator()(T* thing) const {
    Free(thing);
  }
};
template <class T, auto Free>
using Owned = std::unique_ptr<T, Freed<Free>>;

void free_certificates(STACK_OF(X509) * certificates) { sk_X509_pop_free(certificates, X509_free); }

void free_names(STACK_OF(X509_NAME) * names) { sk_X509_NAME_pop_free(names, X509_NAME_free); }

/// What a handshake needs; never changed once made.
struct Material {
  Owned<X509, X509_free> own;
  Owned<STACK_OF(X509), free_certificates> chain;
  Owned<EVP_PKEY, EVP_PKEY_free> key;
  Owned<X509_STORE, X509_STORE_free> authorities;
  Owned<STACK_OF(X509_NAME), free_names> authority_names;
};

std::mutex material_lock;                  // guards material
std::shared_ptr<const Material> material;  // null: what the broker has read at its start

std::shared_ptr<const Material> current_material() {
  const std::lock_guard<std::mutex> guard(material_lock);
  return material;
}

std::string last_error() {
  const unsigned long error = ERR_peek_last_error();
  const char* const reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
  ERR_clear_error();
  return reason ? reason : "it is not valid";
}

std::string address_of(const SSL* ssl) {
  const std::string address = peer_address(SSL_get_fd(ssl));
  return address.empty() ? "a client that has gone" : address;
}

void report_failure(const SSL* ssl) {
  if (SSL_want(ssl) != SSL_NOTHING && BIO_should_retry(SSL_get_rbio(ssl)) != 0) return;
  const long verified = SSL_get_verify_result(ssl);
  const unsigned long error = ERR_peek_last_error();
  const char* reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
  if (verified != X509_V_OK) reason = X509_verify_cert_error_string(verified);
  static Seldom_Log seldom;
  seldom.log(Log_Level::warning, "tls",
             fmt::format("{} {}: {}", SSL_is_server(ssl) != 0 ? "refused" : "no connection to",
                         address_of(ssl), reason ? reason : "it has left"));
}

void on_progress(const SSL* ssl, int where, int result) {
  if ((where & SSL_CB_HANDSHAKE_START) != 0 && SSL_in_before(ssl) != 0) {
    // The broker's own context is in use by other threads: a connection is given its own.
    auto* const connection = const_cast<SSL*>(ssl);
    if (const auto now = current_material()) {
      SSL_use_cert_and_key(connection, now->own.get(), now->key.get(), now->chain.get(), 1);
      SSL_set1_verify_cert_store(connection, now->authorities.get());
      SSL_set_client_CA_list(connection, SSL_dup_CA_list(now->authority_names.get()));
    }
  } else if ((where & SSL_CB_EXIT) != 0 && result <= 0) {
    report_failure(ssl);
  }
}

}  // namespace

void watch_handshakes() { sslContext::info_callback = on_progress; }

void use_certificates(const Tls& tls) {
  Options with_tls;
  with_tls.tls = tls;
  check(with_tls);
  ERR_clear_error();
  auto next = std::make_shared<Material>();
  const Owned<BIO, BIO_free_all> file(BIO_new_file(tls.key.c_str(), "r"));
  if (!file) throw Error(fmt::format("cannot read {}", tls.key));
  next->own.reset(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
  if (!next->own) throw Error(fmt::format("{}: {}", tls.key, last_error()));
  next->chain.reset(sk_X509_new_null());
  while (X509* const more = PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr)) {
    sk_X509_push(next->chain.get(), more);
  }
  (void)BIO_reset(file.get());
  ERR_clear_error();
  next->key.reset(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr));
  if (!next->key) throw Error(fmt::format("{}: {}", tls.key, last_error()));
  if (X509_check_private_key(next->own.get(), next->key.get()) != 1) {
    throw Error(fmt::format("{}: the key is not the certificate's", tls.key));
  }
  next->authorities.reset(X509_STORE_new());
  if (X509_STORE_load_locations(next->authorities.get(), tls.authorities.c_str(), nullptr) != 1) {
    throw Error(fmt::format("{}: {}", tls.authorities, last_error()));
  }
  next->authority_names.reset(SSL_load_client_CA_file(tls.authorities.c_str()));
  const std::lock_guard<std::mutex> guard(material_lock);
  material = std::move(next);
}

}  // namespace portsvc::orb
