#include "log_consumer/qv_server_assigned.h"

#include <utility>

#include "log_consumer/qv_json_value.h"

QvIdentities::QvIdentities(std::string name) : QvJsonObj(kIdentitiesObj, std::move(name)) {}

void QvIdentities::read(const QvJsonValue& node) {
  node.read("sysId", sysId_);
}

bool QvIdentities::getSysId(std::string* id) const {
  return sysId_.get(id);
}

QvToken::QvToken(std::string name) : QvJsonObj(kTokenObj, std::move(name)) {}

void QvToken::read(const QvJsonValue& node) {
  node.read("encoded", encoded_);
}

bool QvToken::getEncoded(std::string* encoded) const {
  return encoded_.get(encoded);
}

QvSecurity::QvSecurity(std::string name)
    : QvJsonObj(kSecurityObj, std::move(name)), nuvToken_(QvToken("nuvToken")) {}

void QvSecurity::read(const QvJsonValue& node) {
  node.readSection("nuvToken", nuvToken_);
}

bool QvSecurity::getNuvToken(QvToken** section) const {
  return nuvToken_.get_section(section);
}

QvUrlsSec::QvUrlsSec(std::string name) : QvJsonObj(kUrlsSecObj, std::move(name)) {}

void QvUrlsSec::read(const QvJsonValue&) {}

QvServerAssigned::QvServerAssigned(std::string name)
    : QvJsonObj(kServerAssignedObj, std::move(name)),
      identities_(QvIdentities("identities")),
      security_(QvSecurity("security")),
      urlsSec_(QvUrlsSec("urlsSec")) {}

void QvServerAssigned::read(const QvJsonValue& node) {
  node.readSection("identities", identities_);
  node.readSection("security", security_);
  node.readSection("urlsSec", urlsSec_);
}

bool QvServerAssigned::getIdentities(QvIdentities** section) const {
  return identities_.get_section(section);
}

bool QvServerAssigned::getSecurity(QvSecurity** section) const {
  return security_.get_section(section);
}

bool QvServerAssigned::getUrlsSec(QvUrlsSec** section) const {
  return urlsSec_.get_section(section);
}
