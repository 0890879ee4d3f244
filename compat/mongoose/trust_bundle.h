// The trust anchors of a PEM bundle, taken in without decoding them.
//
// A device trusts some 150 authorities and meets one or two of them. OpenSSL decodes every
// certificate of a bundle that it loads, keys included, which takes it longer than everything else
// that a start of the service does. Here only the subjects' names are read; a certificate is
// decoded when a chain asks for its name, once per process.
#ifndef COMPAT_MONGOOSE_TRUST_BUNDLE_H
#define COMPAT_MONGOOSE_TRUST_BUNDLE_H

#include <openssl/x509_vfy.h>

namespace mg_facade {

/// Makes the certificates of a file trust anchors of the store ("CERTIFICATE", "X509 CERTIFICATE"
/// and "TRUSTED CERTIFICATE" of a PEM file; what else is in it is passed over). The file is read
/// now and never again. The store may be used by several threads.
///
/// A certificate whose outer structure is damaged makes the whole file unusable. Damage deeper
/// inside is noticed when the certificate is needed: it then counts as not there.
/// @return false when the file cannot be read, is damaged or holds no certificate; OpenSSL's error
///         queue says why
bool add_trust_bundle(X509_STORE* store, const char* file);

}  // namespace mg_facade

#endif
