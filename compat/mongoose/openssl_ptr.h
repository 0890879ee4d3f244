/// Owning pointers to OpenSSL's objects. Header only, for the facade and for the tests that speak
/// TLS with it.
#ifndef COMPAT_MONGOOSE_OPENSSL_PTR_H
#define COMPAT_MONGOOSE_OPENSSL_PTR_H

#include <memory>

namespace mg_facade {

/// A deleter that calls `function`, one of OpenSSL's X_free().
template <auto function>
struct FreedBy {
  template <typename Type>
  void operator()(Type* object) const {
    function(object);
  }
};

/// For example OpensslPtr<X509, X509_free>.
template <typename Type, auto function>
using OpensslPtr = std::unique_ptr<Type, FreedBy<function>>;

}  // namespace mg_facade

#endif
