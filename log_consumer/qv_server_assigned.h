// Views of the node /serverAssigned: what the cloud service gave the device.
#ifndef LOG_CONSUMER_QV_SERVER_ASSIGNED_H
#define LOG_CONSUMER_QV_SERVER_ASSIGNED_H

#include <string>

#include "log_consumer/qv_json_base.h"

class QvJsonValue;

/// Section "identities" of /serverAssigned.
class QvIdentities : public QvJsonObj {
 public:
  explicit QvIdentities(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  /// The system id that the cloud service assigned.
  bool getSysId(std::string* id) const;

 private:
  QvJB_base<std::string> sysId_;
};

/// Section "nuvToken" of the security section: the device's access token.
class QvToken : public QvJsonObj {
 public:
  explicit QvToken(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  /// The token in the form in which it is transmitted.
  bool getEncoded(std::string* encoded) const;

 private:
  QvJB_base<std::string> encoded_;
};

/// Section "security" of /serverAssigned.
class QvSecurity : public QvJsonObj {
 public:
  explicit QvSecurity(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  bool getNuvToken(QvToken** section) const;

 private:
  mutable QvJB_base<QvToken> nuvToken_;  // const getters hand out changeable sections
};

/// Section "urlsSec" of /serverAssigned. Only its presence matters here: this service keeps the
/// servers it was started with.
class QvUrlsSec : public QvJsonObj {
 public:
  explicit QvUrlsSec(std::string name);

  /// Takes nothing from the node.
  void read(const QvJsonValue& node);
};

/// The node /serverAssigned.
class QvServerAssigned : public QvJsonObj {
 public:
  explicit QvServerAssigned(std::string name);

  /// Fills the view from its node.
  void read(const QvJsonValue& node);

  bool getIdentities(QvIdentities** section) const;
  bool getSecurity(QvSecurity** section) const;
  bool getUrlsSec(QvUrlsSec** section) const;

 private:
  mutable QvJB_base<QvIdentities> identities_;  // const getters hand out changeable sections
  mutable QvJB_base<QvSecurity> security_;
  mutable QvJB_base<QvUrlsSec> urlsSec_;
};

#endif
