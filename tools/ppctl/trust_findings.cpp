#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <sstream>
#include <system_error>

#include "tools/ppctl/findings.h"

namespace ppctl {

namespace {

namespace fs = std::filesystem;

struct Certificates {
  int all = 0;
  int valid = 0;  // now
};

bool is_valid_now(const X509& certificate) {
  return X509_cmp_current_time(X509_get0_notBefore(&certificate)) < 0 &&
         X509_cmp_current_time(X509_get0_notAfter(&certificate)) > 0;
}

Certificates count_certificates(const char* bundle) {
  Certificates count;
  const std::unique_ptr<BIO, int (*)(BIO*)> file(BIO_new_file(bundle, "r"), BIO_free);
  while (file) {
    const std::unique_ptr<X509, void (*)(X509*)> certificate(
        PEM_read_bio_X509_AUX(file.get(), nullptr, nullptr, nullptr), X509_free);
    if (!certificate) break;
    ++count.all;
    if (is_valid_now(*certificate)) ++count.valid;
  }
  ERR_clear_error();
  return count;
}

Finding check_bundle(const char* bundle) {
  const Certificates count = count_certificates(bundle);
  const std::string text = std::string("SSL_CERT_FILE ") + bundle + ": " +
                           std::to_string(count.all) + " certificates, " +
                           std::to_string(count.valid) + " valid now";
  if (count.valid > 0) return {Level::kOk, "trust", text, ""};
  return {Level::kWrong, "trust", text,
          count.all == 0 ? "name a readable bundle (package ca-certificates): nothing is uploaded"
                         : "check the clock, renew the bundle: nothing is uploaded"};
}

// "5ed36f99.0": eight hexadecimal digits, a dot and a number.
bool is_hashed_name(const std::string& name) {
  constexpr std::size_t kHash = 8;
  return name.size() > kHash + 1 && name[kHash] == '.' &&
         std::all_of(name.begin(), name.begin() + kHash,
                     [](unsigned char c) { return std::isxdigit(c) != 0; }) &&
         std::all_of(name.begin() + kHash + 1, name.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

Finding check_folder(const std::string& folder) {
  int count = 0;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (is_hashed_name(entry->path().filename().string())) ++count;
  }
  const std::string text = "SSL_CERT_DIR " + folder + ": ";
  if (error) {
    return {Level::kWrong, "trust", text + error.message(), "name a readable folder"};
  }
  if (count == 0) {
    return {Level::kWrong, "trust", text + "no hashed certificates", "run openssl rehash on it"};
  }
  return {Level::kOk, "trust", text + std::to_string(count) + " hashed certificates", ""};
}

// The service does with those that it can use.
Findings check_folders(const std::string& folders) {
  Findings findings;
  std::istringstream list(folders);
  for (std::string folder; std::getline(list, folder, ':');) {
    if (!folder.empty()) findings.push_back(check_folder(folder));
  }
  const bool is_any_ok = std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.level == Level::kOk;
  });
  for (Finding& finding : findings) {
    if (is_any_ok && finding.level == Level::kWrong) finding.level = Level::kWarning;
  }
  return findings;
}

}  // namespace

Findings check_trust(const char* bundle, const char* folders) {
  if (bundle == nullptr && folders == nullptr) {
    return {{Level::kWarning, "trust", "neither SSL_CERT_FILE nor SSL_CERT_DIR is set here",
             "a service started like this does not verify its servers"}};
  }
  Findings findings;
  if (bundle != nullptr) findings.push_back(check_bundle(bundle));
  if (folders != nullptr) {
    const Findings of_folders = check_folders(folders);
    findings.insert(findings.end(), of_folders.begin(), of_folders.end());
  }
  return findings;
}

}  // namespace ppctl
