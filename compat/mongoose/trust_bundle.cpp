#include "compat/mongoose/trust_bundle.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "compat/mongoose/openssl_ptr.h"

namespace mg_facade {
namespace {

using FilePtr = OpensslPtr<BIO, BIO_free>;
using NamePtr = OpensslPtr<X509_NAME, X509_NAME_free>;
using ObjectPtr = OpensslPtr<X509_OBJECT, X509_OBJECT_free>;
using CertificatePtr = OpensslPtr<X509, X509_free>;

struct OpensslFree {
  void operator()(void* memory) const { OPENSSL_free(memory); }
};

struct PemBlock {
  std::string label;
  std::vector<unsigned char> bytes;
};

struct Anchor {
  unsigned long subject_hash;  // equal for equal names, however they are encoded
  bool with_trust;             // OpenSSL's own format, a certificate and what it is trusted for
  std::vector<unsigned char> bytes;
};
using Anchors = std::vector<Anchor>;

// Empty at the end of the file, and when it is damaged.
std::optional<PemBlock> next_block(BIO* file) {
  char* label = nullptr;
  char* header = nullptr;
  unsigned char* bytes = nullptr;
  long size = 0;
  if (PEM_read_bio(file, &label, &header, &bytes, &size) != 1) return std::nullopt;
  const std::unique_ptr<void, OpensslFree> owners[] = {std::unique_ptr<void, OpensslFree>(label),
                                                       std::unique_ptr<void, OpensslFree>(header),
                                                       std::unique_ptr<void, OpensslFree>(bytes)};
  return PemBlock{label, {bytes, bytes + size}};
}

// One element of DER: what it holds, and what follows it.
struct Element {
  int tag;
  int tag_class;
  const unsigned char* begin;
  const unsigned char* end;
};

std::optional<Element> element_at(const unsigned char* at, const unsigned char* end) {
  constexpr int kFaultOrIndefinite = 0x81;
  Element found = {};
  long size = 0;
  const int result = ASN1_get_object(&at, &size, &found.tag, &found.tag_class, end - at);
  if ((result & kFaultOrIndefinite) != 0) return std::nullopt;
  found.begin = at;
  found.end = at + size;
  return found;
}

// Certificate { signed part { [version], serial, algorithm, issuer, validity, subject, ...
NamePtr subject_of(const std::vector<unsigned char>& certificate) {
  const auto whole = element_at(certificate.data(), certificate.data() + certificate.size());
  const auto signed_part = whole ? element_at(whole->begin, whole->end) : std::nullopt;
  if (!signed_part || signed_part->tag != V_ASN1_SEQUENCE) return nullptr;
  const unsigned char* at = signed_part->begin;
  const auto first = element_at(at, signed_part->end);
  if (first && first->tag_class == V_ASN1_CONTEXT_SPECIFIC) at = first->end;
  constexpr int kBeforeTheSubject = 4;
  for (int passed = 0; passed < kBeforeTheSubject; ++passed) {
    const auto element = element_at(at, signed_part->end);
    if (!element) return nullptr;
    at = element->end;
  }
  return NamePtr(d2i_X509_NAME(nullptr, &at, signed_part->end - at));
}

std::optional<Anchor> anchor_of(PemBlock block) {
  const NamePtr subject = subject_of(block.bytes);
  if (subject == nullptr) return std::nullopt;
  const bool with_trust = block.label == PEM_STRING_X509_TRUSTED;
  return Anchor{X509_NAME_hash(subject.get()), with_trust, std::move(block.bytes)};
}

bool is_certificate(const PemBlock& block) {
  return block.label == PEM_STRING_X509 || block.label == PEM_STRING_X509_OLD ||
         block.label == PEM_STRING_X509_TRUSTED;
}

// None when anything is wrong with the file.
Anchors read_anchors(const char* path) {
  const FilePtr file(BIO_new_file(path, "r"));
  if (file == nullptr) return {};
  Anchors anchors;
  while (std::optional<PemBlock> block = next_block(file.get())) {
    if (!is_certificate(*block)) continue;
    std::optional<Anchor> anchor = anchor_of(std::move(*block));
    if (!anchor) return {};
    anchors.push_back(std::move(*anchor));
  }
  const bool whole = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  return whole ? std::move(anchors) : Anchors();
}

CertificatePtr decode(const Anchor& anchor) {
  const unsigned char* at = anchor.bytes.data();
  const auto size = static_cast<long>(anchor.bytes.size());
  return CertificatePtr(anchor.with_trust ? d2i_X509_AUX(nullptr, &at, size)
                                          : d2i_X509(nullptr, &at, size));
}

// Puts it among a store's objects, unless it is there. X509_STORE_add_cert() for who has the lock.
void add(STACK_OF(X509_OBJECT) * objects, X509* certificate) {
  ObjectPtr object(X509_OBJECT_new());
  if (object == nullptr || X509_OBJECT_set1_X509(object.get(), certificate) != 1) return;
  if (X509_OBJECT_retrieve_match(objects, object.get()) != nullptr) return;
  if (sk_X509_OBJECT_push(objects, object.get()) > 0) static_cast<void>(object.release());
}

// As OpenSSL's own look-ups do it: the result belongs to the store and is not counted.
bool give(STACK_OF(X509_OBJECT) * objects, const X509_NAME* name, X509_OBJECT* result) {
  const X509_OBJECT* const found = X509_OBJECT_retrieve_by_subject(objects, X509_LU_X509, name);
  X509* const certificate = found == nullptr ? nullptr : X509_OBJECT_get0_X509(found);
  const bool given = certificate != nullptr && X509_OBJECT_set1_X509(result, certificate) == 1;
  if (given) X509_free(certificate);
  return given;
}

// Called for a name of which the store has no certificate yet. All anchors of that name go into the
// store under one lock: another thread that found the first of them there would ask for no more,
// and might need the second.
int find_by_subject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name,
                    X509_OBJECT* result) {
  if (type != X509_LU_X509) return 0;
  const auto& anchors = *static_cast<const Anchors*>(X509_LOOKUP_get_method_data(lookup));
  X509_STORE* const store = X509_LOOKUP_get_store(lookup);
  const unsigned long hash = X509_NAME_hash(name);
  ERR_set_mark();
  X509_STORE_lock(store);
  STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(store);
  for (const Anchor& anchor : anchors) {
    if (anchor.subject_hash != hash) continue;
    const CertificatePtr certificate = decode(anchor);
    if (certificate != nullptr) add(objects, certificate.get());
  }
  const bool given = give(objects, name, result);
  X509_STORE_unlock(store);
  ERR_pop_to_mark();  // a damaged one is no fault of the handshake that goes on
  return given ? 1 : 0;
}

void free_anchors(X509_LOOKUP* lookup) {
  delete static_cast<const Anchors*>(X509_LOOKUP_get_method_data(lookup));
}

X509_LOOKUP_METHOD* bundle_method() {
  static X509_LOOKUP_METHOD* const method = [] {
    X509_LOOKUP_METHOD* const made = X509_LOOKUP_meth_new("trust bundle");
    X509_LOOKUP_meth_set_get_by_subject(made, find_by_subject);
    X509_LOOKUP_meth_set_free(made, free_anchors);
    return made;
  }();
  return method;
}

}  // namespace

bool add_trust_bundle(X509_STORE* store, const char* file) {
  auto anchors = std::make_unique<const Anchors>(read_anchors(file));
  if (anchors->empty()) return false;
  ERR_clear_error();  // the end of the file was one
  X509_LOOKUP* const lookup = X509_STORE_add_lookup(store, bundle_method());
  if (lookup == nullptr) return false;
  return X509_LOOKUP_set_method_data(lookup, const_cast<Anchors*>(anchors.release())) == 1;
}

}  // namespace mg_facade
